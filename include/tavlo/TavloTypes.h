// Value types shared by the whole public interface.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

/// A string that may be absent. Absent (nil) and empty are distinct: an absent
/// customer data and an empty one name two different audience taggers.
/// Text is UTF-8 throughout the library.
using TavloString = std::optional<std::string>;

/// Query parameters of a hit: keys and values are strings, numbers are written in decimal.
using TavloParameters = std::map<std::string, std::string>;

/// A point in time: seconds since 1970-01-01 00:00:00 UTC.
using TavloDate = double;

/// Seconds between 1970-01-01 and 2001-01-01, the reference date of archived dates.
/// Deprecated: a detail of the queue file's format that no call of the API takes; it
/// leaves this header in the next major release.
[[deprecated("a detail of the queue file's format, which no call of the API takes")]]
inline constexpr double TavloSecondsFrom1970To2001 = 978307200.0;

/// How a hit is sent and stamped. Live hits go to the access's host without a time
/// stamp; timestamped and disconnected hits go to the audience collection address with
/// "ts" and "tt" ("c" or "d"). Stored in queue files. Audience hits are always live; a
/// streaming tagger sends in the mode its application chose, or disconnected while the
/// network cannot be reached.
enum TavloSendingMode : int64_t {
  TavloSendingModeTimestamped = 0,
  TavloSendingModeLive = 1,
  TavloSendingModeDisconnected = 2,
};
