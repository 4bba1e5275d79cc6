// A clock that moves only when a test moves it.
#pragma once

#include <functional>
#include <mutex>

#include "tavlo/platform/TavloClock.h"

/// Virtual time for tests. now() answers the date last set; nothing moves on its own.
///
/// A virtual-time main queue shares this clock with the code under test and drives it:
/// before running each due task it calls set() with the task's due date, and after
/// the last one set() with the end of the span it was asked to advance. set() and
/// advance() are the only ways time moves, so the queue and the clock cannot drift
/// apart. Every member is callable from any thread; `timeProtector` guards the state.
class TavloManualClock : public TavloClock {
 public:
  explicit TavloManualClock(TavloDate start = 0);
  TavloManualClock(const TavloManualClock&) = delete;
  TavloManualClock& operator=(const TavloManualClock&) = delete;

  TavloDate now() override;
  /// The offset set with setUtcOffset, whatever the date.
  long utcOffsetAt(TavloDate date) override;

  void set(TavloDate date);
  /// Moves the clock by `seconds` (negative moves it back, as a user resetting the
  /// box's clock would) and answers the new date.
  TavloDate advance(double seconds);

  /// The same offset at every date. Default 0 (UTC).
  void setUtcOffset(long seconds);

 private:
  std::mutex timeProtector;
  TavloDate current;                            // guarded by timeProtector
  long fixedOffset = 0;                         // guarded by timeProtector
};
