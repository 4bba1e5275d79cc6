// The Gregorian calendar without the C library: day counts to dates and back, for any
// date a double can name, never limited by time_t.
#pragma once

#include <cstdint>

/// Seconds between 1970-01-01 and 2001-01-01, the reference date of dates in the queue
/// file's keyed archive.
inline constexpr double kTavloSecondsFrom1970To2001 = 978307200.0;

struct TavloCivilDate {
  int64_t year;
  unsigned month;  // 1 ... 12
  unsigned day;    // 1 ... 31
  bool operator==(const TavloCivilDate&) const = default;
};

/// The Gregorian date of the day `days` days after 1970-01-01 (Howard Hinnant's
/// days-to-civil algorithm).
TavloCivilDate TavloCivilDateFromDays(int64_t days);
