// A main queue in virtual time.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include "tavlo/platform/TavloLogSink.h"
#include "tavlo/platform/TavloMainQueue.h"
#include "tavlo/testkit/TavloManualClock.h"

/// Records posted tasks and scheduled timers and runs them only when the test says so,
/// on the test's own thread:
///
///   queue->schedule(120, true, poll);
///   queue->advanceBy(600);          // poll runs five times, at 120, 240, ... 600 s
///
/// Virtual time starts at 0 and moves only with advanceBy(). The order of work and the
/// reading of intervals are those of every main queue (see TavloMainQueue), from the same
/// scheduling core as the library's own queue. Work that a running task posts or
/// schedules joins in if it falls due within the span. A virtual-time queue is never
/// behind, so a repeating timer fires once per elapsed interval, none skipped.
///
/// With a clock attached, the clock is moved forward to each firing's time before the
/// firing runs, and to the end of the span at the end, by the same amounts as virtual
/// time: the code under test reads the date it would read on a real box. The queue only
/// moves the clock forward by differences, so a test may also move the clock on its own.
/// Virtual time is kept in whole nanoseconds, so ten advances of 0.1 s reach a 1 s timer
/// exactly.
///
/// A task that throws is dropped and the queue goes on, as on a real box; the line
/// "(ERROR) : A main queue task threw (...)" goes to `failureSink` (standard error
/// without one).
///
/// Threads: post, schedule, cancel and the queries are callable from any thread (a real
/// reachability source, say); work runs only inside advanceBy() and runUntilIdle(), on
/// the caller's thread. isCurrent() answers true on that thread while work runs. A call
/// to advanceBy() or runUntilIdle() from inside a running task does nothing.
class TavloManualMainQueue : public TavloMainQueue {
 public:
  explicit TavloManualMainQueue(std::shared_ptr<TavloManualClock> clock = nullptr,
                                std::shared_ptr<TavloLogSink> failureSink = nullptr);
  ~TavloManualMainQueue() override;
  TavloManualMainQueue(const TavloManualMainQueue&) = delete;
  TavloManualMainQueue& operator=(const TavloManualMainQueue&) = delete;

  void post(std::function<void()> task) override;
  TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) override;
  void cancel(TavloTimerID timer) override;
  bool isCurrent() override;

  /// Moves virtual time forward by `seconds` (negative or NaN: not at all; at most
  /// TavloMainQueue::kLongestInterval per call), running every task and timer that falls
  /// due on the way. Answers how many ran.
  size_t advanceBy(double seconds);
  /// Runs the work due now, including work it posts. Answers how many ran.
  size_t runUntilIdle();

  /// Posted tasks not run yet plus timers still armed.
  size_t pendingCount();
  /// Virtual seconds since the queue was made.
  double elapsed();
  /// Virtual seconds from now until the earliest work falls due (0 if some is due now);
  /// nothing when the queue is empty. For a pump that runs the queue at a real pace.
  std::optional<double> nextDueIn();
  /// Called, outside the queue's lock, whenever work is posted or scheduled: a pump
  /// waiting for nextDueIn() wakes up. An empty function removes it.
  void setWorkAddedHandler(std::function<void()> handler);

 private:
  struct State;
  const std::unique_ptr<State> state;
};
