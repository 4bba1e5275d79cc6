// A main queue for the demo whose timers run on an accelerated time line.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "TavloTimeScale.h"
#include "tavlo/platform/TavloMainQueue.h"

/// Implements the main-queue seam on a TavloTimeScale: a timer of `interval` seconds fires
/// after interval / speed real seconds, so the streaming tagger's one-second ticks come
/// twenty times a second at speed 20 and its polling hits at 10, 20, 40 and 60 seconds
/// show within seconds.
///
/// Time on the queue is logical. Each timer fires at its own deadline on the time line,
/// and a timer scheduled by a task on the queue counts its interval from the deadline of
/// the timer being run (or, for a posted task, from where the queue stood when it
/// started). The order of firings therefore depends only on the intervals, never on how
/// busy the machine is: when the queue falls behind it catches up by running every
/// missed firing, in order, as fast as it can. A repeating timer is never skipped, since
/// the tagger counts its ticks.
///
/// One thread of its own, started by the constructor: posted tasks run first, in order,
/// then due timers by deadline (ties in the order they were armed). A task that throws is
/// reported on standard error and dropped. `stop` (or the destructor) ends the thread;
/// work not run yet is dropped. If the last owner lets go from a task on the queue, the
/// thread cannot join itself: it is detached and ends when that task returns (it owns
/// the state it touches). Every member may be called from any thread, including from a
/// task on the queue.
class TavloPacedMainQueue : public TavloMainQueue {
 public:
  explicit TavloPacedMainQueue(TavloTimeScale scale);
  ~TavloPacedMainQueue() override;
  TavloPacedMainQueue(const TavloPacedMainQueue&) = delete;
  TavloPacedMainQueue& operator=(const TavloPacedMainQueue&) = delete;

  void post(std::function<void()> task) override;
  TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) override;
  void cancel(TavloTimerID timer) override;
  bool isCurrent() override;

  /// Where the queue stands on the time line, in demo seconds since the scale's start:
  /// on the queue, the deadline of the timer running (or where a posted task started);
  /// elsewhere, the time line's present.
  double now();

  /// Ends the thread and waits for it (unless called on it). Idempotent.
  void stop();

 private:
  struct State;
  static void run(const std::shared_ptr<State>& state);

  // Shared with the thread, so a detached thread still owns everything it touches.
  const std::shared_ptr<State> state_;
  std::thread worker_;       // set once by the constructor, joined or detached by stop()
  std::thread::id workerId_;  // set once by the constructor
};
