#include "streaming/TavloTimer.h"

TavloTimer::TavloTimer(const std::shared_ptr<TavloMainQueue>& mainQueue, double interval, std::weak_ptr<void> target,
                       Operation operation, bool repeating)
    : mainQueue_(mainQueue),
      interval_(interval),
      repeating_(repeating),
      target_(std::move(target)),
      operation_(std::move(operation)) {}

std::shared_ptr<TavloTimer> TavloTimer::make(const std::shared_ptr<TavloMainQueue>& mainQueue, double interval,
                                             std::weak_ptr<void> target, Operation operation, bool repeating) {
  std::shared_ptr<TavloTimer> timer(
      new TavloTimer(mainQueue, interval, std::move(target), std::move(operation), repeating));
  if (!mainQueue) {
    timer->valid_ = false;
    return timer;
  }
  // The armed task owns the timer: that is what keeps a timer nobody stores running,
  // and what lets its target go while it is armed.
  timer->timerID_ = mainQueue->schedule(interval, repeating, [timer] { timer->tick(); });
  return timer;
}

void TavloTimer::tick() {
  if (!valid_.load()) return;
  if (!repeating_) valid_ = false;
  const std::shared_ptr<void> target = target_.lock();
  if (!target || !operation_) return;
  operation_(target, shared_from_this());
}

void TavloTimer::invalidate() {
  valid_ = false;
  const std::shared_ptr<TavloMainQueue> queue = mainQueue_.lock();
  if (!queue) return;
  // Cancelling on the main queue itself keeps the queue's bookkeeping on its own turn,
  // as a run-loop timer requires; the weak hold keeps the task from owning the queue.
  queue->post([self = shared_from_this(), weakQueue = mainQueue_] {
    if (const auto mainQueue = weakQueue.lock()) mainQueue->cancel(self->timerID_.load());
  });
}

bool TavloTimer::isValid() const { return valid_.load(); }
