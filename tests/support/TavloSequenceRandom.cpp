#include "support/TavloSequenceRandom.h"

#include <cstdio>

TavloSequenceRandom::TavloSequenceRandom(std::vector<uint32_t> values, std::vector<std::string> uuids)
    : values(std::move(values)), uuids(std::move(uuids)) {}

uint32_t TavloSequenceRandom::nextUInt32() {
  std::lock_guard<std::mutex> lock(scriptProtector);
  ++valuesGiven;
  if (values.empty()) return static_cast<uint32_t>(valuesGiven);
  const uint32_t value = values[nextValue];
  nextValue = (nextValue + 1) % values.size();
  return value;
}

std::string TavloSequenceRandom::newUUIDString() {
  std::lock_guard<std::mutex> lock(scriptProtector);
  if (nextUUID < uuids.size()) return uuids[nextUUID++];
  return countedUUID(++uuidCounter);
}

void TavloSequenceRandom::setValues(std::vector<uint32_t> newValues) {
  std::lock_guard<std::mutex> lock(scriptProtector);
  values = std::move(newValues);
  nextValue = 0;
}

size_t TavloSequenceRandom::valueCount() {
  std::lock_guard<std::mutex> lock(scriptProtector);
  return valuesGiven;
}

std::string TavloSequenceRandom::countedUUID(uint64_t n) {
  char text[40];
  std::snprintf(text, sizeof text, "00000000-0000-4000-8000-%012llX",
                static_cast<unsigned long long>(n & 0xFFFFFFFFFFFFull));
  return text;
}
