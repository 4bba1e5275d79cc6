#include "TavloPacedMainQueue.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>

struct TavloPacedMainQueue::Pump {
  explicit Pump(TavloTimeScale scale) : scale(scale) {}

  const TavloTimeScale scale;
  // Without a failure sink the kit's queue reports a throwing task on standard error.
  const std::shared_ptr<TavloManualMainQueue> queue = std::make_shared<TavloManualMainQueue>();
  std::mutex protector;
  std::condition_variable wakeUp;  // signalled on new work and on stop
  bool workAdded = false;          // guarded by protector
  bool stopping = false;           // guarded by protector
};

TavloPacedMainQueue::TavloPacedMainQueue(TavloTimeScale scale) : pump_(std::make_shared<Pump>(scale)) {
  std::weak_ptr<Pump> weakPump = pump_;
  pump_->queue->setWorkAddedHandler([weakPump] {
    const auto pump = weakPump.lock();
    if (!pump) return;
    {
      std::lock_guard lock(pump->protector);
      pump->workAdded = true;
    }
    pump->wakeUp.notify_all();
  });
  worker_ = std::thread([pump = pump_] { run(pump); });
  workerId_ = worker_.get_id();
}

TavloPacedMainQueue::~TavloPacedMainQueue() { stop(); }

void TavloPacedMainQueue::stop() {
  {
    std::lock_guard lock(pump_->protector);
    if (pump_->stopping) return;
    pump_->stopping = true;
  }
  pump_->wakeUp.notify_all();
  if (isCurrent()) {
    worker_.detach();
  } else {
    worker_.join();
  }
}

void TavloPacedMainQueue::post(std::function<void()> task) { pump_->queue->post(std::move(task)); }

TavloTimerID TavloPacedMainQueue::schedule(double interval, bool repeats, std::function<void()> task) {
  return pump_->queue->schedule(interval, repeats, std::move(task));
}

void TavloPacedMainQueue::cancel(TavloTimerID timer) { pump_->queue->cancel(timer); }

bool TavloPacedMainQueue::isCurrent() { return std::this_thread::get_id() == workerId_; }

double TavloPacedMainQueue::now() { return pump_->queue->elapsed(); }

void TavloPacedMainQueue::run(const std::shared_ptr<Pump>& pump) {
  std::unique_lock lock(pump->protector);
  while (!pump->stopping) {
    pump->workAdded = false;
    lock.unlock();
    TavloManualMainQueue& queue = *pump->queue;
    const double behind = pump->scale.elapsed() - queue.elapsed();
    if (behind > 0) {
      queue.advanceBy(behind);
    } else {
      queue.runUntilIdle();
    }
    const std::optional<double> dueIn = queue.nextDueIn();
    const double dueAt = queue.elapsed() + dueIn.value_or(0);
    lock.lock();
    const auto woken = [&] { return pump->stopping || pump->workAdded; };
    if (!dueIn) {
      pump->wakeUp.wait(lock, woken);
    } else {
      pump->wakeUp.wait_until(lock, pump->scale.realPointAt(dueAt), woken);
    }
  }
}
