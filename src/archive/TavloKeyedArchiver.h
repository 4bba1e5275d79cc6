// Writes records as an NSKeyedArchiver archive in a binary property list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

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
/// The archive is written through TavloBinaryPlistWriter, byte for byte as libplist's
/// tree and plist_to_bin wrote it before (see that class for why): files written by one
/// version of the library read the same in every other. A queue of 500 requests takes
/// about a millisecond to encode, in a few flat arrays freed when the call returns.
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
  using Object = TavloBinaryPlistWriter::Object;
  using Entry = TavloBinaryPlistWriter::Entry;
  static constexpr std::size_t kNoRecord = SIZE_MAX;

  std::string finish(uint32_t rootUID);

  uint32_t appendObject(Object object);
  uint32_t uidForRecord(const TavloCodable& object);
  uint32_t uidForArray(const std::vector<std::shared_ptr<TavloCodable>>& objects);
  uint32_t uidForString(const std::string& value);
  uint32_t uidForParameters(const TavloParameters& parameters);
  uint32_t uidForClass(const std::vector<std::string>& chain);
  // uidForClass, remembered in `uid` for the classes every date, array or dictionary names.
  uint32_t knownClass(uint32_t& uid, const std::vector<std::string>& chain);
  Object keyFor(const std::string& key);
  void setInCurrent(Object key, Object value);

  // Texts already written, by a hash of the text: a queue repeats its keys and many of
  // its values in every request. Open addressing over slots holding hash << 32 | value,
  // 0 when free; the text itself is compared against the writer's copy of it, so the
  // index holds no text of its own. Only text of bytes below 0x80 and without NUL is
  // indexed here, whose bytes in the file are the text itself.
  class TextIndex {
   public:
    TextIndex();
    // The value stored with the text of `hash` (`holds` tells a candidate's text apart),
    // or 0 with `slot` set to where it goes, for insert.
    template <class Holds>
    uint32_t find(uint64_t hash, uint64_t& slot, Holds holds) const;
    void insert(uint64_t slot, uint32_t value);
    // Room for about `texts` texts before the first insert.
    void reserve(std::size_t texts);

   private:
    std::vector<uint64_t> slots_;
    std::size_t used_ = 0;
  };
  // Whether every byte of `text` is below 0x80 and none is NUL; `hash` is set either way.
  static bool hashAscii(std::string_view text, uint64_t& hash);

  TavloBinaryPlistWriter writer_;
  // The archive's own keys, written into almost every object.
  const Object classKey_ = writer_.key("$class");
  const Object timeKey_ = writer_.key("NS.time");
  const Object keysKey_ = writer_.key("NS.keys");
  const Object objectsKey_ = writer_.key("NS.objects");
  std::vector<Object> objects_;        // the "$objects" array, by UID
  std::vector<Entry> fields_;          // entries of the records being encoded, the innermost last
  std::size_t currentFields_ = kNoRecord;  // where the current record's entries begin in fields_
  std::vector<Object> scratch_;        // a dictionary's keys and values on their way to the writer
  std::vector<Object> lastKeyAtPlace_;  // the writer's object of the key met last at each place of a record, plus one
  std::vector<uint32_t> lastAtPlace_;  // UID of the key, then the value, met last at each place of a dictionary
  std::unordered_map<const TavloCodable*, uint32_t> recordUIDs_;
  std::unordered_map<const TavloParameters*, uint32_t> parametersUIDs_;
  TextIndex asciiStrings_;             // UIDs of strings
  TextIndex asciiKeys_;                // the writer's objects of keys, plus one
  std::unordered_map<std::string, uint32_t> unicodeStringUIDs_;   // valid text with bytes past 0x7F
  std::unordered_map<std::string, uint32_t> repairedStringUIDs_;  // strings that had to be repaired, as given
  std::map<std::string, uint32_t> classUIDs_;  // by class name
  // The classes of the containers, named by every date, dictionary and array.
  uint32_t dateClassUID_ = 0;
  uint32_t arrayClassUID_ = 0;
  uint32_t dictionaryClassUID_ = 0;
};
