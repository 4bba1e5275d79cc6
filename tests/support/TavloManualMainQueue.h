// A main queue in virtual time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>

#include "support/TavloManualClock.h"
#include "tavlo/platform/TavloMainQueue.h"

/// Records posted tasks and scheduled timers and runs them only when the test says so,
/// on the test's own thread:
///
///   queue->schedule(120, true, poll);
///   queue->advanceBy(600);          // poll runs five times, at 120, 240, ... 600 s
///
/// Virtual time starts at 0 and moves only with advanceBy(). Each piece of work is due
/// at a virtual time (a posted task: the time it was posted; a timer: its deadline) and
/// due work runs in deadline order, ties in the order it was posted or armed. Work that
/// a running task posts or schedules joins in if it falls due within the span. A
/// repeating timer is re-armed from its previous deadline before its task runs, so it
/// fires once per elapsed interval and its task may cancel it. Intervals are read as the
/// real queue reads them (TavloMainLoopQueue::effectiveInterval).
///
/// With a clock attached, the clock is moved forward to each firing's time before the
/// firing runs, and to the end of the span at the end, by the same amounts as virtual
/// time: the code under test reads the date it would read on a real box. The queue only
/// moves the clock forward by differences, so a test may also move the clock on its own.
///
/// Virtual time is kept in whole nanoseconds, so ten advances of 0.1 s reach a 1 s timer
/// exactly.
///
/// Threads: post, schedule, cancel and the queries are callable from any thread (a real
/// reachability source, say); work runs only inside advanceBy() and runUntilIdle(), on
/// the caller's thread. isCurrent() answers true on that thread while work runs. A call
/// to advanceBy() or runUntilIdle() from inside a running task does nothing.
class TavloManualMainQueue : public TavloMainQueue {
 public:
  explicit TavloManualMainQueue(std::shared_ptr<TavloManualClock> clock = nullptr);
  TavloManualMainQueue(const TavloManualMainQueue&) = delete;
  TavloManualMainQueue& operator=(const TavloManualMainQueue&) = delete;

  void post(std::function<void()> task) override;
  TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) override;
  void cancel(TavloTimerID timer) override;
  bool isCurrent() override;

  /// Moves virtual time forward by `seconds` (negative or NaN: not at all), running
  /// every task and timer that falls due on the way. Answers how many ran.
  size_t advanceBy(double seconds);
  /// Runs the work due now, including work it posts. Answers how many ran.
  size_t runUntilIdle();

  /// Posted tasks not run yet plus timers still armed.
  size_t pendingCount();
  /// Virtual seconds since the queue was made.
  double elapsed();

 private:
  struct Entry {
    TavloTimerID timer = 0;  // 0 for a posted task
    std::shared_ptr<std::function<void()>> task;
    int64_t intervalNanoseconds = 0;
    bool repeats = false;
  };
  // When the work is due (virtual nanoseconds), then the order in which it was armed.
  using Slot = std::tuple<int64_t, uint64_t>;

  // Takes the earliest work due by `until`, moving virtual time and the clock to it.
  // Answers null when nothing is due. REQUIRES: protector held.
  std::shared_ptr<std::function<void()>> takeDueLocked(int64_t until);
  // Moves the clock forward to virtual time `now`. REQUIRES: protector held.
  void showNowOnClockLocked();

  const std::shared_ptr<TavloManualClock> clock;
  std::mutex protector;
  std::map<Slot, Entry> agenda;                // guarded by protector
  std::map<TavloTimerID, Slot> armedTimers;    // guarded by protector; where each timer sits in agenda
  int64_t now = 0;                             // guarded by protector; virtual nanoseconds
  int64_t clockShows = 0;                      // guarded by protector; virtual time the clock was last moved to
  uint64_t lastOrder = 0;                      // guarded by protector
  TavloTimerID lastTimer = 0;                  // guarded by protector
  std::thread::id runningOn;                   // guarded by protector; meaningful while running
  bool running = false;                        // guarded by protector
};
