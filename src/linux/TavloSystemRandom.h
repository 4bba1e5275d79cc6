// Random numbers and UUIDs on Linux.
#pragma once

#include <cstdint>
#include <mutex>
#include <random>
#include <string>

#include "tavlo/platform/TavloRandom.h"

/// A Mersenne Twister seeded from the kernel's entropy (std::random_device) for the
/// 32-bit values, and libuuid for the UUIDs. The generator is not thread-safe by
/// itself, so every draw takes `generatorProtector`.
class TavloSystemRandom : public TavloRandom {
 public:
  TavloSystemRandom();
  TavloSystemRandom(const TavloSystemRandom&) = delete;
  TavloSystemRandom& operator=(const TavloSystemRandom&) = delete;

  uint32_t nextUInt32() override;
  std::string newUUIDString() override;

 private:
  std::mutex generatorProtector;
  std::mt19937 generator;  // guarded by generatorProtector
};
