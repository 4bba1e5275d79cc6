// A time line that runs a fixed number of times faster than the wall clock.
#pragma once

#include <chrono>

/// Maps real (steady) time to demo time: `speed` seconds of demo time pass in each real
/// second, counted from `start`. Speed 1 is real time. A plain value, shared by copy
/// between the demo's clock and its main queue so both read one time line.
struct TavloTimeScale {
  using SteadyClock = std::chrono::steady_clock;

  SteadyClock::time_point start = SteadyClock::now();
  double speed = 1;

  /// Demo seconds since `start`.
  double elapsed() const { return speed * std::chrono::duration<double>(SteadyClock::now() - start).count(); }

  /// The real moment at which `demoSeconds` after `start` falls.
  /// REQUIRES: 0 <= demoSeconds / speed, small enough to count in nanoseconds (a few centuries).
  SteadyClock::time_point realPointAt(double demoSeconds) const {
    return start + std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(demoSeconds / speed));
  }
};
