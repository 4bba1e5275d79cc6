#include "archive/TavloKeyedArchiver.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <string_view>

#include "util/TavloText.h"
#include "util/TavloCalendar.h"

namespace {

constexpr int64_t kArchiveVersion = 100000;
constexpr uint32_t kNullUID = 0;
const std::vector<std::string> kDateClasses = {"NSDate", "NSObject"};
const std::vector<std::string> kArrayClasses = {"NSMutableArray", "NSArray", "NSObject"};
const std::vector<std::string> kDictionaryClasses = {"NSDictionary", "NSObject"};

// Text a property-list string carries as it is: valid UTF-8 without NUL. Most text is
// plain ASCII, which is told apart without decoding.
bool isPlainText(std::string_view text) {
  // Eight bytes at a time: none has its top bit set, and none is zero.
  std::size_t i = 0;
  for (uint64_t word; i + 8 <= text.size(); i += 8) {
    std::memcpy(&word, text.data() + i, 8);
    const uint64_t zeroBytes = (word - 0x0101010101010101ULL) & ~word & 0x8080808080808080ULL;
    if ((word & 0x8080808080808080ULL) != 0 || zeroBytes != 0) break;
  }
  for (; i < text.size(); ++i) {
    if (text[i] == '\0' || static_cast<unsigned char>(text[i]) >= 0x80) {
      return TavloIsValidUTF8(text) && text.find('\0') == text.npos;
    }
  }
  return true;
}

}  // namespace

TavloKeyedArchiver::TavloKeyedArchiver() { objects_.push_back(writer_.string("$null")); }

TavloKeyedArchiver::~TavloKeyedArchiver() = default;

std::string TavloKeyedArchiver::archivedDataWithRootObject(const TavloCodable& root) {
  try {
    // On the heap: its caches of recent texts are too big for a small thread stack.
    const auto archiver = std::unique_ptr<TavloKeyedArchiver>(new TavloKeyedArchiver);
    return archiver->finish(archiver->uidForRecord(root));
  } catch (...) {
    // A record whose encoding throws leaves a half-written archive: no archive is better
    // than a file that silently lacks part of the queue.
    return {};
  }
}

std::string TavloKeyedArchiver::archivedDataWithRootArray(const std::vector<std::shared_ptr<TavloCodable>>& objects) {
  try {
    const auto archiver = std::unique_ptr<TavloKeyedArchiver>(new TavloKeyedArchiver);
    // A queue's request makes some 50 objects, a few dozen more if its values are its own.
    archiver->writer_.reserve(64 + 96 * objects.size());
    archiver->objects_.reserve(64 + 80 * objects.size());
    // Some 40 texts of a request are its own when its values are: the index then grows
    // once at most.
    archiver->asciiStrings_.reserve(40 * objects.size());
    return archiver->finish(archiver->uidForArray(objects));
  } catch (...) {
    return {};
  }
}

void TavloKeyedArchiver::encodeObject(const TavloCodable* object, const std::string& key) {
  const uint32_t uid = object == nullptr ? kNullUID : uidForRecord(*object);
  setInCurrent(keyFor(key), writer_.uid(uid));
}

void TavloKeyedArchiver::encodeString(const TavloString& value, const std::string& key) {
  const uint32_t uid = value ? uidForString(*value) : kNullUID;
  setInCurrent(keyFor(key), writer_.uid(uid));
}

void TavloKeyedArchiver::encodeDate(const std::optional<TavloDate>& value, const std::string& key) {
  uint32_t uid = kNullUID;
  if (value) {
    // The class comes before the date in "$objects", as it always has.
    const Entry entries[] = {
        {timeKey_, writer_.real(*value - kTavloSecondsFrom1970To2001)},
        {classKey_, writer_.uid(knownClass(dateClassUID_, kDateClasses))},
    };
    const Object date = writer_.dictionary();
    writer_.setDictionary(date, entries);
    uid = appendObject(date);
  }
  setInCurrent(keyFor(key), writer_.uid(uid));
}

void TavloKeyedArchiver::encodeParameters(const std::shared_ptr<const TavloParameters>& value,
                                          const std::string& key) {
  const uint32_t uid = value ? uidForParameters(*value) : kNullUID;
  setInCurrent(keyFor(key), writer_.uid(uid));
}

