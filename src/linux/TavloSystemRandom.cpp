#include "linux/TavloSystemRandom.h"

#include <uuid/uuid.h>

#include <array>

namespace {

// Seeds every word of the generator's state source from the kernel, not just one
// 32-bit value: with a single word only four billion sequences could ever appear.
std::mt19937 seededGenerator() {
  std::random_device entropy;
  std::array<std::random_device::result_type, 8> seed{};
  for (auto& word : seed) word = entropy();
  std::seed_seq sequence(seed.begin(), seed.end());
  return std::mt19937(sequence);
}

}  // namespace

TavloSystemRandom::TavloSystemRandom() : generator(seededGenerator()) {}

uint32_t TavloSystemRandom::nextUInt32() {
  std::lock_guard<std::mutex> lock(generatorProtector);
  return static_cast<uint32_t>(generator());
}

std::string TavloSystemRandom::newUUIDString() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37] = {};
  uuid_unparse_upper(uuid, text);
  return std::string(text);
}
