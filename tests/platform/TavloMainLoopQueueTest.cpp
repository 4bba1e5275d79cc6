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

constexpr auto kGenerousTimeout = std::chrono::seconds(20);

// Everything the queue's thread reports back, guarded by one mutex.
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
    return changed.wait_for(lock, kGenerousTimeout, [&] { return entries.size() >= count; });
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

// A one-way gate a task can wait at.
class Gate {
 public:
  void open() {
    {
      std::lock_guard<std::mutex> lock(protector);
      isOpen = true;
    }
    opened.notify_all();
  }
  bool waitOpen() {
    std::unique_lock<std::mutex> lock(protector);
    return opened.wait_for(lock, kGenerousTimeout, [&] { return isOpen; });
  }

 private:
  std::mutex protector;
  std::condition_variable opened;
  bool isOpen = false;
};

using TavloMainLoopQueue_ = TavloLoggingTest;

TEST(TavloMainLoopQueueTest, StartsItsThreadOnlyWhenGivenWork) {
  Journal journal;
  TavloMainLoopQueue queue;
  EXPECT_FALSE(queue.TEST_isRunning()) << "a new queue must not start a thread";
  queue.cancel(42);
  EXPECT_FALSE(queue.isCurrent());
  queue.post(nullptr);
  EXPECT_EQ(0u, queue.schedule(1, false, nullptr)) << "an empty task gets no timer";
  EXPECT_FALSE(queue.TEST_isRunning()) << "cancel, isCurrent and empty work must not start the thread";

  queue.post([&] { journal.record("ran"); });
  EXPECT_TRUE(queue.TEST_isRunning());
  ASSERT_TRUE(journal.waitForCount(1));
}

TEST(TavloMainLoopQueueTest, BuildingTheDefaultPlatformStartsNoThread) {
  const TavloPlatform platform = TavloPlatform::linuxDefaults();
  auto* queue = dynamic_cast<TavloMainLoopQueue*>(platform.mainQueue.get());
  ASSERT_NE(nullptr, queue) << "the Linux default main queue is the library thread";
  EXPECT_FALSE(queue->TEST_isRunning());
}

TEST(TavloMainLoopQueueTest, RunsTasksInOrderOnItsOwnThread) {
  Journal journal;
  std::atomic<int> currentInside{0};
  std::thread::id firstThread;
  std::atomic<bool> sameThread{true};
  TavloMainLoopQueue queue;
  for (int i = 0; i < 50; ++i) {
    queue.post([&, i] {
      if (queue.isCurrent()) ++currentInside;
      if (i == 0) firstThread = std::this_thread::get_id();
      else if (firstThread != std::this_thread::get_id()) sameThread = false;
      journal.record(std::to_string(i));
      if (i == 49) queue.post([&] { journal.record("posted from a task"); });
    });
  }
  ASSERT_TRUE(journal.waitForCount(51));
  std::vector<std::string> expected;
  for (int i = 0; i < 50; ++i) expected.push_back(std::to_string(i));
  expected.push_back("posted from a task");
  EXPECT_EQ(expected, journal.all());
  EXPECT_EQ(50, currentInside.load()) << "isCurrent must be true inside every task";
  EXPECT_TRUE(sameThread.load()) << "every task must run on the one queue thread";
  EXPECT_NE(firstThread, std::this_thread::get_id());
  EXPECT_FALSE(queue.isCurrent()) << "the test's thread is not the queue";
}

TEST(TavloMainLoopQueueTest, TimersFireByDeadlineNotBySchedulingOrder) {
  Journal journal;
  TavloMainLoopQueue queue;
  queue.schedule(0.3, false, [&] { journal.record("late"); });
  queue.schedule(0.01, false, [&] { journal.record("early"); });
  ASSERT_TRUE(journal.waitForCount(2));
  EXPECT_EQ((std::vector<std::string>{"early", "late"}), journal.all());
}

