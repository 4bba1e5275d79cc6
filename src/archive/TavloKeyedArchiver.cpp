#include "archive/TavloKeyedArchiver.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>
#include <stdexcept>

#include "util/TavloCalendar.h"

namespace {

constexpr int64_t kArchiveVersion = 100000;
constexpr uint32_t kNullUID = 0;
const std::vector<std::string> kDateClasses = {"NSDate", "NSObject"};
const std::vector<std::string> kArrayClasses = {"NSMutableArray", "NSArray", "NSObject"};
const std::vector<std::string> kDictionaryClasses = {"NSDictionary", "NSObject"};
// Objects numbered before the members of "$objects": the top dictionary, its four keys
// and values, and "root" and the root's UID in "$top".
constexpr std::size_t kTopObjects = 11;

uint64_t bitsOf(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}
double realOf(uint64_t bits) {
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// memcmp for the short texts of an archive, without the call: overlapping words.
bool sameBytes(const char* a, const char* b, std::size_t size) {
  const auto word = [](const char* at) {
    uint64_t value;
    std::memcpy(&value, at, 8);
    return value;
  };
  const auto half = [](const char* at) {
    uint32_t value;
    std::memcpy(&value, at, 4);
    return value;
  };
  if (size > 32) return std::memcmp(a, b, size) == 0;
  if (size > 16) {
    return word(a) == word(b) && word(a + 8) == word(b + 8) && word(a + size - 16) == word(b + size - 16) &&
           word(a + size - 8) == word(b + size - 8);
  }
  if (size >= 8) return word(a) == word(b) && word(a + size - 8) == word(b + size - 8);
  if (size >= 4) return half(a) == half(b) && half(a + size - 4) == half(b + size - 4);
  for (std::size_t i = 0; i < size; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

}  // namespace

TavloKeyedArchiver::TavloKeyedArchiver() : ownCache_(std::make_unique<TavloArchiveCache>()), cache_(*ownCache_) {
  begin();
}

TavloKeyedArchiver::TavloKeyedArchiver(TavloArchiveCache& cache) : cache_(cache) { begin(); }

TavloKeyedArchiver::~TavloKeyedArchiver() = default;

void TavloKeyedArchiver::begin() {
  cache_.beginArchive();
  null_ = cache_.intern("$null");
  archiverName_ = cache_.intern("NSKeyedArchiver");
  classKey_ = cache_.intern("$class");
  timeKey_ = cache_.intern("NS.time");
  keysKey_ = cache_.intern("NS.keys");
  objectsKey_ = cache_.intern("NS.objects");
  classNameKey_ = cache_.intern("$classname");
  classesKey_ = cache_.intern("$classes");
  versionKey_ = cache_.intern("$version");
  archiverKey_ = cache_.intern("$archiver");
  topKey_ = cache_.intern("$top");
  objectsListKey_ = cache_.intern("$objects");
  rootKey_ = cache_.intern("root");
  // About the sizes of the last archive: what is reserved but not used costs address
  // space only.
  entries_.reserve(std::max<std::size_t>(cache_.lastEntries_ + cache_.lastEntries_ / 8, 64));
  uids_.reserve(cache_.lastUIDs_ + cache_.lastUIDs_ / 8);
  fields_.reserve(cache_.lastFields_ + cache_.lastFields_ / 8);
  textUIDs_.assign(cache_.texts_.size() + cache_.texts_.size() / 4, kNone);
  // UID 0 is "$null", never a string's: a string "$null" gets an entry of its own.
  const TavloArchiveCache::Text& null = cache_.texts_[null_];
  appendEntry(EntryKind::Text, null.canon, null.encodedSize, null.encodedAt);
  mostObjects_ = kTopObjects + 1;
  fewestObjects_ = kTopObjects;
}

void TavloKeyedArchiver::throwTooMany() { throw std::length_error("too many archived objects"); }

std::string TavloKeyedArchiver::archivedDataWithRootObject(const TavloCodable& root) {
  TavloArchiveCache cache;
  return archive(nullptr, &root, cache, false);
}

std::string TavloKeyedArchiver::archivedDataWithRootArray(const std::vector<std::shared_ptr<TavloCodable>>& objects) {
  TavloArchiveCache cache;
  return archive(&objects, nullptr, cache, false);
}

std::string TavloKeyedArchiver::archivedDataWithRootArray(const std::vector<std::shared_ptr<TavloCodable>>& objects,
                                                          TavloArchiveCache& cache) {
  return archive(&objects, nullptr, cache, true);
}

std::string TavloKeyedArchiver::archive(const std::vector<std::shared_ptr<TavloCodable>>* objects,
                                        const TavloCodable* root, TavloArchiveCache& cache, bool keep) {
  try {
    TavloKeyedArchiver archiver(cache);
    const uint32_t rootUID = objects ? archiver.uidForArray(*objects) : archiver.uidForRecord(*root);
    std::string bytes = archiver.finish(rootUID);
    if (keep) cache.endArchive();
    return bytes;
  } catch (...) {
    // A record whose encoding throws leaves a half-written archive: no archive is better
    // than a file that silently lacks part of the queue.
    return {};
  }
}

void TavloKeyedArchiver::encodeObject(const TavloCodable* object, const std::string& key) {
  const uint32_t uid = object == nullptr ? kNullUID : uidForRecord(*object);
  setInCurrent(keyFor(key), ValueKind::UID, uid);
}

void TavloKeyedArchiver::encodeString(const TavloString& value, const std::string& key) {
  uint32_t uid = kNullUID;
  if (value) {
    const uint32_t text = textAt(lastTextAtPlace_, place(), *value);
    roomForTexts();
    uid = uidForText(text);
  }
  setInCurrent(keyFor(key), ValueKind::UID, uid);
}

void TavloKeyedArchiver::encodeDate(const std::optional<TavloDate>& value, const std::string& key) {
  uint32_t uid = kNullUID;
  if (value) {
    // The class comes before the date in "$objects", as it always has.
    const uint32_t classUID = knownClass(dateClassUID_, kDateClasses);
    const uint64_t bits = bitsOf(*value - kTavloSecondsFrom1970To2001);
    uid = appendEntry(EntryKind::Date, static_cast<uint32_t>(bits), static_cast<uint32_t>(bits >> 32), classUID);
    mostObjects_ += 5;  // the dictionary, its two keys, the time and the class's UID
    fewestObjects_ += 1;
  }
  setInCurrent(keyFor(key), ValueKind::UID, uid);
}

void TavloKeyedArchiver::encodeParameters(const std::shared_ptr<const TavloParameters>& value,
                                          const std::string& key) {
  const uint32_t uid = value ? uidForParameters(value) : kNullUID;
  setInCurrent(keyFor(key), ValueKind::UID, uid);
}

void TavloKeyedArchiver::encodeInteger(int64_t value, const std::string& key) {
  // Negative values take eight bytes, which is how NSKeyedArchiver stores them too.
  setInCurrent(keyFor(key), ValueKind::Integer, value);
}

void TavloKeyedArchiver::encodeBool(bool value, const std::string& key) {
  setInCurrent(keyFor(key), ValueKind::Boolean, value ? 1 : 0);
}

uint32_t TavloKeyedArchiver::uidForRecord(const TavloCodable& object) {
  // Records by address: open addressing, at most half full.
  const auto slotOf = [](const TavloCodable* address, std::size_t mask) {
    return static_cast<std::size_t>(reinterpret_cast<uintptr_t>(address) * 0x9E3779B97F4A7C15ULL >> 32) & mask;
  };
  if (2 * (recordCount_ + 1) > records_.size()) {
    std::vector<std::pair<const TavloCodable*, uint32_t>> grown(std::max<std::size_t>(1024, 2 * records_.size()));
    for (const auto& held : records_) {
      if (held.first == nullptr) continue;
      std::size_t at = slotOf(held.first, grown.size() - 1);
      while (grown[at].first != nullptr) at = (at + 1) & (grown.size() - 1);
      grown[at] = held;
    }
    records_ = std::move(grown);
  }
  const std::size_t mask = records_.size() - 1;
  std::size_t at = slotOf(&object, mask);
  for (; records_[at].first != nullptr; at = (at + 1) & mask) {
    if (records_[at].first == &object) return records_[at].second;
  }

  // The record gets its UID before its fields are written, so a record that refers back
  // to itself (directly or through others) finds that UID instead of recursing forever.
  const uint32_t uid = appendEntry(EntryKind::Record, 0, 0, 0);
  records_[at] = {&object, uid};
  ++recordCount_;

  // Its fields gather at the end of pending_, above those of the records enclosing it.
  const std::size_t outer = currentFields_;
  currentFields_ = pending_.size();
  try {
    object.encodeWithCoder(*this);
  } catch (...) {
    currentFields_ = outer;
    throw;
  }
  setInCurrent(classKey_, ValueKind::UID, uidForClass(object));
  const std::size_t first = fields_.size();
  const std::size_t count = pending_.size() - currentFields_;
  fields_.insert(fields_.end(), pending_.begin() + static_cast<std::ptrdiff_t>(currentFields_), pending_.end());
  pending_.resize(currentFields_);
  currentFields_ = outer;
  entries_[uid].first = static_cast<uint32_t>(first);
  entries_[uid].count = static_cast<uint32_t>(count);
  mostObjects_ += 1 + 2 * count;
  fewestObjects_ += 1;
  return uid;
}

uint32_t TavloKeyedArchiver::uidForArray(const std::vector<std::shared_ptr<TavloCodable>>& objects) {
  const uint32_t uid = appendEntry(EntryKind::Array, 0, 0, 0);
  const std::size_t first = uids_.size();
  uids_.resize(first + objects.size());
  for (std::size_t i = 0; i < objects.size(); ++i) {
    const uint32_t element = objects[i] ? uidForRecord(*objects[i]) : kNullUID;
    uids_[first + i] = element;
  }
  const uint32_t classUID = knownClass(arrayClassUID_, kArrayClasses);
  entries_[uid] = Entry{EntryKind::Array, static_cast<uint32_t>(first), static_cast<uint32_t>(objects.size()), classUID};
  mostObjects_ += 5 + objects.size();  // the dictionary, two keys, the array, its UIDs, the class's
  fewestObjects_ += 2;
  return uid;
}

uint32_t TavloKeyedArchiver::uidForParameters(const std::shared_ptr<const TavloParameters>& parameters) {
  const uint32_t index = cache_.dictionary(parameters);
  TavloArchiveCache::Dictionary& dictionary = cache_.dictionaries_[index];
  // Requests copied from one another hold the same dictionary: write it once.
  if (dictionary.archive == cache_.archive_) return dictionary.uid;

  roomForTexts();
  const std::size_t pairs = dictionary.pairs;
  const std::size_t first = uids_.size();
  uids_.resize(first + 2 * pairs);
  uint32_t* keys = uids_.data() + first;
  uint32_t* values = keys + pairs;
  const uint32_t* texts = cache_.dictionaryTexts_.data() + dictionary.first;
  for (std::size_t i = 0; i < pairs; ++i) {
    keys[i] = uidForText(texts[2 * i]);
    values[i] = uidForText(texts[2 * i + 1]);
  }
  const uint32_t classUID = knownClass(dictionaryClassUID_, kDictionaryClasses);
  const uint32_t uid =
      appendEntry(EntryKind::Parameters, static_cast<uint32_t>(first), static_cast<uint32_t>(pairs), classUID);
  dictionary.archive = cache_.archive_;
  dictionary.uid = uid;
  mostObjects_ += 7 + 2 * pairs;  // the dictionary, three keys, two arrays, their UIDs, the class's
  fewestObjects_ += 3;
  return uid;
}

uint32_t TavloKeyedArchiver::knownClass(uint32_t& uid, const std::vector<std::string>& chain) {
  if (uid == kNullUID) uid = uidForClass(chain);
  return uid;
}

uint32_t TavloKeyedArchiver::uidForClass(const TavloCodable& object) {
  // A queue's records are of a few classes: each class's chain is asked for once.
  const std::type_info* type = &typeid(object);
  for (const auto& [known, uid] : typeClassUIDs_) {
    if (known == type) return uid;
  }
  const uint32_t uid = uidForClass(object.classChain());
  typeClassUIDs_.emplace_back(type, uid);
  return uid;
}

uint32_t TavloKeyedArchiver::uidForClass(const std::vector<std::string>& chain) {
  // A record without a chain still needs a class a reader can name.
  static const std::vector<std::string> kObject = {"NSObject"};
  const std::vector<std::string>& classes = chain.empty() ? kObject : chain;
  if (const auto known = classUIDs_.find(classes.front()); known != classUIDs_.end()) return known->second;

  const std::size_t first = classNames_.size();
  classNames_.push_back(cache_.intern(classes.front()));
  for (const std::string& name : classes) classNames_.push_back(cache_.intern(name));
  const uint32_t uid = appendEntry(EntryKind::Class, static_cast<uint32_t>(first),
                                   static_cast<uint32_t>(classes.size()), 0);
  classUIDs_.emplace(classes.front(), uid);
  mostObjects_ += 5 + classes.size();  // the dictionary, two keys, the name, the array, its names
  fewestObjects_ += 2;
  return uid;
}

uint32_t TavloKeyedArchiver::textAt(std::vector<uint32_t>& last, std::size_t place, std::string_view text) {
  if (place >= last.size()) last.resize(place + 1, kNone);
  uint32_t& known = last[place];
  if (known != kNone) {
    const TavloArchiveCache::Text& t = cache_.texts_[known];
    if (t.rawSize == text.size() && sameBytes(cache_.bytes_.data() + t.rawAt, text.data(), text.size())) return known;
  }
  known = cache_.intern(text);
  return known;
}

uint32_t TavloKeyedArchiver::keyFor(const std::string& key) {
  // NSKeyedArchiver reserves keys that begin with "$" for itself ("$class") and escapes a
  // coder's own such keys with one more "$"; the unarchiver applies the same rule.
  if (!key.empty() && key.front() == '$') return cache_.texts_[cache_.intern("$" + key)].canon;
  return cache_.texts_[textAt(lastKeyAtPlace_, place(), key)].canon;
}

void TavloKeyedArchiver::setInCurrent(uint32_t key, ValueKind kind, int64_t value) {
  // Encode calls made outside encodeWithCoder have no record to land in.
  if (currentFields_ == kNone) return;
  // A key written twice keeps its first place and its last value.
  for (std::size_t i = currentFields_; i < pending_.size(); ++i) {
    if (pending_[i].key == key) {
      pending_[i].kind = kind;
      pending_[i].value = value;
      return;
    }
  }
  pending_.push_back(Field{key, kind, value});
}

std::string TavloKeyedArchiver::finish(uint32_t rootUID) {
  // References are as wide as the object count needs, known once all are numbered: the
  // bounds on it nearly always agree, else the last archive's width is tried first.
  const unsigned fewest = TavloBinaryPlistWriter::referenceBytesFor(fewestObjects_);
  const unsigned most = TavloBinaryPlistWriter::referenceBytesFor(mostObjects_);
  const unsigned last = cache_.lastReferenceBytes_;
  unsigned width = fewest == most || last < fewest || last > most ? most : last;
  // After a save, the next one is about as large; without one, the texts' encodings
  // (the cache holds this archive's only) and a few bytes per object are a fair guess.
  const std::size_t expectedBytes =
      cache_.lastBytes_ != 0 ? cache_.lastBytes_ + cache_.lastBytes_ / 8 + 4096 : cache_.bytes_.size() + 6 * mostObjects_;
  const std::size_t expectedObjects =
      cache_.lastObjects_ != 0 ? cache_.lastObjects_ + cache_.lastObjects_ / 8 + 1024 : mostObjects_;
  for (;;) {
    TavloBinaryPlistWriter out(width, expectedBytes, expectedObjects);
    write(out, rootUID);
    const unsigned needed = TavloBinaryPlistWriter::referenceBytesFor(out.objectCount());
    if (needed == width) {
      cache_.lastObjects_ = out.objectCount();
      std::string bytes = out.finish();
      cache_.lastEntries_ = entries_.size();
      cache_.lastUIDs_ = uids_.size();
      cache_.lastFields_ = fields_.size();
      cache_.lastBytes_ = bytes.size();
      cache_.lastReferenceBytes_ = width;
      return bytes;
    }
    width = needed;
  }
}

void TavloKeyedArchiver::write(TavloBinaryPlistWriter& out, uint32_t rootUID) {
  uidNumbers_.assign(entries_.size(), kNone);
  objectNumbers_.resize(entries_.size());
  stringNumbers_.assign(cache_.texts_.size(), kNone);
  keyNumbers_.assign(cache_.texts_.size(), kNone);
  scalars_.assign(std::max<std::size_t>(256, scalars_.size()), Scalar{});
  scalarCount_ = 0;
  std::fill(std::begin(smallIntegers_), std::end(smallIntegers_), kNone);
  std::fill(std::begin(booleans_), std::end(booleans_), kNone);
  nextNumber_ = 0;

  // { "$version": 100000, "$archiver": "NSKeyedArchiver", "$top": { "root": UID }, "$objects": [...] }
  const uint32_t archiverName = cache_.texts_[archiverName_].canon;
  refs_.resize(std::max<std::size_t>(refs_.size(), 10));
  uint32_t* top = refs_.data();
  uint32_t* root = top + 8;
  ++nextNumber_;  // the top dictionary is object 0
  top[0] = numberKey(versionKey_);
  top[1] = numberValue(ValueKind::Integer, kArchiveVersion);
  top[2] = numberKey(archiverKey_);
  top[3] = numberText(archiverName);
  top[4] = numberKey(topKey_);
  top[5] = nextNumber_++;
  root[0] = numberKey(rootKey_);
  root[1] = numberUID(rootUID);
  top[6] = numberKey(objectsListKey_);
  top[7] = nextNumber_++;
  out.dictionary(top, 4);
  writeText(out, top[0], versionKey_);
  writeValue(out, top[1], ValueKind::Integer, kArchiveVersion);
  writeText(out, top[2], archiverKey_);
  writeText(out, top[3], archiverName);
  writeText(out, top[4], topKey_);
  out.dictionary(root, 1);
  writeText(out, root[0], rootKey_);
  writeUID(out, root[1], rootUID);
  writeText(out, top[6], objectsListKey_);
  const std::size_t objects = out.arrayToFill(entries_.size());

  // The members of "$objects", each followed by what it holds. Strings, most of them, are
  // written here; the cache keeps their bytes, ready to copy.
  const Entry* entries = entries_.data();
  const char* encodings = cache_.bytes_.data();
  uint32_t* numbers = stringNumbers_.data();
  for (std::size_t uid = 0; uid < entries_.size(); ++uid) {
    const Entry& entry = entries[uid];
    if (entry.kind == EntryKind::Text) {
      uint32_t number = numbers[entry.first];
      if (number == kNone) {
        number = numbers[entry.first] = nextNumber_++;
        out.encoded(encodings + entry.more, entry.count);
      }
      objectNumbers_[uid] = number;
      continue;
    }
    objectNumbers_[uid] = nextNumber_;
    writeEntry(out, entry);
  }
  out.fillArray(objects, objectNumbers_.data(), entries_.size());
}

// The entry's own dictionary, then the objects under it, numbered at their first visit as
// libplist's depth-first walk numbers them (a dictionary's children key, value, key,
// value), then written in that order.
void TavloKeyedArchiver::writeEntry(TavloBinaryPlistWriter& out, const Entry& entry) {
  switch (entry.kind) {
    case EntryKind::Text:
      return;  // written by write()
    case EntryKind::Record: {
      if (refs_.size() < 2 * std::size_t{entry.count}) refs_.resize(2 * std::size_t{entry.count});
      uint32_t* refs = refs_.data();
      const Field* fields = fields_.data() + entry.first;
      ++nextNumber_;
      for (std::size_t i = 0; i < entry.count; ++i) {
        refs[2 * i] = numberKey(fields[i].key);
        refs[2 * i + 1] = fields[i].kind == ValueKind::UID
                              ? numberUID(static_cast<uint32_t>(fields[i].value))
                              : numberValue(fields[i].kind, static_cast<uint64_t>(fields[i].value));
      }
      out.dictionary(refs, entry.count);
      for (std::size_t i = 0; i < entry.count; ++i) {
        writeText(out, refs[2 * i], fields[i].key);
        writeValue(out, refs[2 * i + 1], fields[i].kind, fields[i].value);
      }
      return;
    }
    case EntryKind::Parameters: {
      // { "NS.keys": [UIDs], "NS.objects": [UIDs], "$class": UID }
      const std::size_t count = entry.count;
      if (refs_.size() < 6 + 2 * count) refs_.resize(6 + 2 * count);
      uint32_t* refs = refs_.data();
      const uint32_t* uids = uids_.data() + entry.first;
      ++nextNumber_;
      for (std::size_t half = 0; half < 2; ++half) {
        refs[2 * half] = numberKey(half == 0 ? keysKey_ : objectsKey_);
        refs[2 * half + 1] = nextNumber_++;
        numberUIDs(uids + half * count, count, refs + 6 + half * count);
      }
      refs[4] = numberKey(classKey_);
      refs[5] = numberUID(entry.more);
      out.dictionary(refs, 3);
      for (std::size_t half = 0; half < 2; ++half) {
        writeText(out, refs[2 * half], half == 0 ? keysKey_ : objectsKey_);
        const uint32_t* list = refs + 6 + half * count;
        out.array(list, count);
        out.uids(list, uids + half * count, count);
      }
      writeText(out, refs[4], classKey_);
      writeUID(out, refs[5], entry.more);
      return;
    }
    case EntryKind::Date: {
      // { "NS.time": seconds, "$class": UID }
      const uint64_t time = uint64_t{entry.count} << 32 | entry.first;
      uint32_t refs[4];
      ++nextNumber_;
      refs[0] = numberKey(timeKey_);
      refs[1] = numberValue(ValueKind::Real, time);
      refs[2] = numberKey(classKey_);
      refs[3] = numberUID(entry.more);
      out.dictionary(refs, 2);
      writeText(out, refs[0], timeKey_);
      writeValue(out, refs[1], ValueKind::Real, static_cast<int64_t>(time));
      writeText(out, refs[2], classKey_);
      writeUID(out, refs[3], entry.more);
      return;
    }
    case EntryKind::Class: {
      // { "$classname": name, "$classes": [names] }
      const std::size_t count = entry.count;
      if (refs_.size() < 4 + count) refs_.resize(4 + count);
      uint32_t* refs = refs_.data();
      const uint32_t* names = classNames_.data() + entry.first;
      const auto canon = [&](std::size_t i) { return cache_.texts_[names[i]].canon; };
      ++nextNumber_;
      refs[0] = numberKey(classNameKey_);
      refs[1] = numberText(canon(0));
      refs[2] = numberKey(classesKey_);
      refs[3] = nextNumber_++;
      for (std::size_t i = 0; i < count; ++i) refs[4 + i] = numberText(canon(1 + i));
      out.dictionary(refs, 2);
      writeText(out, refs[0], classNameKey_);
      writeText(out, refs[1], canon(0));
      writeText(out, refs[2], classesKey_);
      out.array(refs + 4, count);
      for (std::size_t i = 0; i < count; ++i) writeText(out, refs[4 + i], canon(1 + i));
      return;
    }
    case EntryKind::Array: {
      // { "NS.objects": [UIDs], "$class": UID }
      const std::size_t count = entry.count;
      if (refs_.size() < 4 + count) refs_.resize(4 + count);
      uint32_t* refs = refs_.data();
      const uint32_t* uids = uids_.data() + entry.first;
      ++nextNumber_;
      refs[0] = numberKey(objectsKey_);
      refs[1] = nextNumber_++;
      numberUIDs(uids, count, refs + 4);
      refs[2] = numberKey(classKey_);
      refs[3] = numberUID(entry.more);
      out.dictionary(refs, 2);
      writeText(out, refs[0], objectsKey_);
      out.array(refs + 4, count);
      out.uids(refs + 4, uids, count);
      writeText(out, refs[2], classKey_);
      writeUID(out, refs[3], entry.more);
      return;
    }
  }
}

void TavloKeyedArchiver::writeValue(TavloBinaryPlistWriter& out, uint32_t number, ValueKind kind, int64_t value) {
  if (number != out.objectCount()) return;
  switch (kind) {
    case ValueKind::UID: out.uid(static_cast<uint32_t>(value)); break;
    case ValueKind::Integer: out.integer(value); break;
    case ValueKind::Boolean: out.boolean(value != 0); break;
    case ValueKind::Real: out.real(realOf(static_cast<uint64_t>(value))); break;
  }
}

// Integers, booleans and reals by kind and value: the kinds' encodings differ, and within
// a kind equal encodings are equal values.
uint32_t TavloKeyedArchiver::numberValue(ValueKind kind, uint64_t bits) {
  uint32_t* direct = kind == ValueKind::Boolean                             ? &booleans_[bits != 0 ? 1 : 0]
                     : kind == ValueKind::Integer && bits < std::size(smallIntegers_) ? &smallIntegers_[bits]
                                                                               : nullptr;
  if (direct != nullptr) {
    if (*direct == kNone) *direct = nextNumber_++;
    return *direct;
  }
  const auto tag = static_cast<uint32_t>(kind) + 1;
  const auto slotOf = [](uint64_t held, uint32_t heldTag) {
    const uint64_t h = (held ^ heldTag) * 0xFF51AFD7ED558CCDULL;
    return static_cast<std::size_t>(h ^ (h >> 29));
  };
  std::size_t mask = scalars_.size() - 1;
  std::size_t at = slotOf(bits, tag) & mask;
  for (; scalars_[at].kind != 0; at = (at + 1) & mask) {
    if (scalars_[at].bits == bits && scalars_[at].kind == tag) return scalars_[at].number;
  }
  const uint32_t number = nextNumber_++;
  scalars_[at] = Scalar{bits, number, tag};
  if (2 * ++scalarCount_ > scalars_.size()) {
    // Half full: twice the slots.
    std::vector<Scalar> grown(2 * scalars_.size());
    mask = grown.size() - 1;
    for (const Scalar& held : scalars_) {
      if (held.kind == 0) continue;
      std::size_t to = slotOf(held.bits, held.kind) & mask;
      while (grown[to].kind != 0) to = (to + 1) & mask;
      grown[to] = held;
    }
    scalars_ = std::move(grown);
  }
  return number;
}
