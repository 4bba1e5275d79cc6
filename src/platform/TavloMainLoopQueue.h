// The Linux main queue: a library thread that plays the application's main run loop.
#pragma once

#include <memory>

#include "tavlo/platform/TavloMainQueue.h"

/// Runs posted tasks and timers one at a time, in order, on a thread of the library's
/// own. A set-top application rarely has a run loop we could borrow, so reachability
/// notifications and streaming timers get this one instead.
///
/// The thread starts on the first post() or schedule(): building the default platform,
/// or a queue nobody uses, starts nothing. It sleeps on a condition variable until the
/// next task or the earliest timer deadline; deadlines are on the steady clock, so a
/// user resetting the box's wall clock neither fires nor holds back a timer.
///
/// Order and timers follow the rules on TavloMainQueue, kept by the scheduling core it
/// shares with the test kit's virtual-time queue (TavloTimerAgenda). On a real box the
/// queue can fall behind (a long task, a suspended box): a repeating timer then fires
/// once and keeps its original rhythm, since a burst of catch-up firings helps nobody.
///
/// Failures: a task that throws is logged through TavloLogger as an error and dropped;
/// the thread goes on with the next one.
///
/// Shutdown: the destructor stops the thread and joins it; tasks and timers not run yet
/// are dropped. If the last owner lets go from a task on the queue itself, the thread
/// cannot join itself: it is detached instead and ends as soon as that task returns.
///
/// Every member is callable from any thread, including from tasks on the queue.
class TavloMainLoopQueue : public TavloMainQueue {
 public:
  TavloMainLoopQueue();
  ~TavloMainLoopQueue() override;
  TavloMainLoopQueue(const TavloMainLoopQueue&) = delete;
  TavloMainLoopQueue& operator=(const TavloMainLoopQueue&) = delete;

  void post(std::function<void()> task) override;
  TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) override;
  void cancel(TavloTimerID timer) override;
  bool isCurrent() override;

  /// Whether the thread has been started (for tests of the lazy start).
  bool TEST_isRunning();

 private:
  struct State;
  static void run(const std::shared_ptr<State>& state);
  // Starts the thread if it is not running. REQUIRES: state->protector held.
  void startIfNeededLocked();

  // Shared with the thread, so a detached thread still owns everything it touches.
  std::shared_ptr<State> state;
};
