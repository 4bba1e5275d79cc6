// The weak-target timer, in virtual time on the manual main queue.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "streaming/TavloTimer.h"
#include "tavlo/testkit/TavloManualMainQueue.h"

namespace {

// Records when each firing reached it and through which timer; may stop another timer.
struct Recorder {
  std::shared_ptr<TavloManualMainQueue> queue;
  std::vector<double> times;
  std::vector<std::shared_ptr<TavloTimer>> timers;
  std::shared_ptr<TavloTimer> victim;
  void fire(const std::shared_ptr<TavloTimer>& timer) {
    times.push_back(queue->elapsed());
    timers.push_back(timer);
    if (victim) victim->invalidate();
  }
};

class TavloTimerTest : public ::testing::Test {
 protected:
  std::shared_ptr<TavloTimer> arm(double interval, bool repeating, const std::shared_ptr<Recorder>& target) {
    return TavloTimer::TavloTimerWithInterval(queue, interval, std::weak_ptr<Recorder>(target), &Recorder::fire,
                                              repeating);
  }
  std::shared_ptr<Recorder> recorder() { return std::make_shared<Recorder>(Recorder{queue, {}, {}, nullptr}); }

  std::shared_ptr<TavloManualMainQueue> queue = std::make_shared<TavloManualMainQueue>();
};

TEST_F(TavloTimerTest, FiresAtItsIntervalOnceOrRepeatedlyPassingItself) {
  struct Case {
    double interval;
    bool repeating;
    double span;
    std::vector<double> expected;
  };
  for (const Case& c : {Case{1.0, false, 10, {1.0}}, Case{1.0, true, 3.5, {1.0, 2.0, 3.0}},
                        Case{2.5, true, 10, {2.5, 5.0, 7.5, 10.0}}, Case{0.5, false, 0.4, {}}}) {
    const auto target = recorder();
    const double start = queue->elapsed();
    const auto timer = arm(c.interval, c.repeating, target);
    queue->advanceBy(c.span);
    for (double& t : target->times) t -= start;
    EXPECT_EQ(c.expected, target->times) << "interval " << c.interval << " repeating " << c.repeating;
    for (const auto& passed : target->timers) EXPECT_EQ(timer, passed);
    EXPECT_EQ(c.repeating || c.expected.empty(), timer->isValid()) << "interval " << c.interval;
    timer->invalidate();
    queue->runUntilIdle();
  }
}

TEST_F(TavloTimerTest, NeitherTheTargetNorTheQueueIsKeptAliveByTheTimer) {
  auto target = recorder();
  std::weak_ptr<Recorder> watchedTarget = target;
  const auto timer = arm(1.0, true, target);
  queue->advanceBy(1);
  target.reset();
  EXPECT_TRUE(watchedTarget.expired());
  EXPECT_EQ(2u, queue->advanceBy(2)) << "firings go on, reaching nobody";
  EXPECT_TRUE(timer->isValid());

  std::weak_ptr<TavloManualMainQueue> watchedQueue = queue;
  queue.reset();
  EXPECT_TRUE(watchedQueue.expired());
  timer->invalidate();  // nothing left to cancel: harmless
  EXPECT_FALSE(TavloTimer::TavloTimerWithInterval(queue, 1.0, watchedTarget, &Recorder::fire, true)->isValid())
      << "a timer without a queue never fires";
}

TEST_F(TavloTimerTest, InvalidateSilencesAtOnceAndTheQueueLetsGoAtItsNextTurn) {
  const auto target = recorder();
  auto timer = arm(1.0, true, target);
  std::weak_ptr<TavloTimer> watched = timer;
  queue->advanceBy(1);
  timer->invalidate();
  timer->invalidate();  // twice is harmless
  EXPECT_FALSE(timer->isValid());
  timer.reset();
  target->timers.clear();
  EXPECT_FALSE(watched.expired()) << "the posted cancellation holds the timer until it runs";
  queue->advanceBy(5);
  EXPECT_EQ(std::vector<double>{1.0}, target->times);
  EXPECT_EQ(0u, queue->pendingCount());
  EXPECT_TRUE(watched.expired());
}

TEST_F(TavloTimerTest, AFiringAlreadyDueWhenInvalidatedStaysSilent) {
  // Both fall due at 1 s; the first, armed first, stops the second, whose firing then
  // runs before the posted cancellation.
  const auto stopper = recorder();
  const auto stopperTimer = arm(1.0, false, stopper);
  const auto target = recorder();
  stopper->victim = arm(1.0, true, target);
  EXPECT_EQ(3u, queue->advanceBy(1)) << "the stopper, the due firing and the cancellation";
  EXPECT_TRUE(target->times.empty());
  stopper->victim.reset();
}

}  // namespace
