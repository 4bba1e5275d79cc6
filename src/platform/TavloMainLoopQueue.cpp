#include "platform/TavloMainLoopQueue.h"

#include <pthread.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <queue>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/TavloLogger.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr double kShortestInterval = 0.0001;
constexpr double kLongestInterval = 1e9;


}  // namespace

struct TavloMainLoopQueue::State {
  struct Timer {
    SteadyClock::time_point deadline;
    SteadyClock::duration interval;
    bool repeats = false;
    // Shared so a firing can run without holding the lock while the timer stays armed.
    std::shared_ptr<std::function<void()>> task;
    // The arming that is current; older heap entries for this timer are stale.
    uint64_t arming = 0;
  };

  // One entry of the deadline heap. Cancelling or re-arming a timer leaves its old entry
  // in the heap; it is recognised as stale and skipped when it reaches the top.
  struct Arming {
    SteadyClock::time_point deadline;
    uint64_t order;  // ties on the deadline fire in the order they were armed
    TavloTimerID timer;
    bool operator>(const Arming& other) const {
      return deadline != other.deadline ? deadline > other.deadline : order > other.order;
    }
  };

  std::mutex protector;
  std::condition_variable wakeUp;                       // signalled on new work and on stop
  std::deque<std::function<void()>> tasks;              // guarded by protector
  std::unordered_map<TavloTimerID, Timer> timers;       // guarded by protector
  std::priority_queue<Arming, std::vector<Arming>, std::greater<>> deadlines;  // guarded by protector
  TavloTimerID lastTimer = 0;                           // guarded by protector
  uint64_t lastArming = 0;                              // guarded by protector
  bool stopping = false;                                // guarded by protector
  std::thread worker;                                   // guarded by protector
  std::thread::id workerId;                             // guarded by protector

  // REQUIRES: protector held.
  void arm(TavloTimerID id, Timer& timer) {
    timer.arming = ++lastArming;
    deadlines.push(Arming{timer.deadline, timer.arming, id});
  }

  // Drops stale entries from the top of the heap. REQUIRES: protector held.
  void dropStaleDeadlines() {
    while (!deadlines.empty()) {
      const Arming& top = deadlines.top();
      auto found = timers.find(top.timer);
      if (found != timers.end() && found->second.arming == top.order) return;
      deadlines.pop();
    }
  }

  // Takes the task of the earliest timer due at `now`, re-arming or forgetting the
  // timer first, so that the task may cancel its own timer. REQUIRES: protector held.
  std::shared_ptr<std::function<void()>> takeDueTimer(SteadyClock::time_point now) {
    dropStaleDeadlines();
    if (deadlines.empty() || deadlines.top().deadline > now) return nullptr;
    const TavloTimerID id = deadlines.top().timer;
    deadlines.pop();
    Timer& timer = timers.at(id);
    auto task = timer.task;
    if (!timer.repeats) {
      timers.erase(id);
      return task;
    }
    timer.deadline += timer.interval;
    if (timer.deadline <= now) {
      // Fell behind: skip the missed firings and keep the rhythm.
      const auto missed = (now - timer.deadline) / timer.interval + 1;
      timer.deadline += missed * timer.interval;
    }
    arm(id, timer);
    return task;
  }
};

TavloMainLoopQueue::TavloMainLoopQueue() : state(std::make_shared<State>()) {}

TavloMainLoopQueue::~TavloMainLoopQueue() {
  std::thread worker;
  bool onOwnThread = false;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    state->stopping = true;
    worker = std::move(state->worker);
    onOwnThread = worker.joinable() && state->workerId == std::this_thread::get_id();
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

double TavloMainLoopQueue::effectiveInterval(double interval) {
  if (!(interval >= kShortestInterval)) return kShortestInterval;  // also NaN
  if (interval > kLongestInterval) return kLongestInterval;
  return interval;
}

void TavloMainLoopQueue::post(std::function<void()> task) {
  if (!task) return;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    if (state->stopping) return;
    state->tasks.push_back(std::move(task));
    startIfNeededLocked();
  }
  state->wakeUp.notify_one();
}

TavloTimerID TavloMainLoopQueue::schedule(double interval, bool repeats, std::function<void()> task) {
  if (!task) return 0;
  const auto every = std::chrono::duration_cast<SteadyClock::duration>(
      std::chrono::duration<double>(effectiveInterval(interval)));
  TavloTimerID id = 0;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    if (state->stopping) return 0;
    id = ++state->lastTimer;
    State::Timer& timer = state->timers[id];
    timer.deadline = SteadyClock::now() + every;
    timer.interval = every;
    timer.repeats = repeats;
    timer.task = std::make_shared<std::function<void()>>(std::move(task));
    state->arm(id, timer);
    startIfNeededLocked();
  }
  state->wakeUp.notify_one();
  return id;
}

void TavloMainLoopQueue::cancel(TavloTimerID timer) {
  std::shared_ptr<std::function<void()>> task;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    auto found = state->timers.find(timer);
    if (found == state->timers.end()) return;
    task = std::move(found->second.task);
    state->timers.erase(found);
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
    // The tasks waiting now, then the timers due now: a task that keeps posting more
    // tasks delays the timers by one round at most and never starves them.
    std::deque<std::function<void()>> batch;
    batch.swap(state->tasks);
    lock.unlock();
    for (auto& task : batch) {
      lock.lock();
      const bool stopping = state->stopping;
      lock.unlock();
      if (stopping) break;
      TavloLogger::runReportingFailures("main queue", task);
      task = nullptr;  // destroy what it captured before the next one runs
    }
    batch.clear();
    lock.lock();

    while (!state->stopping) {
      auto timerTask = state->takeDueTimer(SteadyClock::now());
      if (!timerTask) break;
      lock.unlock();
      TavloLogger::runReportingFailures("main queue", *timerTask);
      timerTask.reset();
      lock.lock();
    }

    if (state->stopping || !state->tasks.empty()) continue;
    state->dropStaleDeadlines();
    if (state->deadlines.empty()) {
      state->wakeUp.wait(lock);
    } else {
      // A copy: wait_until reads its deadline again after waking, and by then a push
      // may have moved the heap's storage.
      const SteadyClock::time_point deadline = state->deadlines.top().deadline;
      state->wakeUp.wait_until(lock, deadline);
    }
  }
}
