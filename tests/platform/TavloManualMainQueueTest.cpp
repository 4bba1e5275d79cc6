#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/TavloTestPlatform.h"

// The virtual-time queue stands in for the main run loop in every timer and
// notification test; if it fires at the wrong moment, those tests prove nothing.

namespace {

struct Firing {
  std::string what;
  double at;  // seconds after the kit's start date, as the platform's clock said during the task
  bool operator==(const Firing&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Firing& firing) { return out << firing.what << "@" << firing.at; }

class TavloManualMainQueueTest : public ::testing::Test {
 protected:
  std::function<void()> recorder(std::string what) {
    return [this, what = std::move(what)] { firings.push_back({what, secondsIn()}); };
  }
  double secondsIn() { return test.platform.clock->now() - TavloTestPlatformStartDate; }

  TavloTestPlatform test = TavloMakeTestPlatform();
  TavloMainQueue& platformQueue = *test.platform.mainQueue;  // the kit's queue, seen as the library sees it
  TavloManualMainQueue& queue = *test.mainQueue;
  std::vector<Firing> firings;
};

TEST_F(TavloManualMainQueueTest, DueWorkRunsInDeadlineOrderAtItsOwnTimeOnTheKitsClock) {
  platformQueue.schedule(3, false, recorder("three"));
  platformQueue.schedule(1, false, recorder("one"));
  platformQueue.schedule(2, true, recorder("every two"));
  platformQueue.post(recorder("posted"));
  platformQueue.schedule(1, false, recorder("one, armed later"));
  platformQueue.schedule(1.5, false, [this] {
    firings.push_back({"nested", secondsIn()});
    queue.post(recorder("posted by nested"));
    queue.schedule(1, false, recorder("scheduled by nested"));  // due at 2.5: inside the span
    queue.schedule(10, false, recorder("scheduled too far"));   // due at 11.5: outside
  });
  EXPECT_TRUE(firings.empty()) << "nothing runs until the test says so";
  EXPECT_EQ(1u, queue.runUntilIdle());
  EXPECT_EQ((std::vector<Firing>{{"posted", 0}}), firings) << "runUntilIdle runs only what is due now";
  EXPECT_EQ(0, secondsIn()) << "runUntilIdle must not move time";

  EXPECT_EQ(8u, queue.advanceBy(5));
  const std::vector<Firing> expected = {
      {"posted", 0},    {"one", 1},         {"one, armed later", 1},    {"nested", 1.5},   {"posted by nested", 1.5},
      {"every two", 2}, {"scheduled by nested", 2.5}, {"three", 3}, {"every two", 4},
  };
  EXPECT_EQ(expected, firings);
  EXPECT_EQ(5, secondsIn()) << "the clock ends at the end of the span";
  EXPECT_DOUBLE_EQ(5, queue.elapsed());
  EXPECT_EQ(2u, queue.pendingCount()) << "the repeating timer and the far one remain";

  firings.clear();
  test.clock->advance(100);  // the queue moves the clock by differences, never back
  queue.schedule(1, false, recorder("after the jump"));
  queue.advanceBy(1);
  EXPECT_EQ((std::vector<Firing>{{"every two", 106}, {"after the jump", 106}}), firings);
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
    TavloManualMainQueue clockless;
    size_t count = 0;
    clockless.schedule(c.interval, true, [&] { ++count; });
    for (double seconds : c.advances) clockless.advanceBy(seconds);
    EXPECT_EQ(c.firings, count) << "interval " << c.interval << " over " << c.advances.size() << " advances";
  }
}

TEST_F(TavloManualMainQueueTest, CancelStopsTimersIncludingFromTheirOwnTask) {
  const TavloTimerID doomed = queue.schedule(1, false, recorder("doomed"));
  queue.cancel(doomed);
  queue.cancel(doomed);
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

TEST_F(TavloManualMainQueueTest, WorkRunsOnlyOnTheTestsThreadWhichAloneIsCurrent) {
  bool inside = false;
  bool otherThreadSaw = true;
  size_t nested = 99;
  queue.post([&] {
    inside = queue.isCurrent();
    std::thread other([&] {  // as a real reachability source would
      otherThreadSaw = queue.isCurrent();
      queue.post(recorder("posted from another thread"));
    });
    other.join();
    nested = queue.advanceBy(100);
  });
  EXPECT_FALSE(queue.isCurrent());
  EXPECT_EQ(2u, queue.runUntilIdle());
  EXPECT_TRUE(inside);
  EXPECT_FALSE(otherThreadSaw);
  EXPECT_EQ(0u, nested) << "a nested advance must do nothing";
  EXPECT_EQ((std::vector<Firing>{{"posted from another thread", 0}}), firings);
}

}  // namespace
