#include "tavlo/testkit/TavloManualClock.h"

TavloManualClock::TavloManualClock(TavloDate start) : current(start) {}

TavloDate TavloManualClock::now() {
  std::lock_guard<std::mutex> lock(timeProtector);
  return current;
}

long TavloManualClock::utcOffsetAt(TavloDate) {
  std::lock_guard<std::mutex> lock(timeProtector);
  return fixedOffset;
}

void TavloManualClock::set(TavloDate date) {
  std::lock_guard<std::mutex> lock(timeProtector);
  current = date;
}

TavloDate TavloManualClock::advance(double seconds) {
  std::lock_guard<std::mutex> lock(timeProtector);
  current += seconds;
  return current;
}

void TavloManualClock::setUtcOffset(long seconds) {
  std::lock_guard<std::mutex> lock(timeProtector);
  fixedOffset = seconds;
}
