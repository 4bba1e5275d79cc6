// Writes records as an NSKeyedArchiver archive in a binary property list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

#include "archive/TavloArchiveCache.h"
#include "archive/TavloBinaryPlistWriter.h"
#include "archive/TavloCodable.h"
#include "tavlo/TavloTypes.h"

/// Produces the archive layout that Apple's NSKeyedArchiver writes, so a queue file can
/// be read by any tool that knows that format (plistutil, Python's plistlib):
///
///   { "$archiver": "NSKeyedArchiver", "$version": 100000,
///     "$top": { "root": UID(1) },
///     "$objects": [ "$null", <root>, ... ] }
///
/// Each record is a dictionary in "$objects" holding its keys and a "$class" UID that
/// points to a class dictionary { "$classname", "$classes" }. Strings are stored as plain
/// strings, arrays as { "NS.objects": [UIDs] }, dictionaries as { "NS.keys", "NS.objects" },
/// dates as { "NS.time": seconds since 2001-01-01 }. Integers and booleans are stored
/// inline; an absent object is UID 0, the "$null" entry. Text that is not valid UTF-8, and
/// NUL characters, which a property list string cannot carry, are written as U+FFFD.
/// Keys beginning with "$" get one more "$", as NSKeyedArchiver escapes them.
///
/// Objects are uniqued like NSKeyedArchiver does: the same record or parameters dictionary
/// (by address) and equal strings are written once and referenced by UID wherever they
/// recur, so records and dictionaries shared in memory are shared again after reading.
///
/// The bytes are those libplist's tree and plist_to_bin wrote before (see
/// TavloBinaryPlistWriter for why): files written by one version of the library read the
/// same in every other. libplist numbers the objects of the property list in depth-first
/// pre-order from the top, each at its first visit, and writes equal scalars once; this
/// archiver numbers them the same way as it writes, in two steps:
///  1. the encode operations build "$objects": an entry per record, dictionary, date,
///     class and string, each a few integers (texts by identifier, records' fields in one
///     flat array);
///  2. finish() walks the entries in order, numbers each one's objects at their first
///     visit (a table per kind of scalar: UIDs and texts by index, numbers by value) and
///     hands them to the writer in that order.
/// Texts are identified, checked for UTF-8 and encoded once, in a TavloArchiveCache. The
/// agent keeps one from a save to the next, so that a save after a small change finds
/// every text and every parameter dictionary of the queue already there and does no
/// more than number the objects and copy their bytes: a queue of 500 hits of 35
/// parameters then encodes in a fraction of a millisecond (bench/TavloQueueFileBench.cpp).
/// Without one, an archiver makes its own for the one archive. The archive's own buffers
/// (entries, numbers, offsets) are freed when the call returns; what stays between saves
/// is the cache's, which TavloArchiveCache bounds.
///
/// An archiver is used by one thread for one archive; the static entry points make one.
/// The encode operations are virtual so that the same records can be fed to another
/// encoder of the format: the tests and the benchmark keep the libplist-based one as the
/// reference that this one must match.
class TavloKeyedArchiver {
 public:
  /// The archive bytes with `root` as the root object. Empty if a record's encoding threw.
  static std::string archivedDataWithRootObject(const TavloCodable& root);
  /// The archive bytes with an NSMutableArray of `objects` as the root object.
  static std::string archivedDataWithRootArray(const std::vector<std::shared_ptr<TavloCodable>>& objects);
  /// The same bytes, with `cache` keeping what the next archive can reuse (see TavloArchiveCache).
  /// REQUIRES: no other archive uses `cache` meanwhile.
  static std::string archivedDataWithRootArray(const std::vector<std::shared_ptr<TavloCodable>>& objects,
                                               TavloArchiveCache& cache);

  // Encode operations, for use inside TavloCodable::encodeWithCoder only.
  virtual void encodeObject(const TavloCodable* object, const std::string& key);
  virtual void encodeString(const TavloString& value, const std::string& key);
  virtual void encodeDate(const std::optional<TavloDate>& value, const std::string& key);
  virtual void encodeParameters(const std::shared_ptr<const TavloParameters>& value, const std::string& key);
  virtual void encodeInteger(int64_t value, const std::string& key);
  virtual void encodeBool(bool value, const std::string& key);

