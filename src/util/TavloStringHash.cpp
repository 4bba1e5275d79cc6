#include "util/TavloStringHash.h"

#include <bit>

uint64_t TavloStringHash(std::string_view text) {
  uint64_t hash = 14695981039346656037ULL;
  for (unsigned char byte : text) {
    hash ^= byte;
    hash *= 1099511628211ULL;
  }
  return hash;
}

uint64_t TavloStringHash(const TavloString& text) { return text ? TavloStringHash(std::string_view(*text)) : 0; }

uint64_t TavloDateHash(const std::optional<TavloDate>& date) {
  if (!date) return 0;
  const double seconds = *date == 0.0 ? 0.0 : *date;
  return std::bit_cast<uint64_t>(seconds);
}

uint64_t TavloParametersHash(const TavloParameters* parameters) {
  if (parameters == nullptr) return 0;
  uint64_t hash = 1;
  for (const auto& [key, value] : *parameters) {
    hash = hash * 31 + (TavloStringHash(std::string_view(key)) * 31 + TavloStringHash(std::string_view(value)));
  }
  return hash;
}
