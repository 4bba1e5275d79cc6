#include "linux/TavloSystemClock.h"

#include <chrono>
#include <cmath>
#include <ctime>
#include <limits>

TavloDate TavloSystemClock::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(sinceEpoch).count();
}

namespace {

// Converting a double outside time_t's range is undefined behaviour, so anything that
// is not a plain finite date falls back to the present moment.
time_t representableTime(TavloDate date) {
  constexpr double lowest = static_cast<double>(std::numeric_limits<time_t>::min());
  constexpr double highest = static_cast<double>(std::numeric_limits<time_t>::max());
  if (std::isfinite(date) && date > lowest && date < highest) {
    return static_cast<time_t>(std::floor(date));
  }
  return std::time(nullptr);
}

}  // namespace

long TavloSystemClock::utcOffsetAt(TavloDate date) {
  // localtime_r is not required to look at TZ again after its first call; tzset is.
  tzset();
  const time_t seconds = representableTime(date);
  struct tm local {};
  if (localtime_r(&seconds, &local) == nullptr) {
    // Years beyond what struct tm can hold: the offset of today is the best guess.
    const time_t present = std::time(nullptr);
    if (localtime_r(&present, &local) == nullptr) return 0;
  }
  return local.tm_gmtoff;
}
