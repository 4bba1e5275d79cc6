// The string and value hashes that record hashes are built from.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "tavlo/TavloTypes.h"

/// FNV-1a (64-bit) over the UTF-8 bytes. Chosen because record hashes must be the same in
/// every run and on every machine, which std::hash does not promise.
/// The empty string hashes to the FNV offset basis, 14695981039346656037.
uint64_t TavloStringHash(std::string_view text);

/// A string that may be nil: nil hashes as 0.
uint64_t TavloStringHash(const TavloString& text);

/// A date hashes as the bit pattern of its seconds since 1970 (+0 for -0); nil as 0.
uint64_t TavloDateHash(const std::optional<TavloDate>& date);

/// A parameter dictionary hashes as 31-based polynomial over its entries in key order,
/// each entry contributing hash(key) * 31 + hash(value); nil as 0.
uint64_t TavloParametersHash(const TavloParameters* parameters);
