#include "tavlo/testkit/TavloManualMainQueue.h"

#include <cstdio>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "platform/TavloTimerAgenda.h"

struct TavloManualMainQueue::State {
  // Moves the clock forward to virtual time `now`. REQUIRES: protector held.
  void showNowOnClockLocked() {
    if (clock && now > clockShows) {
      clock->advance(static_cast<double>(now - clockShows) / TavloTimerAgenda::kNanosecondsPerSecond);
    }
    clockShows = now;
  }

  void reportFailure(const std::string& what) {
    const std::string line = "(ERROR) : A main queue task threw " + what + "; it was dropped and the queue goes on";
    if (failureSink) {
      failureSink->writeLine(line, TavloLogLevel::Error);
    } else {
      std::fprintf(stderr, "%s\n", line.c_str());
    }
  }

  void runReportingFailures(const std::function<void()>& task) {
    try {
      task();
    } catch (const std::exception& failure) {
      reportFailure(std::string("(") + failure.what() + ")");
    } catch (...) {
      reportFailure("an unknown exception");
    }
  }

  std::shared_ptr<TavloManualClock> clock;
  std::shared_ptr<TavloLogSink> failureSink;
  std::mutex protector;
  TavloTimerAgenda agenda;                // guarded by protector
  int64_t now = 0;                        // guarded by protector; virtual nanoseconds
  int64_t clockShows = 0;                 // guarded by protector; virtual time the clock was last moved to
  std::thread::id runningOn;              // guarded by protector; meaningful while running
  bool running = false;                   // guarded by protector
  std::function<void()> workAdded;        // guarded by protector
};

TavloManualMainQueue::TavloManualMainQueue(std::shared_ptr<TavloManualClock> clock,
                                           std::shared_ptr<TavloLogSink> failureSink)
    : state(std::make_unique<State>()) {
  state->clock = std::move(clock);
  state->failureSink = std::move(failureSink);
}

TavloManualMainQueue::~TavloManualMainQueue() = default;

void TavloManualMainQueue::post(std::function<void()> task) {
  if (!task) return;
  std::function<void()> notify;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    state->agenda.post(state->now, std::move(task));
    notify = state->workAdded;
  }
  if (notify) notify();
}

TavloTimerID TavloManualMainQueue::schedule(double interval, bool repeats, std::function<void()> task) {
  if (!task) return 0;
  std::function<void()> notify;
  TavloTimerID id = 0;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    id = state->agenda.schedule(state->now, interval, repeats, std::move(task));
    notify = state->workAdded;
  }
  if (notify) notify();
  return id;
}

void TavloManualMainQueue::cancel(TavloTimerID timer) {
  TavloTimerAgenda::Task task;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    task = state->agenda.cancel(timer);
  }
  // What the task captured is destroyed here, outside the lock.
}

bool TavloManualMainQueue::isCurrent() {
  std::lock_guard<std::mutex> lock(state->protector);
  return state->running && state->runningOn == std::this_thread::get_id();
}

size_t TavloManualMainQueue::advanceBy(double seconds) {
  int64_t until = 0;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    if (state->running) return 0;
    state->running = true;
    state->runningOn = std::this_thread::get_id();
    until = TavloTimerAgenda::later(state->now, TavloTimerAgenda::nanosecondsOf(seconds));
  }
  size_t ran = 0;
  for (;;) {
    TavloTimerAgenda::Task task;
    {
      std::lock_guard<std::mutex> lock(state->protector);
      // Time moves to each piece of work's own moment before it runs, so a repeating
      // timer is re-armed from there and never counts as behind.
      const std::optional<int64_t> due = state->agenda.nextDue();
      if (!due || *due > until) break;
      if (*due > state->now) state->now = *due;
      task = state->agenda.takeDue(state->now);
      state->showNowOnClockLocked();
    }
    state->runReportingFailures(*task);
    ++ran;
  }
  std::lock_guard<std::mutex> lock(state->protector);
  state->now = until;
  state->showNowOnClockLocked();
  state->running = false;
  return ran;
}

size_t TavloManualMainQueue::runUntilIdle() { return advanceBy(0); }

size_t TavloManualMainQueue::pendingCount() {
  std::lock_guard<std::mutex> lock(state->protector);
  return state->agenda.pendingCount();
}

double TavloManualMainQueue::elapsed() {
  std::lock_guard<std::mutex> lock(state->protector);
  return static_cast<double>(state->now) / TavloTimerAgenda::kNanosecondsPerSecond;
}

std::optional<double> TavloManualMainQueue::nextDueIn() {
  std::lock_guard<std::mutex> lock(state->protector);
  const std::optional<int64_t> due = state->agenda.nextDue();
  if (!due) return std::nullopt;
  return *due <= state->now ? 0.0 : static_cast<double>(*due - state->now) / TavloTimerAgenda::kNanosecondsPerSecond;
}

void TavloManualMainQueue::setWorkAddedHandler(std::function<void()> handler) {
  std::lock_guard<std::mutex> lock(state->protector);
  state->workAdded = std::move(handler);
}