void TavloKeyedArchiver::encodeInteger(int64_t value, const std::string& key) {
  // Negative values take eight bytes, which is how NSKeyedArchiver stores them too.
  setInCurrent(keyFor(key), writer_.integer(value));
}

void TavloKeyedArchiver::encodeBool(bool value, const std::string& key) {
  setInCurrent(keyFor(key), writer_.boolean(value));
}

std::string TavloKeyedArchiver::finish(uint32_t rootUID) {
  const Object objects = writer_.array();
  writer_.setArray(objects, objects_);
  const Object top = writer_.dictionary();
  const Entry root[] = {{writer_.key("root"), writer_.uid(rootUID)}};
  writer_.setDictionary(top, root);
  const Object archive = writer_.dictionary();
  const Entry entries[] = {
      {writer_.key("$version"), writer_.integer(kArchiveVersion)},
      {writer_.key("$archiver"), writer_.string("NSKeyedArchiver")},
      {writer_.key("$top"), top},
      {writer_.key("$objects"), objects},
  };
  writer_.setDictionary(archive, entries);
  return writer_.finish(archive);
}

uint32_t TavloKeyedArchiver::appendObject(Object object) {
  objects_.push_back(object);
  return static_cast<uint32_t>(objects_.size() - 1);
}

uint32_t TavloKeyedArchiver::uidForRecord(const TavloCodable& object) {
  if (const auto known = recordUIDs_.find(&object); known != recordUIDs_.end()) return known->second;

  // The record gets its UID before its fields are written, so a record that refers back
  // to itself (directly or through others) finds that UID instead of recursing forever.
  const Object record = writer_.dictionary();
  const uint32_t uid = appendObject(record);
  recordUIDs_.emplace(&object, uid);

  // Its entries gather at the end of fields_, above those of the records enclosing it.
  const std::size_t outer = currentFields_;
  const std::size_t first = fields_.size();
  currentFields_ = first;
  try {
    object.encodeWithCoder(*this);
  } catch (...) {
    currentFields_ = outer;
    throw;
  }
  setInCurrent(classKey_, writer_.uid(uidForClass(object.classChain())));
  writer_.setDictionary(record, std::span<const Entry>(fields_).subspan(first));
  fields_.resize(first);
  currentFields_ = outer;
  return uid;
}

uint32_t TavloKeyedArchiver::uidForArray(const std::vector<std::shared_ptr<TavloCodable>>& objects) {
  const Object array = writer_.dictionary();
  const uint32_t uid = appendObject(array);

  std::vector<Object> elements;
  elements.reserve(objects.size());
  for (const std::shared_ptr<TavloCodable>& object : objects) {
    elements.push_back(writer_.uid(object ? uidForRecord(*object) : kNullUID));
  }
  const Object list = writer_.array();
  writer_.setArray(list, elements);
  const Entry entries[] = {
      {objectsKey_, list},
      {classKey_, writer_.uid(knownClass(arrayClassUID_, kArrayClasses))},
  };
  writer_.setDictionary(array, entries);
  return uid;
}

namespace {
uint64_t load64(const char* at) {
  uint64_t value;
  std::memcpy(&value, at, 8);
  return value;
}
uint64_t load32(const char* at) {
  uint32_t value;
  std::memcpy(&value, at, 4);
  return value;
}
}  // namespace

// One pass, a word at a time: keys and values are mostly a dozen to a few dozen bytes,
// and every one of them is checked and hashed on every save.
bool TavloKeyedArchiver::hashAscii(std::string_view text, uint64_t& hash) {
  constexpr uint64_t kHigh = 0x8080808080808080ULL;
  constexpr uint64_t kLow = 0x0101010101010101ULL;
  const char* bytes = text.data();
  std::size_t size = text.size();
  uint64_t h = 0x9E3779B97F4A7C15ULL * (size + 1);
  uint64_t refused = 0;  // a high bit set for a byte past 0x7F or a NUL
  const auto mix = [&](uint64_t word) {
    refused |= word | ((word - kLow) & ~word);
    h = (h ^ word) * 0xFF51AFD7ED558CCDULL;
    h ^= h >> 32;
  };
  for (; size > 8; bytes += 8, size -= 8) mix(load64(bytes));
  // The last one to eight bytes: the text's last word, overlapping the one before, or two
  // overlapping halves, or byte by byte.
  if (text.size() >= 8) {
    mix(load64(text.data() + text.size() - 8));
  } else if (size >= 4) {
    mix(load32(bytes) << 32 | load32(bytes + size - 4));
  } else if (size > 0) {
    uint64_t tail = 0x0101010101010101ULL;  // bytes that are neither NUL nor past 0x7F
    for (std::size_t i = 0; i < size; ++i) tail = tail << 8 | static_cast<unsigned char>(bytes[i]);
    mix(tail);
  }
  // MurmurHash3's finaliser: the last bytes of a text sit in the high bits of its last
  // word, and must reach the bits that choose the slot.
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ULL;
  h ^= h >> 33;
  hash = h;
  return (refused & kHigh) == 0;
}

