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
/// loop; tests use the virtual-time queue of Tavlo::testkit, which runs due work only
/// when told to.
///
/// The rules every implementation keeps (the library's own queue and the test kit's
/// share one scheduling core that keeps them; a shim on another loop keeps them too):
///  - Intervals: a timer uses effectiveInterval(interval) seconds. Anything below 0.1 ms,
///    zero, negative and NaN included, becomes 0.1 ms, so a repeating timer never spins;
///    anything above 1e9 seconds (about 30 years), infinity included, becomes 1e9, so a
///    deadline stays countable. A loop with a coarser tick rounds up to its tick.
///  - Order: each piece of work falls due at a moment (a posted task when it is posted, a
///    timer at its deadline) and runs in the order it fell due, ties in the order it was
///    posted or armed. A timer whose deadline has passed therefore runs before tasks
///    posted after that deadline, and a task that keeps posting cannot starve a timer.
///  - Repeating timers are re-armed from their previous deadline before their task runs,
///    so they do not drift and their own task may cancel them. A queue that fell behind
///    by more than one interval (a long task, a suspended box) skips the missed firings
///    and keeps the rhythm; in virtual time a queue is never behind, so none is skipped.
///  - A task that throws is reported as an error and dropped; the queue goes on.
///
/// Every operation may be called from any thread, including from a task on the queue.
class TAVLO_EXPORT TavloMainQueue {
 public:
  virtual ~TavloMainQueue() = default;

  /// Runs `task` on the queue soon, after the tasks posted before it.
  virtual void post(std::function<void()> task) = 0;

  /// Runs `task` on the queue once `interval` seconds have passed, and then again every
  /// `interval` seconds if `repeats`, until cancelled. The interval is read through
  /// effectiveInterval(). An empty task schedules nothing and answers 0.
  virtual TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) = 0;

  /// Stops the timer; a firing already running completes. Unknown identifiers are ignored.
  virtual void cancel(TavloTimerID timer) = 0;

  /// Whether the caller is running on the queue's own thread. Deprecated: the library
  /// never asks, so a main queue need not answer. Kept, with a default answer of false, so
  /// that shims which override it still compile; it leaves the seam in the next major
  /// release.
  [[deprecated("the library never asks; this leaves the seam in the next major release")]]
  virtual bool isCurrent() { return false; }

  /// Shortest and longest interval a timer uses, in seconds.
  ///@{
  static constexpr double kShortestInterval = 0.0001;
  static constexpr double kLongestInterval = 1e9;
  ///@}

  /// The interval, in seconds, a timer asked for `interval` seconds really uses.
  static constexpr double effectiveInterval(double interval) {
    if (!(interval >= kShortestInterval)) return kShortestInterval;  // also NaN
    if (interval > kLongestInterval) return kLongestInterval;
    return interval;
  }
};
