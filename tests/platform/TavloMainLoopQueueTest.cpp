#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/TavloMainLoopQueue.h"
#include "support/TavloLoggingFixture.h"

// These tests drive a real thread. They never sleep to let time pass: each one waits
// for the event it needs, with a timeout far beyond any scheduling hiccup. Each test
// declares its queue after everything its tasks touch, so the queue's thread is joined
// before those are destroyed.

namespace {

// What the queue's thread reports back; also serves as a gate one side waits at.
class Journal {
 public:
  void record(const std::string& entry) {
    {
      std::lock_guard<std::mutex> lock(protector);
      entries.push_back(entry);
    }
    changed.notify_all();
  }
  // Waits until `count` entries are in; answers whether they came in time.
  bool waitForCount(size_t count) {
    std::unique_lock<std::mutex> lock(protector);
    return changed.wait_for(lock, std::chrono::seconds(20), [&] { return entries.size() >= count; });
  }
  std::vector<std::string> all() {
    std::lock_guard<std::mutex> lock(protector);
    return entries;
  }

 private:
  std::mutex protector;
  std::condition_variable changed;
  std::vector<std::string> entries;
};

TEST(TavloMainLoopQueueTest, StartsItsThreadOnlyWhenGivenWork) {
  const TavloPlatform platform = TavloPlatform::linuxDefaults();
  auto* platformQueue = dynamic_cast<TavloMainLoopQueue*>(platform.mainQueue.get());
  ASSERT_NE(nullptr, platformQueue) << "the Linux default main queue is the library thread";
  EXPECT_FALSE(platformQueue->TEST_isRunning()) << "building the default platform must start no thread";

  Journal journal;
  TavloMainLoopQueue queue;
  queue.cancel(42);
  EXPECT_FALSE(queue.isCurrent());
  queue.post(nullptr);
  EXPECT_EQ(0u, queue.schedule(1, false, nullptr)) << "an empty task gets no timer";
  EXPECT_FALSE(queue.TEST_isRunning()) << "cancel, isCurrent and empty work must not start the thread";
  queue.post([&] { journal.record("ran"); });
  EXPECT_TRUE(queue.TEST_isRunning());
  ASSERT_TRUE(journal.waitForCount(1));
}

TEST(TavloMainLoopQueueTest, RunsTasksInOrderOnItsOwnThread) {
  Journal journal;
  std::atomic<int> currentInside{0};
  std::thread::id firstThread;
  std::atomic<bool> sameThread{true};
  TavloMainLoopQueue queue;
  std::vector<std::string> expected;
  for (int i = 0; i < 50; ++i) {
    expected.push_back(std::to_string(i));
    queue.post([&, i] {
      if (queue.isCurrent()) ++currentInside;
      if (i == 0) firstThread = std::this_thread::get_id();
      else if (firstThread != std::this_thread::get_id()) sameThread = false;
      journal.record(std::to_string(i));
      if (i == 49) queue.post([&] { journal.record("posted from a task"); });
    });
  }
  expected.push_back("posted from a task");
  ASSERT_TRUE(journal.waitForCount(51));
  EXPECT_EQ(expected, journal.all());
  EXPECT_EQ(50, currentInside.load()) << "isCurrent must be true inside every task";
  EXPECT_TRUE(sameThread.load()) << "every task must run on the one queue thread";
  EXPECT_NE(firstThread, std::this_thread::get_id());
  EXPECT_FALSE(queue.isCurrent()) << "the test's thread is not the queue";
}

TEST(TavloMainLoopQueueTest, TimersFireByDeadlineAndCancelledOnesNever) {
  Journal journal;
  Journal held;
  TavloMainLoopQueue queue;
  queue.post([&] { held.waitForCount(1); });  // nothing fires before the cancels are in, however slow this thread is
  queue.schedule(0.3, false, [&] { journal.record("late"); });
  queue.schedule(0.01, false, [&] { journal.record("early"); });
  const TavloTimerID doomed = queue.schedule(0.02, false, [&] { journal.record("cancelled timer fired"); });
  const TavloTimerID repeating = queue.schedule(0.001, true, [&] { journal.record("cancelled repeating timer fired"); });
  EXPECT_NE(doomed, repeating);
  queue.cancel(doomed);
  queue.cancel(repeating);
  queue.cancel(doomed);  // twice is harmless
  held.record("go");
  ASSERT_TRUE(journal.waitForCount(2));
  EXPECT_EQ((std::vector<std::string>{"early", "late"}), journal.all());
}

TEST(TavloMainLoopQueueTest, RepeatingTimerCancelledFromItsOwnTaskStopsFiring) {
  Journal journal;
  Journal armed;
  std::atomic<int> firings{0};
  std::atomic<TavloTimerID> timer{0};
  TavloMainLoopQueue queue;
  timer = queue.schedule(0.001, true, [&] {
    armed.waitForCount(1);  // the identifier is stored before the task may need it
    if (++firings == 3) {
      queue.cancel(timer);
      // Scheduled after the cancel: had the 1 ms timer survived, it would fire many
      // times before this one does.
      queue.schedule(0.05, false, [&] { journal.record("later"); });
    }
  });
  armed.record("armed");
  ASSERT_TRUE(journal.waitForCount(1));
  EXPECT_EQ(3, firings.load()) << "a timer cancelled by its own task must not fire again";
}

TEST(TavloMainLoopQueueTest, TasksThatKeepPostingDoNotStarveTimers) {
  std::atomic<bool> fired{false};
  long rounds = 0;
  Journal journal;
  std::function<void()> spin;
  TavloMainLoopQueue queue;
  queue.schedule(0.005, false, [&] { fired = true; });
  spin = [&] {
    if (fired || ++rounds > 50'000'000) return journal.record("stopped");
    queue.post(spin);
  };
  queue.post(spin);
  ASSERT_TRUE(journal.waitForCount(1));
  EXPECT_TRUE(fired.load()) << "the timer never ran while tasks kept coming";
}

using TavloMainLoopQueueLogging = TavloLoggingTest;

TEST_F(TavloMainLoopQueueLogging, TaskThatThrowsIsLoggedAndTheQueueGoesOn) {
  Journal journal;
  TavloMainLoopQueue queue;
  queue.post([] { throw std::runtime_error("disk on fire"); });
  queue.post([] { throw 7; });
  queue.schedule(0.001, false, [] { throw std::logic_error("timer broke"); });
  queue.schedule(0.05, false, [&] { journal.record("still alive"); });
  ASSERT_TRUE(journal.waitForCount(1));
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A main queue task threw (disk on fire)"));
  EXPECT_TRUE(test.logSink->contains("threw an unknown exception"));
  EXPECT_TRUE(test.logSink->contains("(timer broke)"));
}

TEST(TavloMainLoopQueueTest, DestructorWaitsForTheRunningTaskButNotForWorkNotDue) {
  Journal journal;
  Journal released;
  auto queue = std::make_unique<TavloMainLoopQueue>();
  queue->post([&] {
    journal.record("started");
    released.waitForCount(1);
    journal.record("running task finished");
  });
  queue->schedule(3600, false, [&] { journal.record("hour timer ran"); });
  ASSERT_TRUE(journal.waitForCount(1));
  std::thread destroyer([&] { queue.reset(); });
  released.record("go");
  destroyer.join();
  EXPECT_EQ((std::vector<std::string>{"started", "running task finished"}), journal.all());
}

TEST(TavloMainLoopQueueTest, LastOwnerLettingGoFromATaskDoesNotJoinItself) {
  auto holder = std::make_shared<std::shared_ptr<TavloMainLoopQueue>>(std::make_shared<TavloMainLoopQueue>());
  // Shared with the task: the detached thread may still be using them after the test.
  auto journal = std::make_shared<Journal>();
  auto posted = std::make_shared<Journal>();
  (*holder)->post([holder, journal, posted] {
    posted->waitForCount(1);
    holder->reset();  // destroys the queue on its own thread
    journal->record("released");
  });
  posted->record("posted");
  ASSERT_TRUE(journal->waitForCount(1)) << "destroying the queue from its own task must not deadlock";
}

TEST(TavloMainLoopQueueTest, EffectiveIntervalKeepsTimersSane) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  const std::pair<double, double> cases[] = {
      {0.5, 0.5},   {120, 120},       {0, 0.0001},      {-5, 0.0001},      {1e-9, 0.0001},
      {inf, 1e9},   {1e300, 1e9},     {-inf, 0.0001},   {std::nan(""), 0.0001},
  };
  for (const auto& [asked, used] : cases) {
    EXPECT_EQ(used, TavloMainLoopQueue::effectiveInterval(asked)) << "interval " << asked;
  }
}

}  // namespace