TavloKeyedArchiver::TextIndex::TextIndex() : slots_(1024, 0) {}

void TavloKeyedArchiver::TextIndex::reserve(std::size_t texts) {
  if (used_ != 0) return;
  std::size_t slots = slots_.size();
  while (3 * slots < 4 * texts) slots *= 2;
  if (slots != slots_.size()) slots_.assign(slots, 0);
}

template <class Holds>
uint32_t TavloKeyedArchiver::TextIndex::find(uint64_t hash, uint64_t& slot, Holds holds) const {
  const uint64_t tag = hash >> 32;
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = tag & mask;; at = (at + 1) & mask) {
    const uint64_t held = slots_[at];
    if (held == 0) {
      slot = tag << 32 | at;
      return 0;
    }
    if (held >> 32 == tag && holds(static_cast<uint32_t>(held))) return static_cast<uint32_t>(held);
  }
}

void TavloKeyedArchiver::TextIndex::insert(uint64_t slot, uint32_t value) {
  slots_[slot & 0xFFFFFFFF] = (slot >> 32) << 32 | value;
  if (4 * ++used_ <= 3 * slots_.size()) return;
  // Three quarters full: twice the slots, each entry placed again by the hash it holds.
  std::vector<uint64_t> grown(2 * slots_.size(), 0);
  const std::size_t mask = grown.size() - 1;
  for (const uint64_t held : slots_) {
    if (held == 0) continue;
    std::size_t at = (held >> 32) & mask;
    while (grown[at] != 0) at = (at + 1) & mask;
    grown[at] = held;
  }
  slots_ = std::move(grown);
}

uint32_t TavloKeyedArchiver::uidForString(const std::string& value) {
  uint64_t hash = 0;
  if (hashAscii(value, hash)) {
    // Equal text is one object: its UID is found by the text.
    uint64_t slot = 0;
    const auto holds = [&](uint32_t uid) { return writer_.holdsAscii(objects_[uid], value); };
    if (const uint32_t uid = asciiStrings_.find(hash, slot, holds)) return uid;
    // UID 0 is "$null", never a string's: a string "$null" gets one of its own.
    const uint32_t uid = appendObject(writer_.string(value));
    asciiStrings_.insert(slot, uid);
    return uid;
  }
  if (isPlainText(value)) {
    if (const auto known = unicodeStringUIDs_.find(value); known != unicodeStringUIDs_.end()) return known->second;
    const uint32_t uid = appendObject(writer_.string(value));
    unicodeStringUIDs_.emplace(value, uid);
    return uid;
  }
  // Uniqued by the text as given: two different damaged strings stay two objects.
  if (const auto known = repairedStringUIDs_.find(value); known != repairedStringUIDs_.end()) return known->second;
  const uint32_t uid = appendObject(writer_.string(TavloReplacingInvalidUTF8(value)));
  repairedStringUIDs_.emplace(value, uid);
  return uid;
}

