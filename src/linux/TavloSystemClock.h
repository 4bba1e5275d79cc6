// The Linux wall clock.
#pragma once

#include "tavlo/platform/TavloClock.h"

/// Reads the system's real-time clock and the local time zone through the C library.
/// Stateless; callable from any thread.
class TavloSystemClock : public TavloClock {
 public:
  TavloDate now() override;

  /// Re-reads the time zone (TZ, /etc/localtime) on every call, so a box whose owner
  /// changes the zone while the application runs gets the new offset. A date that is
  /// not a finite number of seconds a time_t can hold is answered with today's offset.
  long utcOffsetAt(TavloDate date) override;
};
