#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/TavloLoggingFixture.h"
#include "support/TavloManualMainQueue.h"

// The virtual-time queue stands in for the main run loop in every timer and
// notification test; if it fires at the wrong moment, those tests prove nothing.

namespace {

constexpr TavloDate kStart = 1000;

struct Firing {
  std::string what;
  double at;  // seconds after kStart, as the clock said while the task ran
  bool operator==(const Firing&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Firing& firing) { return out << firing.what << "@" << firing.at; }

class TavloManualMainQueueTest : public ::testing::Test {
 protected:
  std::function<void()> recorder(std::string what) {
    return [this, what = std::move(what)] { firings.push_back({what, clock->now() - kStart}); };
  }

  std::shared_ptr<TavloManualClock> clock = std::make_shared<TavloManualClock>(kStart);
  TavloManualMainQueue queue{clock};
  std::vector<Firing> firings;
};

TEST_F(TavloManualMainQueueTest, NothingRunsUntilTheTestSaysSo) {
  queue.post(recorder("task"));
  queue.schedule(1, false, recorder("timer"));
  EXPECT_EQ(2u, queue.pendingCount());
  EXPECT_TRUE(firings.empty());

  EXPECT_EQ(1u, queue.runUntilIdle());
  EXPECT_EQ((std::vector<Firing>{{"task", 0}}), firings);
  EXPECT_EQ(1u, queue.pendingCount()) << "the timer is not due yet";
  EXPECT_EQ(kStart, clock->now()) << "runUntilIdle must not move time";
}

TEST_F(TavloManualMainQueueTest, DueWorkRunsInDeadlineOrderAtItsOwnTime) {
  queue.schedule(3, false, recorder("three"));
  queue.schedule(1, false, recorder("one"));
  queue.schedule(2, true, recorder("every two"));
  queue.post(recorder("posted"));
  queue.schedule(1, false, recorder("one, armed later"));

  EXPECT_EQ(6u, queue.advanceBy(5));
  const std::vector<Firing> expected = {
      {"posted", 0}, {"one", 1}, {"one, armed later", 1}, {"every two", 2}, {"three", 3}, {"every two", 4},
  };
  EXPECT_EQ(expected, firings);
  EXPECT_EQ(kStart + 5, clock->now()) << "the clock ends at the end of the span";
  EXPECT_DOUBLE_EQ(5, queue.elapsed());
  EXPECT_EQ(1u, queue.pendingCount()) << "only the repeating timer remains";
}

TEST_F(TavloManualMainQueueTest, RepeatingTimerFiresOncePerElapsedInterval) {
  struct Case {
    double interval;
    std::vector<double> advances;
    size_t firings;
  };
  const Case cases[] = {
      {120, {600}, 5},
      {120, {119}, 0},
      {120, {119, 1}, 1},
      {1, {0.1, 0.1, 0.1, 0.1, 0.1, 0.1, 0.1, 0.1, 0.1, 0.1}, 1},  // exact despite 0.1 being inexact
      {0.25, {1, 1}, 8},
      {0, {0.001}, 10},  // a zero interval is 0.1 ms, never a spin
  };
  for (const Case& c : cases) {
    TavloManualMainQueue fresh;
    size_t count = 0;
    fresh.schedule(c.interval, true, [&] { ++count; });
    for (double seconds : c.advances) fresh.advanceBy(seconds);
    EXPECT_EQ(c.firings, count) << "interval " << c.interval << " over " << c.advances.size() << " advances";
  }
}

TEST_F(TavloManualMainQueueTest, WorkAddedByARunningTaskJoinsWhenItFallsDue) {
  queue.schedule(1, false, [this] {
    firings.push_back({"first", clock->now() - kStart});
    queue.post(recorder("posted by first"));
    queue.schedule(2, false, recorder("scheduled by first"));   // due at 3: inside the span
    queue.schedule(10, false, recorder("scheduled too far"));   // due at 11: outside
  });
  queue.advanceBy(4);
  const std::vector<Firing> expected = {{"first", 1}, {"posted by first", 1}, {"scheduled by first", 3}};
  EXPECT_EQ(expected, firings);
  EXPECT_EQ(1u, queue.pendingCount());
}

TEST_F(TavloManualMainQueueTest, CancelStopsTimersIncludingFromTheirOwnTask) {
  const TavloTimerID doomed = queue.schedule(1, false, recorder("doomed"));
  queue.cancel(doomed);
  queue.cancel(doomed);
  queue.cancel(0);
  queue.cancel(9999);

  TavloTimerID selfCancelling = 0;
  int count = 0;
  selfCancelling = queue.schedule(1, true, [&] {
    if (++count == 2) queue.cancel(selfCancelling);
  });
  queue.advanceBy(10);
  EXPECT_TRUE(firings.empty());
  EXPECT_EQ(2, count);
  EXPECT_EQ(0u, queue.pendingCount());
}

TEST_F(TavloManualMainQueueTest, IsCurrentOnlyWhileRunningWorkOnTheRunningThread) {
  bool inside = false;
  bool otherThreadSaw = true;
  size_t nested = 99;
  queue.post([&] {
    inside = queue.isCurrent();
    std::thread other([&] { otherThreadSaw = queue.isCurrent(); });
    other.join();
    nested = queue.advanceBy(100);
  });
  EXPECT_FALSE(queue.isCurrent());
  queue.runUntilIdle();
  EXPECT_TRUE(inside);
  EXPECT_FALSE(otherThreadSaw);
  EXPECT_EQ(0u, nested) << "a nested advance must do nothing";
  EXPECT_EQ(kStart, clock->now());
  EXPECT_FALSE(queue.isCurrent());
}

TEST_F(TavloManualMainQueueTest, ClockMovedByTheTestStaysMoved) {
  clock->advance(100);
  queue.schedule(1, false, recorder("timer"));
  queue.advanceBy(2);
  EXPECT_EQ((std::vector<Firing>{{"timer", 101}}), firings);
  EXPECT_EQ(kStart + 102, clock->now());
}

TEST_F(TavloManualMainQueueTest, HostileSpansMoveNothing) {
  queue.schedule(1, false, recorder("timer"));
  for (double span : {-1.0, 0.0, std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity()}) {
    queue.advanceBy(span);
    EXPECT_EQ(kStart, clock->now()) << "span " << span;
  }
  EXPECT_TRUE(firings.empty());
  queue.advanceBy(std::numeric_limits<double>::infinity());
  EXPECT_EQ((std::vector<Firing>{{"timer", 1}}), firings) << "an infinite span is capped, not undefined";
}

TEST_F(TavloManualMainQueueTest, WorksWithoutAClockAndAcceptsPostsFromOtherThreads) {
  TavloManualMainQueue clockless;
  int ran = 0;
  std::thread poster([&] {
    for (int i = 0; i < 100; ++i) clockless.post([&] { ++ran; });
  });
  poster.join();
  clockless.post(nullptr);
  EXPECT_EQ(0u, clockless.schedule(1, true, nullptr));
  EXPECT_EQ(100u, clockless.pendingCount());
  EXPECT_EQ(100u, clockless.advanceBy(1));
  EXPECT_EQ(100, ran);
}

using TavloManualMainQueueLogging = TavloLoggingTest;

TEST_F(TavloManualMainQueueLogging, TaskThatThrowsIsLoggedLikeOnTheRealQueue) {
  TavloManualMainQueue queue;
  bool after = false;
  queue.post([] { throw std::runtime_error("boom"); });
  queue.post([&] { after = true; });
  EXPECT_EQ(2u, queue.runUntilIdle());
  EXPECT_TRUE(after);
  EXPECT_TRUE(test.logSink->contains("A main queue task threw (boom)"));
}

TEST(TavloManualMainQueueInTestPlatform, SharesTheKitsClock) {
  TavloTestPlatform test = TavloMakeTestPlatform();
  ASSERT_NE(nullptr, test.mainQueue);
  EXPECT_EQ(test.platform.mainQueue, test.mainQueue);
  TavloDate seen = 0;
  test.platform.mainQueue->schedule(60, false, [&] { seen = test.platform.clock->now(); });
  test.mainQueue->advanceBy(60);
  EXPECT_EQ(TavloTestPlatformStartDate + 60, seen);
}

}  // namespace