uint32_t TavloKeyedArchiver::uidForParameters(const TavloParameters& parameters) {
  // Requests copied from one another hold the same dictionary: write it once.
  if (const auto known = parametersUIDs_.find(&parameters); known != parametersUIDs_.end()) return known->second;

  scratch_.resize(2 * parameters.size());
  Object* keysAndValues = scratch_.data();
  std::size_t i = 0;
  // The hits of a queue carry the same keys in the same places, and often the same values:
  // the text met last at a place is tried first, which spares hashing it.
  if (lastAtPlace_.size() < 2 * parameters.size()) lastAtPlace_.resize(2 * parameters.size(), kNullUID);
  const auto uidAt = [&](std::size_t place, const std::string& text) {
    uint32_t& last = lastAtPlace_[place];
    if (last != kNullUID && writer_.holdsAscii(objects_[last], text)) return last;
    const uint32_t uid = uidForString(text);
    last = uid;
    return uid;
  };
  for (const auto& [key, value] : parameters) {
    keysAndValues[i] = writer_.uid(uidAt(2 * i, key));
    keysAndValues[parameters.size() + i] = writer_.uid(uidAt(2 * i + 1, value));
    ++i;
  }
  const std::span<const Object> all(scratch_);
  const Object keys = writer_.array();
  writer_.setArray(keys, all.first(parameters.size()));
  const Object values = writer_.array();
  writer_.setArray(values, all.subspan(parameters.size()));
  const Entry entries[] = {
      {keysKey_, keys},
      {objectsKey_, values},
      {classKey_, writer_.uid(knownClass(dictionaryClassUID_, kDictionaryClasses))},
  };
  const Object dictionary = writer_.dictionary();
  writer_.setDictionary(dictionary, entries);
  const uint32_t uid = appendObject(dictionary);
  parametersUIDs_.emplace(&parameters, uid);
  return uid;
}

uint32_t TavloKeyedArchiver::knownClass(uint32_t& uid, const std::vector<std::string>& chain) {
  if (uid == kNullUID) uid = uidForClass(chain);
  return uid;
}

uint32_t TavloKeyedArchiver::uidForClass(const std::vector<std::string>& chain) {
  // A record without a chain still needs a class a reader can name.
  static const std::vector<std::string> kObject = {"NSObject"};
  const std::vector<std::string>& classes = chain.empty() ? kObject : chain;
  if (const auto known = classUIDs_.find(classes.front()); known != classUIDs_.end()) return known->second;

  std::vector<Object> names;
  for (const std::string& name : classes) names.push_back(writer_.string(TavloReplacingInvalidUTF8(name)));
  const Object list = writer_.array();
  writer_.setArray(list, names);
  const Entry entries[] = {
      {writer_.key("$classname"), writer_.string(TavloReplacingInvalidUTF8(classes.front()))},
      {writer_.key("$classes"), list},
  };
  const Object description = writer_.dictionary();
  writer_.setDictionary(description, entries);
  const uint32_t uid = appendObject(description);
  classUIDs_.emplace(classes.front(), uid);
  return uid;
}

TavloKeyedArchiver::Object TavloKeyedArchiver::keyFor(const std::string& key) {
  // NSKeyedArchiver reserves keys that begin with "$" for itself ("$class") and escapes a
  // coder's own such keys with one more "$"; the unarchiver applies the same rule.
  if (!key.empty() && key.front() == '$') return writer_.key(TavloReplacingInvalidUTF8("$" + key));
  // Records of a class write their keys in the same order: the key met last at this
  // place of a record is tried first, which spares hashing it.
  const std::size_t place = currentFields_ == kNoRecord ? 0 : fields_.size() - currentFields_;
  if (place >= lastKeyAtPlace_.size()) lastKeyAtPlace_.resize(place + 1, 0);
  uint32_t& last = lastKeyAtPlace_[place];
  if (last != 0 && writer_.holdsAscii(last - 1, key)) return last - 1;
  uint64_t hash = 0;
  if (!hashAscii(key, hash)) return writer_.key(TavloReplacingInvalidUTF8(key));
  uint64_t slot = 0;
  const auto holds = [&](uint32_t object) { return writer_.holdsAscii(object - 1, key); };
  if (const uint32_t known = asciiKeys_.find(hash, slot, holds)) {
    last = known;
    return known - 1;
  }
  const Object object = writer_.key(key);
  asciiKeys_.insert(slot, object + 1);
  last = object + 1;
  return object;
}

void TavloKeyedArchiver::setInCurrent(Object key, Object value) {
  // Encode calls made outside encodeWithCoder have no record to land in.
  if (currentFields_ == kNoRecord) return;
  // A key written twice keeps its first place and its last value.
  for (std::size_t i = currentFields_; i < fields_.size(); ++i) {
    if (fields_[i].key == key) {
      fields_[i].value = value;
      return;
    }
  }
  fields_.push_back(Entry{key, value});
}
