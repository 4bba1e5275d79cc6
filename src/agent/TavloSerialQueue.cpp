#include "agent/TavloSerialQueue.h"

#include <pthread.h>

#include "platform/TavloLogger.h"

TavloSerialQueue::TavloSerialQueue(std::string label) : label_(std::move(label)) {
  thread_ = std::thread([this] { run(); });
}

TavloSerialQueue::~TavloSerialQueue() { shutdown(); }

bool TavloSerialQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return false;
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
  return true;
}

void TavloSerialQueue::shutdown() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

bool TavloSerialQueue::isCurrent() const { return thread_.get_id() == std::this_thread::get_id(); }

void TavloSerialQueue::run() {
  // Thread names are limited to 15 characters.
  pthread_setname_np(pthread_self(), label_.substr(0, 15).c_str());
#ifdef SCHED_BATCH
  // Background work: woken by a hand-over, this thread must not preempt the caller (the
  // application's own thread, often its UI's) in the middle of its call; it runs as soon
  // as a CPU is free instead. Its share of the CPU is unchanged. Needs no privilege.
  const sched_param unchanged{};
  pthread_setschedparam(pthread_self(), SCHED_BATCH, &unchanged);
#endif
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
      if (tasks_.empty()) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    TavloLogger::runReportingFailures(label_, task);
  }
}
