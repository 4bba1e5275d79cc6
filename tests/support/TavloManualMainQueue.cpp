#include "support/TavloManualMainQueue.h"

#include <cmath>
#include <exception>
#include <string>
#include <utility>

#include "platform/TavloLogger.h"
#include "platform/TavloMainLoopQueue.h"

namespace {

constexpr double kNanosecondsPerSecond = 1e9;
// Far beyond any test, and far below where int64 nanoseconds overflow.
constexpr double kLongestSpan = 1e9;

int64_t nanosecondsOf(double seconds) {
  if (!(seconds > 0)) return 0;  // also NaN
  if (seconds > kLongestSpan) seconds = kLongestSpan;
  return std::llround(seconds * kNanosecondsPerSecond);
}


}  // namespace

TavloManualMainQueue::TavloManualMainQueue(std::shared_ptr<TavloManualClock> clock) : clock(std::move(clock)) {}

void TavloManualMainQueue::post(std::function<void()> task) {
  if (!task) return;
  std::lock_guard<std::mutex> lock(protector);
  Entry entry;
  entry.task = std::make_shared<std::function<void()>>(std::move(task));
  agenda.emplace(Slot{now, ++lastOrder}, std::move(entry));
}

TavloTimerID TavloManualMainQueue::schedule(double interval, bool repeats, std::function<void()> task) {
  if (!task) return 0;
  const int64_t every = nanosecondsOf(TavloMainLoopQueue::effectiveInterval(interval));
  std::lock_guard<std::mutex> lock(protector);
  Entry entry;
  entry.timer = ++lastTimer;
  entry.task = std::make_shared<std::function<void()>>(std::move(task));
  entry.intervalNanoseconds = every;
  entry.repeats = repeats;
  const Slot slot{now + every, ++lastOrder};
  armedTimers[entry.timer] = slot;
  agenda.emplace(slot, std::move(entry));
  return lastTimer;
}

void TavloManualMainQueue::cancel(TavloTimerID timer) {
  std::shared_ptr<std::function<void()>> task;
  {
    std::lock_guard<std::mutex> lock(protector);
    auto armed = armedTimers.find(timer);
    if (armed == armedTimers.end()) return;
    auto entry = agenda.find(armed->second);
    task = std::move(entry->second.task);
    agenda.erase(entry);
    armedTimers.erase(armed);
  }
  // What the task captured is destroyed here, outside the lock.
}

bool TavloManualMainQueue::isCurrent() {
  std::lock_guard<std::mutex> lock(protector);
  return running && runningOn == std::this_thread::get_id();
}

std::shared_ptr<std::function<void()>> TavloManualMainQueue::takeDueLocked(int64_t until) {
  if (agenda.empty()) return nullptr;
  auto earliest = agenda.begin();
  const int64_t due = std::get<0>(earliest->first);
  if (due > until) return nullptr;
  Entry entry = std::move(earliest->second);
  agenda.erase(earliest);
  if (entry.timer != 0) {
    armedTimers.erase(entry.timer);
    if (entry.repeats) {
      // Re-armed before it runs, from its own deadline, so the task may cancel it.
      const Slot next{due + entry.intervalNanoseconds, ++lastOrder};
      armedTimers[entry.timer] = next;
      Entry again = entry;
      agenda.emplace(next, std::move(again));
    }
  }
  if (due > now) now = due;
  showNowOnClockLocked();
  return entry.task;
}

void TavloManualMainQueue::showNowOnClockLocked() {
  if (clock && now > clockShows) clock->advance(static_cast<double>(now - clockShows) / kNanosecondsPerSecond);
  clockShows = now;
}

size_t TavloManualMainQueue::advanceBy(double seconds) {
  int64_t until = 0;
  {
    std::lock_guard<std::mutex> lock(protector);
    if (running) return 0;
    running = true;
    runningOn = std::this_thread::get_id();
    until = now + nanosecondsOf(seconds);
  }
  size_t ran = 0;
  for (;;) {
    std::shared_ptr<std::function<void()>> task;
    {
      std::lock_guard<std::mutex> lock(protector);
      task = takeDueLocked(until);
    }
    if (!task) break;
    TavloLogger::runReportingFailures("main queue", *task);
    ++ran;
  }
  std::lock_guard<std::mutex> lock(protector);
  now = until;
  showNowOnClockLocked();
  running = false;
  return ran;
}

size_t TavloManualMainQueue::runUntilIdle() { return advanceBy(0); }

size_t TavloManualMainQueue::pendingCount() {
  std::lock_guard<std::mutex> lock(protector);
  return agenda.size();
}

double TavloManualMainQueue::elapsed() {
  std::lock_guard<std::mutex> lock(protector);
  return static_cast<double>(now) / kNanosecondsPerSecond;
}
