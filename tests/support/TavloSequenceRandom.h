// Randomness that a test writes in advance.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "tavlo/platform/TavloRandom.h"

/// Answers scripted values so hits and identifiers are predictable.
///
/// nextUInt32() walks `values` and starts again at the first after the last; with no
/// values it counts 1, 2, 3, ... . newUUIDString() hands out `uuids` in order, once
/// each, then made-up UUIDs from a counter: "00000000-0000-4000-8000-000000000001",
/// "...0002", in upper case and with the version-4 and variant digits, so they pass
/// any format check a real one passes. Callable from any thread.
class TavloSequenceRandom : public TavloRandom {
 public:
  explicit TavloSequenceRandom(std::vector<uint32_t> values = {}, std::vector<std::string> uuids = {});
  TavloSequenceRandom(const TavloSequenceRandom&) = delete;
  TavloSequenceRandom& operator=(const TavloSequenceRandom&) = delete;

  uint32_t nextUInt32() override;
  std::string newUUIDString() override;

  /// Replaces the script and starts it from its beginning.
  void setValues(std::vector<uint32_t> values);

  /// How many values were handed out.
  size_t valueCount();

  /// The counter-made UUID number `n` (1-based), as newUUIDString() writes it.
  static std::string countedUUID(uint64_t n);

 private:
  std::mutex scriptProtector;
  std::vector<uint32_t> values;     // guarded by scriptProtector
  std::vector<std::string> uuids;   // guarded by scriptProtector
  size_t nextValue = 0;             // guarded by scriptProtector
  size_t nextUUID = 0;              // guarded by scriptProtector
  size_t valuesGiven = 0;           // guarded by scriptProtector
  uint64_t uuidCounter = 0;         // guarded by scriptProtector
};
