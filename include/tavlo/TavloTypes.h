// Value types shared by the whole public interface.
#pragma once

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
inline constexpr double TavloSecondsFrom1970To2001 = 978307200.0;
