// The scheduling core every main queue shares: what is due when, and in which order.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "tavlo/platform/TavloMainQueue.h"

/// Holds a main queue's posted tasks and armed timers and decides what runs next, by the
/// rules documented on TavloMainQueue: work runs in the order it fell due, ties in the
/// order it was posted or armed; a repeating timer is re-armed from its previous deadline
/// before its task runs, and one that fell more than an interval behind skips the missed
/// firings. Time is whatever the owner counts in, in whole nanoseconds: the steady clock
/// for the library's thread, virtual time for the test kit's queue. Whole nanoseconds
/// keep ten advances of 0.1 s exactly on a 1 s timer.
///
/// Header-only on purpose: Tavlo::testkit compiles the same rules into its own library,
/// which sees nothing the shared library does not export.
///
/// Not thread-safe: the owning queue guards it with its own mutex. Tasks come out as
/// shared pointers, so the owner runs them with its lock released while a repeating timer
/// stays armed, and destroys what a cancelled task captured outside its lock.
class TavloTimerAgenda {
 public:
  using Task = std::shared_ptr<std::function<void()>>;
  static constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

  /// Whole nanoseconds for `seconds`; non-positive and NaN give 0. REQUIRES: seconds of
  /// at most TavloMainQueue::kLongestInterval (which fits in 63 bits of nanoseconds).
  static int64_t nanosecondsOf(double seconds) {
    if (!(seconds > 0)) return 0;
    return std::llround(std::fmin(seconds, TavloMainQueue::kLongestInterval) * kNanosecondsPerSecond);
  }

  /// `a + b` for non-negative `b`, stopping at the largest time rather than wrapping.
  static int64_t later(int64_t a, int64_t b) {
    return a > std::numeric_limits<int64_t>::max() - b ? std::numeric_limits<int64_t>::max() : a + b;
  }

  /// Adds `task`, due at `now`.
  void post(int64_t now, std::function<void()> task) {
    Entry entry;
    entry.task = std::make_shared<std::function<void()>>(std::move(task));
    agenda.emplace(Slot{now, ++lastOrder}, std::move(entry));
  }

  /// Arms a timer due `interval` seconds (read through effectiveInterval) after `now`.
  TavloTimerID schedule(int64_t now, double interval, bool repeats, std::function<void()> task) {
    Entry entry;
    entry.timer = ++lastTimer;
    entry.task = std::make_shared<std::function<void()>>(std::move(task));
    entry.interval = nanosecondsOf(TavloMainQueue::effectiveInterval(interval));
    entry.repeats = repeats;
    const Slot slot{later(now, entry.interval), ++lastOrder};
    armedTimers[entry.timer] = slot;
    agenda.emplace(slot, std::move(entry));
    return lastTimer;
  }

  /// Disarms the timer and hands back its task, for the owner to destroy outside its
  /// lock; null for an unknown or finished timer.
  Task cancel(TavloTimerID timer) {
    auto armed = armedTimers.find(timer);
    if (armed == armedTimers.end()) return nullptr;
    auto entry = agenda.find(armed->second);
    Task task = std::move(entry->second.task);
    agenda.erase(entry);
    armedTimers.erase(armed);
    return task;
  }

  /// When the earliest work falls due, if there is any.
  std::optional<int64_t> nextDue() const {
    if (agenda.empty()) return std::nullopt;
    return std::get<0>(agenda.begin()->first);
  }

  /// Takes the earliest work if it is due at `now`, re-arming or forgetting its timer
  /// first; null when nothing is due.
  Task takeDue(int64_t now) {
    if (agenda.empty()) return nullptr;
    auto earliest = agenda.begin();
    const int64_t due = std::get<0>(earliest->first);
    if (due > now) return nullptr;
    Entry entry = std::move(earliest->second);
    agenda.erase(earliest);
    if (entry.timer == 0) return entry.task;
    armedTimers.erase(entry.timer);
    if (entry.repeats) {
      int64_t next = later(due, entry.interval);
      if (next <= now) {
        // Fell behind: skip the missed firings and keep the rhythm.
        const int64_t missed = (now - next) / entry.interval + 1;
        next = later(next, missed > std::numeric_limits<int64_t>::max() / entry.interval
                               ? std::numeric_limits<int64_t>::max()
                               : missed * entry.interval);
      }
      const Slot slot{next, ++lastOrder};
      armedTimers[entry.timer] = slot;
      Entry again = entry;
      agenda.emplace(slot, std::move(again));
    }
    return entry.task;
  }

  /// Posted tasks not run yet plus timers still armed.
  size_t pendingCount() const { return agenda.size(); }

  /// Empties the agenda and hands back every task, for the owner to destroy outside its lock.
  std::vector<Task> clear() {
    std::vector<Task> dropped;
    dropped.reserve(agenda.size());
    for (auto& [slot, entry] : agenda) dropped.push_back(std::move(entry.task));
    agenda.clear();
    armedTimers.clear();
    return dropped;
  }

 private:
  struct Entry {
    TavloTimerID timer = 0;  // 0 for a posted task
    Task task;
    int64_t interval = 0;  // nanoseconds
    bool repeats = false;
  };
  // When the work is due, then the order in which it was posted or armed.
  using Slot = std::tuple<int64_t, uint64_t>;

  std::map<Slot, Entry> agenda;
  std::map<TavloTimerID, Slot> armedTimers;  // where each armed timer sits in agenda
  uint64_t lastOrder = 0;
  TavloTimerID lastTimer = 0;
};
