// A clock for the demo: the wall clock's date at start, then time at the demo's speed.
#pragma once

#include <memory>

#include "TavloTimeScale.h"
#include "tavlo/platform/TavloClock.h"

/// Implements the clock seam on a TavloTimeScale: it reads the wall clock's date once,
/// when made, and from then on answers that date plus the demo time elapsed. At speed 20
/// a hit made ten real seconds later is dated 200 seconds later, so everything the
/// library measures with the clock (retry delays, session ages) runs at the demo's pace.
/// Time zones are the wall clock's. Callable from any thread.
class TavloScaledClock : public TavloClock {
 public:
  TavloScaledClock(std::shared_ptr<TavloClock> wallClock, TavloTimeScale scale);

  TavloDate now() override;
  long utcOffsetAt(TavloDate date) override;

  /// The date the demo started at.
  TavloDate origin() const { return origin_; }

 private:
  const std::shared_ptr<TavloClock> wallClock_;
  const TavloTimeScale scale_;
  const TavloDate origin_;
};
