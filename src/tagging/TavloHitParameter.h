// The rule by which both taggers put a value into a hit's parameters.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "tavlo/TavloTypes.h"
#include "util/TavloText.h"

/// Puts `value` under `key` in `dictionary`: an absent or empty value (or an empty key) is
/// left out, so it never removes or overwrites a default; a non-zero `limit` cuts the
/// value to its first `limit` UTF-16 code units, as the collection server's other clients
/// count them. The value is taken by value so that a temporary moves into the dictionary
/// instead of being copied: hits are built on the application's thread.
inline void TavloAddHitParameter(TavloParameters& dictionary, std::string_view key, TavloString value,
                                 std::size_t limit = 0) {
  if (!value || value->empty() || key.empty()) return;
  if (limit != 0 && TavloUTF16Length(*value) > limit) *value = TavloUTF16Prefix(*value, limit);
  dictionary.insert_or_assign(std::string(key), std::move(*value));
}
