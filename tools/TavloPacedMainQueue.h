// A main queue for the demo whose timers run on an accelerated time line.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "TavloTimeScale.h"
#include "tavlo/platform/TavloMainQueue.h"
#include "tavlo/testkit/TavloManualMainQueue.h"

/// The test kit's virtual-time queue, run by a pump thread that keeps its virtual time
/// up with a TavloTimeScale: a timer of `interval` seconds fires after interval / speed
/// real seconds, so the streaming tagger's one-second ticks come twenty times a second
/// at speed 20 and its polling hits at 10, 20, 40 and 60 seconds show within seconds.
///
/// Order and intervals are those of every main queue (see TavloMainQueue). Time on the
/// queue is virtual: each timer fires at its own deadline, and a timer scheduled by a
/// task on the queue counts from that task's moment. The order of firings therefore
/// depends only on the intervals, never on how busy the machine is: when the pump falls
/// behind, it catches up by running every missed firing, in order, as fast as it can. A
/// repeating timer is never skipped, since the tagger counts its ticks. Work posted from
/// another thread counts from where the queue last stood, at most one pump wait behind.
///
/// The pump sleeps until the earliest deadline comes on the time line or until work is
/// added. A task that throws is reported on standard error and dropped. `stop` (or the
/// destructor) ends the pump; work not run yet never runs. If the last owner lets go from
/// a task on the queue, the pump cannot join itself: it is detached and ends when that
/// task returns (it owns what it touches). Every member may be called from any thread,
/// including from a task on the queue.
class TavloPacedMainQueue : public TavloMainQueue {
 public:
  explicit TavloPacedMainQueue(TavloTimeScale scale);
  ~TavloPacedMainQueue() override;
  TavloPacedMainQueue(const TavloPacedMainQueue&) = delete;
  TavloPacedMainQueue& operator=(const TavloPacedMainQueue&) = delete;

  void post(std::function<void()> task) override;
  TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) override;
  void cancel(TavloTimerID timer) override;
  bool isCurrent() override;

  /// Where the queue stands on the time line, in demo seconds since the scale's start:
  /// on the queue, the moment of the work running.
  double now();

  /// Ends the pump and waits for it (unless called on it). Idempotent.
  void stop();

 private:
  struct Pump;
  static void run(const std::shared_ptr<Pump>& pump);

  // Shared with the pump thread, so a detached pump still owns everything it touches.
  const std::shared_ptr<Pump> pump_;
  std::thread worker_;        // set once by the constructor, joined or detached by stop()
  std::thread::id workerId_;  // set once by the constructor
};
