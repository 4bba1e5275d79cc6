#include "support/TavloManualClock.h"

TavloManualClock::TavloManualClock(TavloDate start) : current(start) {}

TavloDate TavloManualClock::now() {
  std::lock_guard<std::mutex> lock(timeProtector);
  return current;
}

long TavloManualClock::utcOffsetAt(TavloDate date) {
  std::function<long(TavloDate)> rule;
  {
    std::lock_guard<std::mutex> lock(timeProtector);
    if (!offsetRule) return fixedOffset;
    rule = offsetRule;
  }
  // Called outside the lock, so a rule may read the clock itself.
  return rule(date);
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
  offsetRule = nullptr;
}

void TavloManualClock::setUtcOffsetRule(std::function<long(TavloDate)> rule) {
  std::lock_guard<std::mutex> lock(timeProtector);
  offsetRule = std::move(rule);
}
