// Platform seam: the main queue, where notifications and timers run.
#pragma once

#include <cstdint>
#include <functional>

#include "tavlo/TavloExport.h"

/// Identifies a scheduled timer; 0 is never a valid identifier.
using TavloTimerID = uint64_t;

/// A serial queue that plays the part of an application's main run loop: tasks and timers
/// run one at a time, in order, on one thread. Reachability notifications are posted here,
/// and streaming timers fire here.
///
/// On Linux the default is a library thread; a platform shim maps it onto its own main
/// loop; tests use a virtual-time queue that runs due work only when told to.
///
/// Every operation may be called from any thread, including from a task on the queue.
class TAVLO_EXPORT TavloMainQueue {
 public:
  virtual ~TavloMainQueue() = default;

  /// Runs `task` on the queue soon, after the tasks posted before it.
  virtual void post(std::function<void()> task) = 0;

  /// Runs `task` on the queue once `interval` seconds have passed, and then again every
  /// `interval` seconds if `repeats`, until cancelled. A non-positive interval is taken
  /// as a very small one (a repeating timer never spins).
  virtual TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) = 0;

  /// Stops the timer; a firing already running completes. Unknown identifiers are ignored.
  virtual void cancel(TavloTimerID timer) = 0;

  /// Whether the caller is running on the queue's own thread.
  virtual bool isCurrent() = 0;
};
