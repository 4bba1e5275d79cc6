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
#include <unordered_map>
#include <vector>

#include "archive/TavloBinaryPlistReader.h"
#include "archive/TavloCodable.h"
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
///  - input larger than `maxArchiveBytes` is refused before reading;
///  - the property list is read in place through TavloBinaryPlistReader, which checks
///    every access against the bounds of the file; nothing is expanded into a tree, so
///    deep nesting and objects shared many times cost nothing until they are read;
///  - every UID is range-checked; a record that refers back to itself, directly or not,
///    is a cycle and decodes as no object;
///  - each archived object is decoded at most once (later references share the result),
///    and an archive of more than `maxArchivedObjects` objects is refused;
///  - nesting deeper than `maxDepth` decodes as no object;
///  - the work of one call is capped: each dictionary entry compared and each array
///    element visited counts one step, each byte of a class name one; an archive that
///    needs more than `maxSteps` is refused whole (the library's own need a few hundred
///    steps per request);
///  - text copied out of the archive (strings, dictionary entries) is capped at twice
///    `maxArchiveBytes` per call, counted before it is copied; past the cap strings read
///    as nil.
/// Reading is linear in what is read: a queue of 500 requests loads in a few
/// milliseconds (bench/TavloQueueFileBench.cpp measures it).
///
/// Decode operations are for use inside a TavloDecoder only, on the thread running the
/// unarchiving call.
class TavloKeyedUnarchiver {
 public:
  static constexpr std::size_t maxArchiveBytes = 16 * 1024 * 1024;
  static constexpr int maxDepth = 16;
  static constexpr std::size_t maxArchivedObjects = std::size_t{1} << 20;
  static constexpr uint64_t maxSteps = uint64_t{1} << 24;

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
  using Reader = TavloBinaryPlistReader;
  using Object = TavloBinaryPlistReader::Object;
  using Index = std::optional<uint64_t>;  // a property-list object, if there is one

  enum class DecodeState { NotStarted, InProgress, Done };
  struct Slot {
    DecodeState state = DecodeState::NotStarted;
    std::shared_ptr<TavloCodable> record;
  };

  TavloKeyedUnarchiver(const Reader& reader, const TavloClassTable& classes);
  static bool openArchive(std::string_view data, Reader& reader, std::string* error);
  Index rootUIDNode(std::string* error);
  std::string limitError() const;

  bool charge(uint64_t steps) const;
  Index lookup(const Object& dictionary, std::string_view key) const;
  Index valueForKey(const std::string& key) const;
  Object archivedObject(Index uidNode, uint64_t* uid = nullptr);
  std::shared_ptr<TavloCodable> decodeRecordAt(Index uidNode, std::string* why = nullptr);
  TavloString classNameOf(const Object& object);
  Object stringObjectAt(Index uidNode);
  TavloString copyText(const Object& string, std::size_t overhead);
  std::shared_ptr<const TavloParameters> parametersAt(Index uidNode);
  bool chargeDecodedBytes(std::size_t bytes);

  const Reader& reader_;
  const TavloClassTable& classes_;
  Object objects_;           // the "$objects" array
  std::vector<Slot> slots_;  // one per entry of objects_, by UID
  std::unordered_map<uint64_t, std::shared_ptr<const TavloParameters>> parameters_;  // decoded dictionaries, by UID
  Object current_;           // dictionary of the record being decoded
  mutable uint64_t cursor_ = 0;  // where the next lookup in current_ starts
  int depth_ = 0;
  mutable uint64_t steps_ = 0;  // work done so far, against maxSteps
  mutable bool exhausted_ = false;
  std::size_t decodedBytes_ = 0;  // text copied out of the archive so far
};
