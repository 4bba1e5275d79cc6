// Platform seam: the wall clock.
#pragma once

#include "tavlo/TavloExport.h"
#include "tavlo/TavloTypes.h"

/// The current time. The library reads time only through this seam, so tests can run
/// in virtual time. Implementations must be callable from any thread.
class TAVLO_EXPORT TavloClock {
 public:
  virtual ~TavloClock() = default;
  /// Seconds since 1970 on the device's clock.
  virtual TavloDate now() = 0;
  /// Offset of the device's local time zone from UTC at `date`, in seconds (east positive).
  /// Used where a calendar day in the viewer's own time zone matters.
  virtual long utcOffsetAt(TavloDate date) = 0;
};