  virtual ~TavloKeyedArchiver();
  TavloKeyedArchiver(const TavloKeyedArchiver&) = delete;
  TavloKeyedArchiver& operator=(const TavloKeyedArchiver&) = delete;

 protected:
  TavloKeyedArchiver();

 private:
  static constexpr uint32_t kNone = UINT32_MAX;

  /// A member of "$objects".
  enum class EntryKind : uint8_t { Text, Record, Parameters, Date, Class, Array };
  struct Entry {
    EntryKind kind;
    // Text: the text that stands for it. Record: its first field in fields_. Parameters:
    // its key UIDs in uids_, then as many value UIDs. Class: its names in classNames_.
    // Array: its element UIDs in uids_. Date: the low half of the time's bits.
    uint32_t first;
    // Text: its encoding's size. Otherwise how many fields, pairs, names or elements, or a
    // date's high half.
    uint32_t count;
    // Text: where its encoding is in the cache. Parameters, Date, Array: the class's UID.
    uint32_t more;
  };
  /// What a record's field holds (a UID, an integer or a boolean), or a date's time.
  enum class ValueKind : uint8_t { UID, Integer, Boolean, Real };
  struct Field {
    uint32_t key;  // the text that stands for the key
    ValueKind kind;
    int64_t value;
  };

  explicit TavloKeyedArchiver(TavloArchiveCache& cache);
  // Puts the archive's own texts in the cache and "$null" in "$objects".
  void begin();
  // The archive of the root array `objects`, or else of `root`; `keep`: the cache lives on.
  static std::string archive(const std::vector<std::shared_ptr<TavloCodable>>* objects, const TavloCodable* root,
                             TavloArchiveCache& cache, bool keep);

  // Step 1: "$objects".
  uint32_t appendEntry(EntryKind kind, uint32_t first, uint32_t count, uint32_t more) {
    if (entries_.size() >= kNone - 1) throwTooMany();
    entries_.push_back(Entry{kind, first, count, more});
    return static_cast<uint32_t>(entries_.size() - 1);
  }
  [[noreturn]] static void throwTooMany();
  uint32_t uidForRecord(const TavloCodable& object);
  uint32_t uidForArray(const std::vector<std::shared_ptr<TavloCodable>>& objects);
  // REQUIRES: textUIDs_ has room for `text`.
  uint32_t uidForText(uint32_t text) {
    uint32_t& uid = textUIDs_[text];
    if (uid == kNone) {
      const TavloArchiveCache::Text& t = cache_.texts_[text];
      uid = appendEntry(EntryKind::Text, t.canon, t.encodedSize, t.encodedAt);
      cache_.name(text);
      ++mostObjects_;
    }
    return uid;
  }
  void roomForTexts() {
    if (textUIDs_.size() < cache_.texts_.size()) textUIDs_.resize(cache_.texts_.size() + cache_.texts_.size() / 4, kNone);
  }
  uint32_t uidForParameters(const std::shared_ptr<const TavloParameters>& parameters);
  uint32_t uidForClass(const TavloCodable& object);
  uint32_t uidForClass(const std::vector<std::string>& chain);
  // uidForClass, remembered in `uid` for the classes every date, array or dictionary names.
  uint32_t knownClass(uint32_t& uid, const std::vector<std::string>& chain);
  // The text `text` at `place`: a queue's records name the same keys, and often the same
  // values, in the same places, so the text met there last is tried before the cache's index.
  uint32_t textAt(std::vector<uint32_t>& last, std::size_t place, std::string_view text);
  std::size_t place() const { return currentFields_ == kNone ? 0 : pending_.size() - currentFields_; }
  uint32_t keyFor(const std::string& key);
  void setInCurrent(uint32_t key, ValueKind kind, int64_t value);

