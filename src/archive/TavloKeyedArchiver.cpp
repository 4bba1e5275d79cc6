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
        {classKey_, writer_.uid(uidForClass(kDateClasses))},
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
      {classKey_, writer_.uid(uidForClass(kArrayClasses))},
  };
  writer_.setDictionary(array, entries);
  return uid;
}

namespace {
// Only called with 1 to 27 bytes: the first and the last eight (which may overlap).
std::size_t recentSlot(const std::string& text) {
  const std::size_t n = std::min<std::size_t>(text.size(), 8);
  uint64_t head = 0;
  uint64_t tail = 0;
  std::memcpy(&head, text.data(), n);
  std::memcpy(&tail, text.data() + text.size() - n, n);
  uint64_t h = head ^ (tail << 29 | tail >> 35) ^ text.size();
  h ^= h >> 33;  // MurmurHash3's finaliser: texts that differ in one byte land apart
  h *= 0xFF51AFD7ED558CCDULL;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ULL;
  return static_cast<std::size_t>(h >> 55) * 2;  // the first of two slots, among 1024
}
}  // namespace

const TavloKeyedArchiver::RecentText* TavloKeyedArchiver::recall(const RecentTexts& texts, const std::string& text) {
  if (text.empty() || text.size() > sizeof(RecentText::text)) return nullptr;
  const std::size_t slot = recentSlot(text);
  for (const RecentText* recent : {&texts[slot], &texts[slot + 1]}) {
    if (recent->size == text.size() && std::memcmp(recent->text, text.data(), text.size()) == 0) return recent;
  }
  return nullptr;
}

// The newest text takes the first slot, and the one there moves to the second.
void TavloKeyedArchiver::remember(RecentTexts& texts, const std::string& text, uint32_t object) {
  if (text.empty() || text.size() > sizeof(RecentText::text)) return;
  const std::size_t slot = recentSlot(text);
  texts[slot + 1] = texts[slot];
  RecentText& recent = texts[slot];
  recent.object = object;
  recent.size = static_cast<uint8_t>(text.size());
  std::memcpy(recent.text, text.data(), text.size());
}

uint32_t TavloKeyedArchiver::uidForString(const std::string& value) {
  if (const RecentText* recent = recall(recentStrings_, value)) return recent->object;
  if (isPlainText(value)) {
    // Equal text is one object of the writer: its UID, once it has one, is found by it.
    const Object text = writer_.string(value);
    if (text >= stringUIDs_.size()) stringUIDs_.resize(std::max<std::size_t>(text + 1, 2 * stringUIDs_.size()), kNullUID);
    if (stringUIDs_[text] == kNullUID) stringUIDs_[text] = appendObject(text);
    remember(recentStrings_, value, stringUIDs_[text]);
    return stringUIDs_[text];
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

  std::vector<Object> keysAndValues(2 * parameters.size());
  std::size_t i = 0;
  for (const auto& [key, value] : parameters) {
    keysAndValues[i] = writer_.uid(uidForString(key));
    keysAndValues[parameters.size() + i] = writer_.uid(uidForString(value));
    ++i;
  }
  const std::span<const Object> all(keysAndValues);
  const Object keys = writer_.array();
  writer_.setArray(keys, all.first(parameters.size()));
  const Object values = writer_.array();
  writer_.setArray(values, all.subspan(parameters.size()));
  const Entry entries[] = {
      {keysKey_, keys},
      {objectsKey_, values},
      {classKey_, writer_.uid(uidForClass(kDictionaryClasses))},
  };
  const Object dictionary = writer_.dictionary();
  writer_.setDictionary(dictionary, entries);
  const uint32_t uid = appendObject(dictionary);
  parametersUIDs_.emplace(&parameters, uid);
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
  if (const RecentText* recent = recall(recentKeys_, key)) return recent->object;
  if (!isPlainText(key)) return writer_.key(TavloReplacingInvalidUTF8(key));
  const Object object = writer_.key(key);
  remember(recentKeys_, key, object);
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
