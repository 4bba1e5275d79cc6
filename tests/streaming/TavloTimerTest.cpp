// The weak-target timer, in virtual time on the manual main queue.
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "streaming/TavloTimer.h"
#include "support/TavloManualMainQueue.h"

namespace {

// A target that records when each firing reached it, and through which timer.
class Recorder {
 public:
  explicit Recorder(std::shared_ptr<TavloManualMainQueue> queue) : queue_(std::move(queue)) {}
  void fire(const std::shared_ptr<TavloTimer>& timer) {
    times.push_back(queue_->elapsed());
    timers.push_back(timer);
  }
  // Stops the timer that fired, from inside its own firing.
  void fireAndStop(const std::shared_ptr<TavloTimer>& timer) {
    fire(timer);
    timer->invalidate();
  }
  std::vector<double> times;
  std::vector<std::shared_ptr<TavloTimer>> timers;

 private:
  std::shared_ptr<TavloManualMainQueue> queue_;
};

class TavloTimerTest : public ::testing::Test {
 protected:
  std::shared_ptr<TavloTimer> arm(double interval, bool repeating,
                                  TavloTimer::Selector<Recorder> selector = &Recorder::fire) {
    return TavloTimer::TavloTimerWithInterval(queue, interval, std::weak_ptr<Recorder>(recorder), selector, repeating);
  }

  std::shared_ptr<TavloManualMainQueue> queue = std::make_shared<TavloManualMainQueue>();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>(queue);
};

TEST_F(TavloTimerTest, FiresAtItsIntervalOnceOrRepeatedly) {
  struct Case {
    double interval;
    bool repeating;
    double span;
    std::vector<double> expected;
  };
  const Case cases[] = {
      {1.0, false, 10, {1.0}},
      {1.0, true, 3.5, {1.0, 2.0, 3.0}},
      {2.5, true, 10, {2.5, 5.0, 7.5, 10.0}},
      {0.5, false, 0.4, {}},
  };
  for (const Case& c : cases) {
    recorder = std::make_shared<Recorder>(queue);
    const double start = queue->elapsed();
    const auto timer = arm(c.interval, c.repeating);
    queue->advanceBy(c.span);
    std::vector<double> relative;
    for (double t : recorder->times) relative.push_back(t - start);
    EXPECT_EQ(c.expected, relative) << "interval " << c.interval << " repeating " << c.repeating;
    for (const auto& passed : recorder->timers) EXPECT_EQ(timer, passed) << "each firing passes the timer itself";
    EXPECT_EQ(c.repeating || c.expected.empty(), timer->isValid()) << "interval " << c.interval;
    EXPECT_EQ(c.interval, timer->timeInterval());
    EXPECT_EQ(c.repeating, timer->repeats());
    timer->invalidate();
    queue->runUntilIdle();
  }
}

TEST_F(TavloTimerTest, ATargetReleasedBeforeAFiringMakesItDoNothing) {
  const auto timer = arm(1.0, true);
  std::weak_ptr<Recorder> watched = recorder;
  queue->advanceBy(1);
  ASSERT_EQ(1u, recorder->times.size());
  recorder.reset();
  EXPECT_TRUE(watched.expired()) << "the armed timer must not keep its target alive";
  EXPECT_EQ(2u, queue->advanceBy(2)) << "the timer goes on firing, silently";
  EXPECT_TRUE(timer->isValid());
  timer->invalidate();
}

TEST_F(TavloTimerTest, InvalidateSilencesTheTimerAtOnceAndReleasesItAtTheNextTurn) {
  auto timer = arm(1.0, true);
  std::weak_ptr<TavloTimer> watched = timer;
  queue->advanceBy(1);
  timer->invalidate();
  timer->invalidate();  // twice is harmless
  EXPECT_FALSE(timer->isValid());
  timer.reset();
  EXPECT_FALSE(watched.expired()) << "the posted invalidation holds the timer until it runs";
  queue->advanceBy(5);
  EXPECT_EQ(std::vector<double>{1.0}, recorder->times);
  EXPECT_EQ(0u, queue->pendingCount()) << "the queue must let go of an invalidated timer";
  recorder->timers.clear();
  EXPECT_TRUE(watched.expired());
}

TEST_F(TavloTimerTest, AFiringAlreadyDueWhenInvalidatedDoesNotReachTheTarget) {
  // Both timers fall due at 1 s; the first, armed first, stops the second. The second's
  // firing then runs before the posted cancellation, and must stay silent.
  struct Stopper {
    std::shared_ptr<TavloTimer> victim;
    void fire(const std::shared_ptr<TavloTimer>&) { victim->invalidate(); }
  };
  const auto stopper = std::make_shared<Stopper>();
  const auto first =
      TavloTimer::TavloTimerWithInterval(queue, 1.0, std::weak_ptr<Stopper>(stopper), &Stopper::fire, false);
  stopper->victim = arm(1.0, true);
  EXPECT_EQ(3u, queue->advanceBy(1)) << "the stopper, the due firing and the cancellation";
  EXPECT_TRUE(recorder->times.empty());
}

TEST_F(TavloTimerTest, InvalidationFromAnotherThreadIsPostedToTheQueue) {
  const auto timer = arm(1.0, true);
  std::thread other([&] { timer->invalidate(); });
  other.join();
  EXPECT_EQ(2u, queue->pendingCount()) << "the armed timer, and its cancellation waiting for the queue's turn";
  queue->advanceBy(3);
  EXPECT_TRUE(recorder->times.empty());
  EXPECT_EQ(0u, queue->pendingCount());
}

TEST_F(TavloTimerTest, ATargetMayStopItsTimerFromItsOwnFiring) {
  const auto timer = arm(1.0, true, &Recorder::fireAndStop);
  queue->advanceBy(5);
  EXPECT_EQ(std::vector<double>{1.0}, recorder->times);
  EXPECT_EQ(0u, queue->pendingCount());
}

TEST_F(TavloTimerTest, WithoutAQueueOrASelectorNothingEverFires) {
  const auto orphan = TavloTimer::TavloTimerWithInterval<Recorder>(nullptr, 1.0, recorder, &Recorder::fire, true);
  EXPECT_FALSE(orphan->isValid());
  orphan->invalidate();
  const auto mute = arm(1.0, true, nullptr);
  queue->advanceBy(3);
  EXPECT_TRUE(recorder->times.empty());
  mute->invalidate();
}

TEST_F(TavloTimerTest, AQueueThatGoesAwayTakesItsTimersWithIt) {
  auto timer = arm(1.0, true);
  std::weak_ptr<TavloTimer> watchedTimer = timer;
  std::weak_ptr<TavloManualMainQueue> watchedQueue = queue;
  recorder.reset();
  queue.reset();
  EXPECT_TRUE(watchedQueue.expired()) << "an armed timer must not keep its queue alive";
  timer->invalidate();  // nothing left to cancel: harmless
  timer.reset();
  EXPECT_TRUE(watchedTimer.expired());
}

}  // namespace
