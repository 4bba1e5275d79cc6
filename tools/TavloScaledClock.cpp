#include "TavloScaledClock.h"

#include <utility>

TavloScaledClock::TavloScaledClock(std::shared_ptr<TavloClock> wallClock, TavloTimeScale scale)
    : wallClock_(std::move(wallClock)), scale_(scale), origin_(wallClock_->now() - scale_.elapsed()) {}

TavloDate TavloScaledClock::now() { return origin_ + scale_.elapsed(); }

long TavloScaledClock::utcOffsetAt(TavloDate date) { return wallClock_->utcOffsetAt(date); }
