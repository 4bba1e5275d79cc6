// A thread that runs tasks one at a time, in the order they were submitted.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

/// A named serial queue: one thread, a deque of tasks. `async` never waits for the task.
/// `shutdown` runs the tasks already submitted, refuses new ones, and joins the thread;
/// the destructor calls it. A task may submit further tasks to its own queue, but must not
/// call `shutdown` on it.
class TavloSerialQueue {
 public:
  explicit TavloSerialQueue(std::string label);
  ~TavloSerialQueue();
  TavloSerialQueue(const TavloSerialQueue&) = delete;
  TavloSerialQueue& operator=(const TavloSerialQueue&) = delete;

  /// Submits `task`; false (and the task dropped) once the queue is shut down.
  bool async(std::function<void()> task);
  void shutdown();
  /// Whether the caller runs on this queue's thread.
  bool isCurrent() const;
  const std::string& label() const { return label_; }

 private:
  void run();

  const std::string label_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;  // guarded by mutex_
  bool stopping_ = false;                    // guarded by mutex_
  std::thread thread_;
};
