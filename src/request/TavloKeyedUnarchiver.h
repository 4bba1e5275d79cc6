// Reads records back from an NSKeyedArchiver archive in a binary property list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <plist/plist.h>

#include "request/TavloCodable.h"
#include "tavlo/TavloTypes.h"

class TavloKeyedUnarchiver;

/// Makes a record from the archive (the record's `initWithCoder`). May return null.
using TavloDecoder = std::function<std::shared_ptr<TavloCodable>(TavloKeyedUnarchiver&)>;

/// The classes an unarchiver may instantiate, by "$classname". Anything else decodes as
/// no object: an archive never makes the library run code it did not choose.
using TavloClassTable = std::map<std::string, TavloDecoder>;

/// Reads archives written by TavloKeyedArchiver (or by NSKeyedArchiver) defensively. The
/// input is untrusted: a damaged or hostile file yields no object, or a record whose
/// damaged keys read as their defaults (nil, 0, false), and never a crash, a hang or
/// unbounded memory:
///  - input larger than `maxArchiveBytes` is refused before parsing;
///  - every UID is range-checked; a record that refers back to itself, directly or not,
///    is a cycle and decodes as no object;
///  - each archived object is decoded at most once (later references share the result),
///    so the work is linear in the size of the archive;
///  - nesting deeper than `maxDepth` decodes as no object;
///  - the property list is checked before libplist parses it: containers nested deeper
///    than a valid archive ever needs, or objects shared so often that the parsed tree
///    would balloon past a million nodes, refuse the whole archive;
///  - text copied out of the archive (strings, dictionary entries) is capped at twice
///    `maxArchiveBytes` per call; past the cap strings read as nil.
///
/// Decode operations are for use inside a TavloDecoder only, on the thread running the
/// unarchiving call.
class TavloKeyedUnarchiver {
 public:
  static constexpr std::size_t maxArchiveBytes = 16 * 1024 * 1024;
  static constexpr int maxDepth = 16;

  /// The root object, or null with `error` (if given) saying why.
  static std::shared_ptr<TavloCodable> unarchivedObjectWithData(std::string_view data, const TavloClassTable& classes,
                                                                std::string* error = nullptr);

  /// The root array's elements. Nothing when the archive or its root array is unusable
  /// (`error` says why). Elements that do not decode are left out, and `error` then says
  /// how many were.
  static std::optional<std::vector<std::shared_ptr<TavloCodable>>> unarchivedArrayWithData(
      std::string_view data, const TavloClassTable& classes, std::string* error = nullptr);

  // Decode operations: a missing key or a value of the wrong kind reads as the default.
  bool containsValueForKey(const std::string& key) const;
  std::shared_ptr<TavloCodable> decodeObject(const std::string& key);
  template <class T>
  std::shared_ptr<T> decodeObjectOfClass(const std::string& key) {
    return std::dynamic_pointer_cast<T>(decodeObject(key));
  }
  TavloString decodeString(const std::string& key);
  std::optional<TavloDate> decodeDate(const std::string& key);
  /// Entries whose key or value is not a string are left out.
  std::shared_ptr<const TavloParameters> decodeParameters(const std::string& key);
  int64_t decodeInteger(const std::string& key);
  bool decodeBool(const std::string& key);

  ~TavloKeyedUnarchiver();
  TavloKeyedUnarchiver(const TavloKeyedUnarchiver&) = delete;
  TavloKeyedUnarchiver& operator=(const TavloKeyedUnarchiver&) = delete;

 private:
  struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
  };
  using PlistPtr = std::unique_ptr<void, PlistFree>;

  enum class DecodeState { NotStarted, InProgress, Done };
  struct Slot {
    DecodeState state = DecodeState::NotStarted;
    std::shared_ptr<TavloCodable> record;
  };

  TavloKeyedUnarchiver(PlistPtr archive, const TavloClassTable& classes);
  static PlistPtr parseArchive(std::string_view data, std::string* error);
  plist_t rootNode(std::string* error) const;

  plist_t valueForKey(const std::string& key) const;
  plist_t objectAt(plist_t uidNode) const;
  std::shared_ptr<TavloCodable> decodeRecordAt(plist_t uidNode, std::string* why = nullptr);
  TavloString classNameOf(plist_t object) const;
  TavloString stringAt(plist_t uidNode) const;
  std::shared_ptr<const TavloParameters> parametersAt(plist_t uidNode);
  bool chargeDecodedBytes(std::size_t bytes);

  PlistPtr archive_;
  plist_t objects_ = nullptr;  // the "$objects" array, inside archive_
  const TavloClassTable& classes_;
  std::vector<Slot> slots_;    // one per entry of objects_, by UID
  std::map<uint64_t, std::shared_ptr<const TavloParameters>> parameters_;  // decoded dictionaries, by UID
  plist_t current_ = nullptr;  // dictionary of the record being decoded
  int depth_ = 0;
  std::size_t decodedBytes_ = 0;  // text copied out of the archive so far
};