  // Step 2: the property list, numbered and written. Each entry's objects are numbered
  // first, their numbers kept in refs_, then written: an object is written where its
  // number comes up, which is at its first visit.
  std::string finish(uint32_t rootUID);
  void write(TavloBinaryPlistWriter& out, uint32_t rootUID);
  void writeEntry(TavloBinaryPlistWriter& out, const Entry& entry);
  uint32_t numberText(uint32_t text) { return number(stringNumbers_[text], text); }
  uint32_t numberKey(uint32_t text) { return number(keyNumbers_[text], text); }
  uint32_t numberUID(uint32_t uid) {
    uint32_t& number = uidNumbers_[uid];
    if (number == kNone) number = nextNumber_++;
    return number;
  }
  // numberUID of each of `uids`, into `numbers`.
  void numberUIDs(const uint32_t* uids, std::size_t count, uint32_t* numbers) {
    // The count in a local: the compiler cannot tell a number's store from the member's.
    uint32_t next = nextNumber_;
    uint32_t* known = uidNumbers_.data();
    for (std::size_t i = 0; i < count; ++i) {
      uint32_t& number = known[uids[i]];
      if (number == kNone) number = next++;
      numbers[i] = number;
    }
    nextNumber_ = next;
  }
  uint32_t number(uint32_t& slot, uint32_t text) {
    if (slot == kNone) {
      slot = nextNumber_++;
      cache_.name(text);
    }
    return slot;
  }
  uint32_t numberValue(ValueKind kind, uint64_t bits);
  // Each writes the object numbered `number` if it is the next one.
  void writeText(TavloBinaryPlistWriter& out, uint32_t number, uint32_t text) const {
    if (number == out.objectCount()) out.encoded(cache_.encoded(text), cache_.texts_[text].encodedSize);
  }
  static void writeUID(TavloBinaryPlistWriter& out, uint32_t number, uint32_t uid) {
    if (number == out.objectCount()) out.uid(uid);
  }
  static void writeValue(TavloBinaryPlistWriter& out, uint32_t number, ValueKind kind, int64_t value);

  std::unique_ptr<TavloArchiveCache> ownCache_;
  TavloArchiveCache& cache_;

  // Step 1.
  std::vector<Entry> entries_;          // "$objects", by UID
  std::vector<Field> fields_;           // records' fields, each record's together
  std::vector<Field> pending_;          // fields of the records being encoded, the innermost last
  std::size_t currentFields_ = kNone;   // where the current record's fields begin in pending_
  std::vector<uint32_t> uids_;          // parameter dictionaries' and arrays' UIDs
  std::vector<uint32_t> classNames_;    // class dictionaries' texts: the class name, then its chain
  std::vector<uint32_t> textUIDs_;      // by text: its entry as a string value
  std::vector<uint32_t> lastKeyAtPlace_;   // the key met last at each place of a record
  std::vector<uint32_t> lastTextAtPlace_;  // the string value met last there
  // Records by address, in open addressing over a power-of-two number of slots.
  std::vector<std::pair<const TavloCodable*, uint32_t>> records_;
  std::size_t recordCount_ = 0;
  std::map<std::string, uint32_t> classUIDs_;  // by class name
  // By the record's type, the classes already written: a class's chain is its own.
  std::vector<std::pair<const std::type_info*, uint32_t>> typeClassUIDs_;
  uint32_t dateClassUID_ = 0;
  uint32_t arrayClassUID_ = 0;
  uint32_t dictionaryClassUID_ = 0;
  // The property list's most and fewest objects, for the width of references.
  std::size_t mostObjects_ = 0;
  std::size_t fewestObjects_ = 0;

  // Step 2.
  std::vector<uint32_t> refs_;           // the current entry's references
  std::vector<uint32_t> objectNumbers_;  // each entry's object, by UID: the "$objects" array
  std::vector<uint32_t> uidNumbers_;     // by UID
  std::vector<uint32_t> stringNumbers_;  // by text, as a string
  std::vector<uint32_t> keyNumbers_;     // by text, as a dictionary key
  // Integers and reals by kind and value, hashed into a power-of-two table; small
  // integers (counts, kinds, states) by value.
  struct Scalar {
    uint64_t bits;
    uint32_t number;
    uint32_t kind;  // 0 when free, else 1 + ValueKind
  };
  std::vector<Scalar> scalars_;
  std::size_t scalarCount_ = 0;
  uint32_t smallIntegers_[64] = {};
  uint32_t booleans_[2] = {};
  uint32_t nextNumber_ = 0;
  // The archive's own texts.
  uint32_t null_ = 0, archiverName_ = 0, classKey_ = 0, timeKey_ = 0, keysKey_ = 0, objectsKey_ = 0;
  uint32_t classNameKey_ = 0, classesKey_ = 0, versionKey_ = 0, archiverKey_ = 0, topKey_ = 0, objectsListKey_ = 0,
           rootKey_ = 0;
};
