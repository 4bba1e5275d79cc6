// The rule by which both taggers put a value into a hit's parameters, and the values
// they both add.
#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "tavlo/TavloTypes.h"
#include "util/TavloText.h"

/// Puts `value` under `key` in `dictionary`: an absent or empty value (or an empty key) is
/// left out, so it never removes or overwrites a default; a non-zero `limit` cuts the
/// value to its first `limit` UTF-16 code units, as the collection server's other clients
/// count them. The value is taken by value so that a temporary moves into the dictionary
/// instead of being copied: hits are built on the application's thread. Returns whether
/// the key is new to the dictionary; when it replaced a value, that value goes to
/// `replaced` (if given).
inline bool TavloAddHitParameter(TavloParameters& dictionary, std::string_view key, TavloString value,
                                 std::size_t limit = 0, std::string* replaced = nullptr) {
  if (!value || value->empty() || key.empty()) return false;
  if (limit != 0 && TavloUTF16Length(*value) > limit) *value = TavloUTF16Prefix(*value, limit);
  const auto [entry, added] = dictionary.try_emplace(std::string(key));
  if (!added && replaced != nullptr) *replaced = std::move(entry->second);
  entry->second = std::move(*value);
  return added;
}

/// The longest free level or media descriptor a hit carries, in UTF-16 code units.
inline constexpr std::size_t kTavloLevelLengthLimit = 256;

/// The values every hit of either tagger takes from the tagger's properties, in the order
/// the taggers add them: "crmid" (the customer data), the free levels "ml1" ... "ml11",
/// then the media descriptors "msCid", "msDm", "msCh" and "miCh", the levels and
/// descriptors cut to kTavloLevelLengthLimit. Calls `add(value, key, limit)` for each;
/// `add` may move the value out (the properties are the hit's own copy) and chooses when
/// it reaches a dictionary: the audience tagger captures them for the agent's thread.
/// "did" is not among them: the streaming tagger adds it before its parameter dump, so
/// each tagger places it itself.
template <typename HitProperties, typename Add>
void TavloForEachSharedHitParameter(HitProperties& properties, TavloString& customerData, Add&& add) {
  static constexpr const char* kFreeLevelKeys[] = {"ml1", "ml2", "ml3", "ml4",  "ml5", "ml6",
                                                   "ml7", "ml8", "ml9", "ml10", "ml11"};
  static_assert(std::size(kFreeLevelKeys) == std::tuple_size_v<decltype(HitProperties::newLevels)>);
  add(customerData, "crmid", std::size_t{0});
  for (std::size_t level = 0; level < std::size(kFreeLevelKeys); ++level) {
    add(properties.newLevels[level], kFreeLevelKeys[level], kTavloLevelLengthLimit);
  }
  add(properties.mediaContentId, "msCid", kTavloLevelLengthLimit);
  add(properties.mediaDiffMode, "msDm", kTavloLevelLengthLimit);
  add(properties.mediaChannel, "msCh", kTavloLevelLengthLimit);
  add(properties.netMeasurement, "miCh", kTavloLevelLengthLimit);
}
