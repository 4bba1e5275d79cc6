// A main-queue timer that holds its target weakly.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "tavlo/platform/TavloMainQueue.h"

/// Calls an operation on a target object every `interval` seconds, or once, on the main
/// queue, while holding the target only weakly: the main queue keeps the timer alive,
/// never its target, so an object may be released while its timers are still armed. A
/// firing whose target is gone does nothing (and does not stop the timer).
///
/// Each firing passes the timer itself to the operation, so a target with several timers
/// can tell a firing of its current timer from a late one of a timer it has replaced.
///
/// The timer holds the main queue weakly too: a queue that goes away takes its armed
/// timers with it, and nothing keeps a queue alive through its own pending tasks.
///
/// Threads: made, and invalidated, from any thread; firings happen on the main queue.
/// Invalidation is posted to the main queue, where the armed timer is cancelled at the
/// queue's next turn; but from the moment `invalidate` returns, no firing reaches the
/// target any more, not even one already due on the main queue. Callers that compare the
/// timer passed to them with the one they hold need that: a stopped timer stays silent.
class TavloTimer : public std::enable_shared_from_this<TavloTimer> {
 public:
  /// The operation a firing performs on a target of type `Target`.
  template <class Target>
  using Selector = void (Target::*)(const std::shared_ptr<TavloTimer>& timer);

  /// Arms a timer on `mainQueue` that performs `selector` on `target` after `interval`
  /// seconds, and again every `interval` seconds when `repeating`. The caller keeps the
  /// timer by storing it; dropping it does not stop it: only `invalidate` does. A missing
  /// main queue gives a timer that never fires; a null selector, one whose firings do
  /// nothing.
  template <class Target>
  static std::shared_ptr<TavloTimer> TavloTimerWithInterval(const std::shared_ptr<TavloMainQueue>& mainQueue,
                                                            double interval, std::weak_ptr<Target> target,
                                                            Selector<Target> selector, bool repeating) {
    if (selector == nullptr) return make(mainQueue, interval, std::move(target), nullptr, repeating);
    return TavloTimerCalling(
        mainQueue, interval, std::move(target),
        [selector](Target& object, const std::shared_ptr<TavloTimer>& timer) { (object.*selector)(timer); },
        repeating);
  }

  /// The same with any operation, called as `operation(target, timer)`: for a target
  /// whose work is done by an object it owns.
  template <class Target, class Call>
  static std::shared_ptr<TavloTimer> TavloTimerCalling(const std::shared_ptr<TavloMainQueue>& mainQueue,
                                                       double interval, std::weak_ptr<Target> target, Call operation,
                                                       bool repeating) {
    Operation wrapped = [operation = std::move(operation)](const std::shared_ptr<void>& object,
                                                           const std::shared_ptr<TavloTimer>& timer) {
      operation(*static_cast<Target*>(object.get()), timer);
    };
    return make(mainQueue, interval, std::weak_ptr<void>(std::move(target)), std::move(wrapped), repeating);
  }

  TavloTimer(const TavloTimer&) = delete;
  TavloTimer& operator=(const TavloTimer&) = delete;

  /// Stops the timer: no firing reaches the target after this returns, and the main
  /// queue lets go of the timer at its next turn. Any thread; calling it again is harmless.
  void invalidate();

  /// False once invalidated, and after the single firing of a one-shot timer.
  bool isValid() const;
  double timeInterval() const { return interval_; }
  bool repeats() const { return repeating_; }

 private:
  using Operation = std::function<void(const std::shared_ptr<void>& target, const std::shared_ptr<TavloTimer>& timer)>;

  TavloTimer(const std::shared_ptr<TavloMainQueue>& mainQueue, double interval, std::weak_ptr<void> target,
             Operation operation, bool repeating);
  static std::shared_ptr<TavloTimer> make(const std::shared_ptr<TavloMainQueue>& mainQueue, double interval,
                                          std::weak_ptr<void> target, Operation operation, bool repeating);
  // One firing, on the main queue.
  void tick();

  const std::weak_ptr<TavloMainQueue> mainQueue_;
  const double interval_;
  const bool repeating_;
  const std::weak_ptr<void> target_;
  const Operation operation_;
  std::atomic<TavloTimerID> timerID_{0};  // set once, right after arming
  std::atomic<bool> valid_{true};
};
