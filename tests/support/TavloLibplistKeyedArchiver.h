// The keyed archiver the library had before its own property-list writer, kept as the
// reference that the writer must match byte for byte.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <plist/plist.h>

#include "archive/TavloKeyedArchiver.h"

/// Builds the archive as a libplist tree and serialises it with plist_to_bin, exactly as
/// TavloKeyedArchiver did before it wrote the bytes itself. Records are fed to it through
/// their usual encodeWithCoder; the encode operations of the base class are overridden.
/// Slow and memory-hungry on purpose: it is the yardstick in the tests and the benchmark.
class TavloLibplistKeyedArchiver : public TavloKeyedArchiver {
 public:
  static std::string archivedDataWithRootObject(const TavloCodable& root);
  static std::string archivedDataWithRootArray(const std::vector<std::shared_ptr<TavloCodable>>& objects);

  void encodeObject(const TavloCodable* object, const std::string& key) override;
  void encodeString(const TavloString& value, const std::string& key) override;
  void encodeDate(const std::optional<TavloDate>& value, const std::string& key) override;
  void encodeParameters(const std::shared_ptr<const TavloParameters>& value, const std::string& key) override;
  void encodeInteger(int64_t value, const std::string& key) override;
  void encodeBool(bool value, const std::string& key) override;

  ~TavloLibplistKeyedArchiver() override;

 private:
  struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
  };
  using PlistPtr = std::unique_ptr<void, PlistFree>;

  TavloLibplistKeyedArchiver();
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
