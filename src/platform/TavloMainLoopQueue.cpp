#include "platform/TavloMainLoopQueue.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/TavloLogger.h"
#include "platform/TavloTimerAgenda.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

}  // namespace

struct TavloMainLoopQueue::State {
  // Nanoseconds on the steady clock since the queue was made, never less than the last
  // reading: work posted later is never due earlier. REQUIRES: protector held.
  int64_t nowLocked() {
    const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now() - origin).count();
    lastNow = std::max(lastNow, static_cast<int64_t>(since));
    return lastNow;
  }

  const SteadyClock::time_point origin = SteadyClock::now();
  std::mutex protector;
  std::condition_variable wakeUp;  // signalled on new work and on stop
  TavloTimerAgenda agenda;         // guarded by protector
  int64_t lastNow = 0;             // guarded by protector
  bool stopping = false;           // guarded by protector
  std::thread worker;              // guarded by protector
  std::thread::id workerId;        // guarded by protector
};

TavloMainLoopQueue::TavloMainLoopQueue() : state(std::make_shared<State>()) {}

TavloMainLoopQueue::~TavloMainLoopQueue() {
  std::thread worker;
  bool onOwnThread = false;
  std::vector<TavloTimerAgenda::Task> dropped;  // destroyed outside the lock
  {
    std::lock_guard<std::mutex> lock(state->protector);
    state->stopping = true;
    worker = std::move(state->worker);
    onOwnThread = worker.joinable() && state->workerId == std::this_thread::get_id();
    dropped = state->agenda.clear();
  }
  state->wakeUp.notify_all();
  if (!worker.joinable()) return;
  if (onOwnThread) {
    // The thread holds the state itself and leaves the loop as soon as this task returns.
    worker.detach();
  } else {
    worker.join();
  }
}

void TavloMainLoopQueue::post(std::function<void()> task) {
  if (!task) return;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    if (state->stopping) return;
    state->agenda.post(state->nowLocked(), std::move(task));
    startIfNeededLocked();
  }
  state->wakeUp.notify_one();
}

TavloTimerID TavloMainLoopQueue::schedule(double interval, bool repeats, std::function<void()> task) {
  if (!task) return 0;
  TavloTimerID id = 0;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    if (state->stopping) return 0;
    id = state->agenda.schedule(state->nowLocked(), interval, repeats, std::move(task));
    startIfNeededLocked();
  }
  state->wakeUp.notify_one();
  return id;
}

void TavloMainLoopQueue::cancel(TavloTimerID timer) {
  TavloTimerAgenda::Task task;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    task = state->agenda.cancel(timer);
  }
  // `task` goes out of scope here, outside the lock: whatever it captured may take
  // locks of its own when destroyed.
}

bool TavloMainLoopQueue::isCurrent() {
  std::lock_guard<std::mutex> lock(state->protector);
  return state->worker.joinable() && state->workerId == std::this_thread::get_id();
}

bool TavloMainLoopQueue::TEST_isRunning() {
  std::lock_guard<std::mutex> lock(state->protector);
  return state->worker.joinable();
}

void TavloMainLoopQueue::startIfNeededLocked() {
  if (state->worker.joinable()) return;
  try {
    state->worker = std::thread(&TavloMainLoopQueue::run, state);
  } catch (const std::system_error& failure) {
    // The work stays queued; the next post or schedule tries again.
    TavloLogger::log(std::string("Could not start the main queue thread (") + failure.what() +
                         "); its work waits for the next attempt",
                     TavloLoggingModeError);
    return;
  }
  state->workerId = state->worker.get_id();
  pthread_setname_np(state->worker.native_handle(), "TavloMainQueue");
}

void TavloMainLoopQueue::run(const std::shared_ptr<State>& shared) {
  // Owns a reference of its own, so a detached thread never touches a freed state.
  std::shared_ptr<State> state = shared;
  std::unique_lock<std::mutex> lock(state->protector);
  while (!state->stopping) {
    TavloTimerAgenda::Task task = state->agenda.takeDue(state->nowLocked());
    if (task) {
      lock.unlock();
      TavloLogger::runReportingFailures("main queue", *task);
      task.reset();  // destroy what a finished one-shot captured before the next one runs
      lock.lock();
      continue;
    }
    const std::optional<int64_t> due = state->agenda.nextDue();
    if (!due) {
      state->wakeUp.wait(lock);
    } else {
      // Far deadlines (a timer of decades) wait a century at most: the sum stays countable.
      constexpr int64_t kLongestWait = 100 * TavloTimerAgenda::kNanosecondsPerSecond * 3600 * 24 * 365;
      state->wakeUp.wait_until(lock, state->origin + std::chrono::nanoseconds(std::min(*due, kLongestWait)));
    }
  }
}
