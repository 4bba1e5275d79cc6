// Writes records as an NSKeyedArchiver archive in a binary property list.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <plist/plist.h>

#include "request/TavloCodable.h"
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
/// An archiver is used by one thread for one archive; the static entry points make one.
class TavloKeyedArchiver {
 public:
  /// The archive bytes with `root` as the root object. Empty if a record's encoding threw.
  static std::string archivedDataWithRootObject(const TavloCodable& root);
  /// The archive bytes with an NSMutableArray of `objects` as the root object.
  static std::string archivedDataWithRootArray(const std::vector<std::shared_ptr<TavloCodable>>& objects);

  // Encode operations, for use inside TavloCodable::encodeWithCoder only.
  void encodeObject(const TavloCodable* object, const std::string& key);
  void encodeString(const TavloString& value, const std::string& key);
  void encodeDate(const std::optional<TavloDate>& value, const std::string& key);
  void encodeParameters(const std::shared_ptr<const TavloParameters>& value, const std::string& key);
  void encodeInteger(int64_t value, const std::string& key);
  void encodeBool(bool value, const std::string& key);

  ~TavloKeyedArchiver();
  TavloKeyedArchiver(const TavloKeyedArchiver&) = delete;
  TavloKeyedArchiver& operator=(const TavloKeyedArchiver&) = delete;

 private:
  struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
  };
  using PlistPtr = std::unique_ptr<void, PlistFree>;

  TavloKeyedArchiver();
  std::string finish(uint64_t rootUID);

  uint64_t appendObject(PlistPtr node);
  uint64_t uidForRecord(const TavloCodable& object);
  uint64_t uidForArray(const std::vector<std::shared_ptr<TavloCodable>>& objects);
  uint64_t uidForString(const std::string& value);
  uint64_t uidForParameters(const TavloParameters& parameters);
  uint64_t uidForClass(const std::vector<std::string>& chain);
  void setInCurrent(const std::string& key, PlistPtr node);

  PlistPtr objects_;                                 // the "$objects" array
  plist_t current_ = nullptr;                        // dictionary of the record being encoded (inside objects_)
  std::map<const TavloCodable*, uint64_t> recordUIDs_;
  std::map<const TavloParameters*, uint64_t> parametersUIDs_;
  std::map<std::string, uint64_t> stringUIDs_;
  std::map<std::string, uint64_t> classUIDs_;       // by class name
};