TEST(TavloMainLoopQueueTest, RepeatingTimerCancelledFromItsOwnTaskStopsFiring) {
  Journal journal;
  std::atomic<int> firings{0};
  std::atomic<TavloTimerID> timer{0};
  Gate armed;
  TavloMainLoopQueue queue;
  timer = queue.schedule(0.001, true, [&] {
    armed.waitOpen();  // the identifier is stored before the task may need it
    if (++firings == 3) {
      queue.cancel(timer);
      // Scheduled after the cancel: had the 1 ms timer survived, it would fire many
      // times before this one does.
      queue.schedule(0.05, false, [&] { journal.record("later"); });
    }
  });
  armed.open();
  ASSERT_TRUE(journal.waitForCount(1));
  EXPECT_EQ(3, firings.load()) << "a timer cancelled by its own task must not fire again";
}

TEST(TavloMainLoopQueueTest, CancelledTimerNeverFires) {
  Journal journal;
  TavloMainLoopQueue queue;
  const TavloTimerID doomed = queue.schedule(0.02, false, [&] { journal.record("cancelled timer fired"); });
  const TavloTimerID repeating = queue.schedule(0.001, true, [&] { journal.record("cancelled repeating timer fired"); });
  queue.cancel(doomed);
  queue.cancel(repeating);
  queue.cancel(doomed);  // twice is harmless
  queue.schedule(0.1, false, [&] { journal.record("kept"); });
  ASSERT_TRUE(journal.waitForCount(1));
  EXPECT_EQ(std::vector<std::string>{"kept"}, journal.all());
  EXPECT_NE(doomed, repeating);
}

TEST(TavloMainLoopQueueTest, TasksThatKeepPostingDoNotStarveTimers) {
  std::atomic<bool> fired{false};
  std::atomic<long> rounds{0};
  Journal journal;
  std::function<void()> spin;
  TavloMainLoopQueue queue;
  queue.schedule(0.005, false, [&] { fired = true; });
  spin = [&] {
    if (fired || ++rounds > 50'000'000) {
      journal.record("stopped");
      return;
    }
    queue.post(spin);
  };
  queue.post(spin);
  ASSERT_TRUE(journal.waitForCount(1));
  EXPECT_TRUE(fired.load()) << "the timer never ran while tasks kept coming";
}

TEST_F(TavloMainLoopQueue_, TaskThatThrowsIsLoggedAndTheQueueGoesOn) {
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

TEST(TavloMainLoopQueueTest, DestructorReturnsPromptlyAndDropsWorkNotDue) {
  Journal journal;
  auto queue = std::make_unique<TavloMainLoopQueue>();
  Gate released;
  queue->post([&] {
    journal.record("started");
    released.waitOpen();
    journal.record("running task finished");
  });
  queue->schedule(3600, false, [&] { journal.record("hour timer ran"); });
  ASSERT_TRUE(journal.waitForCount(1));
  // Destroy while the first task runs: the destructor waits for it, not for the timer.
  std::thread destroyer([&] { queue.reset(); });
  released.open();
  destroyer.join();
  EXPECT_EQ((std::vector<std::string>{"started", "running task finished"}), journal.all());
}

TEST(TavloMainLoopQueueTest, LastOwnerLettingGoFromATaskDoesNotJoinItself) {
  auto holder = std::make_shared<std::shared_ptr<TavloMainLoopQueue>>(std::make_shared<TavloMainLoopQueue>());
  TavloMainLoopQueue* queue = holder->get();
  // Shared with the task: the detached thread may still be using them after the test.
  auto journal = std::make_shared<Journal>();
  auto posted = std::make_shared<Gate>();
  queue->post([holder, journal, posted] {
    posted->waitOpen();
    holder->reset();  // destroys the queue on its own thread
    journal->record("released");
  });
  posted->open();
  ASSERT_TRUE(journal->waitForCount(1)) << "destroying the queue from its own task must not deadlock";
}

TEST(TavloMainLoopQueueTest, EffectiveIntervalKeepsTimersSane) {
  struct Case {
    double asked;
    double used;
  };
  const Case cases[] = {
      {0.5, 0.5},
      {120, 120},
      {0, 0.0001},
      {-5, 0.0001},
      {1e-9, 0.0001},
      {std::numeric_limits<double>::quiet_NaN(), 0.0001},
      {-std::numeric_limits<double>::infinity(), 0.0001},
      {std::numeric_limits<double>::infinity(), 1e9},
      {1e300, 1e9},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.used, TavloMainLoopQueue::effectiveInterval(c.asked)) << "interval " << c.asked;
  }
}

}  // namespace
