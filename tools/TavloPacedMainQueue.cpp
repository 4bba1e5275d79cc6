#include "TavloPacedMainQueue.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <utility>

namespace {

// A non-positive or NaN interval becomes a tenth of a millisecond (a repeating timer
// never spins), and a huge one is capped so its deadline stays countable.
double effectiveInterval(double interval) {
  constexpr double shortest = 0.0001;
  constexpr double longest = 1e8;
  if (!(interval > shortest)) return shortest;
  return std::min(interval, longest);
}

void runReportingFailures(const std::function<void()>& task) {
  try {
    task();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tavlo-demo: a main queue task threw (%s); it was dropped\n", failure.what());
  } catch (...) {
    std::fprintf(stderr, "tavlo-demo: a main queue task threw; it was dropped\n");
  }
}

}  // namespace

struct TavloPacedMainQueue::State {
  struct Timer {
    double deadline = 0;
    uint64_t order = 0;  // ties on the deadline fire in the order they were armed
    double interval = 0;
    bool repeats = false;
    // Shared so a firing runs without the lock while the timer stays armed.
    std::shared_ptr<std::function<void()>> task;
  };

  explicit State(TavloTimeScale scale) : scale(scale) {}

  // The timer due first, or timers.end(). REQUIRES: protector held.
  std::map<TavloTimerID, Timer>::iterator earliestTimer() {
    return std::min_element(timers.begin(), timers.end(), [](const auto& a, const auto& b) {
      return a.second.deadline != b.second.deadline ? a.second.deadline < b.second.deadline
                                                    : a.second.order < b.second.order;
    });
  }

  // Where the queue stands: its own place for its thread, the present for any other.
  // REQUIRES: protector held.
  double positionFor(bool onQueue, double present) const { return onQueue ? position : std::max(position, present); }

  const TavloTimeScale scale;
  std::mutex protector;
  std::condition_variable wakeUp;              // signalled on new work and on stop
  std::deque<std::function<void()>> tasks;     // guarded by protector
  std::map<TavloTimerID, Timer> timers;        // guarded by protector
  TavloTimerID lastTimer = 0;                  // guarded by protector
  uint64_t lastOrder = 0;                      // guarded by protector
  double position = 0;                         // guarded by protector; the queue's place on the time line
  bool stopping = false;                       // guarded by protector
};

TavloPacedMainQueue::TavloPacedMainQueue(TavloTimeScale scale) : state_(std::make_shared<State>(scale)) {
  worker_ = std::thread([state = state_] { run(state); });
  workerId_ = worker_.get_id();
}

TavloPacedMainQueue::~TavloPacedMainQueue() { stop(); }

void TavloPacedMainQueue::stop() {
  // Dropped outside the lock: what a task holds may call the queue as it is destroyed.
  std::deque<std::function<void()>> droppedTasks;
  std::map<TavloTimerID, State::Timer> droppedTimers;
  {
    std::lock_guard lock(state_->protector);
    if (state_->stopping) return;
    state_->stopping = true;
    droppedTasks.swap(state_->tasks);
    droppedTimers.swap(state_->timers);
  }
  state_->wakeUp.notify_all();
  if (isCurrent()) {
    worker_.detach();
  } else {
    worker_.join();
  }
}

void TavloPacedMainQueue::post(std::function<void()> task) {
  {
    std::lock_guard lock(state_->protector);
    if (state_->stopping) return;
    state_->tasks.push_back(std::move(task));
  }
  state_->wakeUp.notify_all();
}

TavloTimerID TavloPacedMainQueue::schedule(double interval, bool repeats, std::function<void()> task) {
  const bool onQueue = isCurrent();
  const double present = state_->scale.elapsed();
  TavloTimerID id = 0;
  {
    std::lock_guard lock(state_->protector);
    id = ++state_->lastTimer;
    if (state_->stopping) return id;
    State::Timer timer;
    timer.interval = effectiveInterval(interval);
    timer.deadline = state_->positionFor(onQueue, present) + timer.interval;
    timer.order = ++state_->lastOrder;
    timer.repeats = repeats;
    timer.task = std::make_shared<std::function<void()>>(std::move(task));
    state_->timers.emplace(id, std::move(timer));
  }
  state_->wakeUp.notify_all();
  return id;
}

void TavloPacedMainQueue::cancel(TavloTimerID timer) {
  std::shared_ptr<std::function<void()>> dropped;  // released outside the lock
  std::lock_guard lock(state_->protector);
  const auto found = state_->timers.find(timer);
  if (found == state_->timers.end()) return;
  dropped = std::move(found->second.task);
  state_->timers.erase(found);
}

bool TavloPacedMainQueue::isCurrent() { return std::this_thread::get_id() == workerId_; }

double TavloPacedMainQueue::now() {
  const bool onQueue = isCurrent();
  const double present = state_->scale.elapsed();
  std::lock_guard lock(state_->protector);
  return state_->positionFor(onQueue, present);
}

void TavloPacedMainQueue::run(const std::shared_ptr<State>& state) {
  std::unique_lock lock(state->protector);
  while (!state->stopping) {
    if (!state->tasks.empty()) {
      std::function<void()> task = std::move(state->tasks.front());
      state->tasks.pop_front();
      lock.unlock();
      runReportingFailures(task);
      task = nullptr;  // what it holds is released before the lock is taken again
      lock.lock();
      continue;
    }
    const double present = state->scale.elapsed();
    const auto due = state->earliestTimer();
    if (due != state->timers.end() && due->second.deadline <= present) {
      State::Timer& timer = due->second;
      state->position = std::max(state->position, timer.deadline);
      std::shared_ptr<std::function<void()>> task = timer.task;
      if (timer.repeats) {
        timer.deadline += timer.interval;
        timer.order = ++state->lastOrder;
      } else {
        state->timers.erase(due);
      }
      lock.unlock();
      runReportingFailures(*task);
      task.reset();
      lock.lock();
      continue;
    }
    state->position = std::max(state->position, present);
    if (due == state->timers.end()) {
      state->wakeUp.wait(lock);
    } else {
      state->wakeUp.wait_until(lock, state->scale.realPointAt(due->second.deadline));
    }
  }
}
