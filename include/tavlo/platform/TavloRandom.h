// Platform seam: randomness.
#pragma once

#include <cstdint>
#include <string>

#include "tavlo/TavloExport.h"

/// Random values: the "n" cache-buster of every hit, local visit identifiers, and new
/// device identifiers. Implementations must be callable from any thread.
class TAVLO_EXPORT TavloRandom {
 public:
  virtual ~TavloRandom() = default;
  /// A uniformly distributed unsigned 32-bit number.
  virtual uint32_t nextUInt32() = 0;
  /// A fresh random (version 4) UUID in its 36-character text form, upper-case
  /// hexadecimal digits in groups of 8-4-4-4-12 joined by hyphens.
  virtual std::string newUUIDString() = 0;
};
