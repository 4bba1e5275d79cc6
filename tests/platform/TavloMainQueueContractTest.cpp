// One contract for every main queue: the library's own thread (TavloMainLoopQueue) and
// the test kit's virtual-time queue (TavloManualMainQueue) must order and fire work alike,
// or the streaming tests that run on the kit's queue prove nothing about a real box.
// Then what only one of them has: the thread's life, and exact virtual times.
//
// The thread's cases never sleep to let time pass: they wait for the event they need,
// with a timeout far beyond any scheduling hiccup, and assert on order, never duration.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/TavloMainLoopQueue.h"
#include "platform/TavloTimerAgenda.h"
#include "support/TavloLoggingFixture.h"
#include "support/TavloTestPlatform.h"
#include "tavlo/testkit/TavloManualMainQueue.h"

namespace {

// What the queue reports back; also serves as a gate one side waits at.
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
  size_t size() {
    std::lock_guard<std::mutex> lock(protector);
    return entries.size();
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

enum class Kind { thread, virtualTime };

// Declared after everything its tasks touch (the journal, the log sink), so the queue's
// thread is joined before those are destroyed.
class TavloMainQueueContract : public TavloLoggingTest, public ::testing::WithParamInterface<Kind> {
 protected:
  void SetUp() override {
    TavloLoggingTest::SetUp();
    if (GetParam() == Kind::thread) {
      thread = std::make_shared<TavloMainLoopQueue>();
      queue = thread;
    } else {
      manual = std::make_shared<TavloManualMainQueue>(nullptr, test.logSink);
      queue = manual;
    }
  }
  void TearDown() override {
    queue.reset();
    thread.reset();
    manual.reset();
    TavloLoggingTest::TearDown();
  }

  // Runs `arrange` while nothing on the queue can run.
  void arrange(const std::function<void()>& steps) {
    if (manual) return steps();
    Journal gate;
    queue->post([&gate] { gate.waitForCount(1); });
    steps();
    gate.record("open");
    // The gate task may still be leaving `gate`'s lock: the queue is serial, so once a
    // task posted after it has run, it has returned.
    Journal flushed;
    queue->post([&flushed] { flushed.record("flushed"); });
    ASSERT_TRUE(flushed.waitForCount(1));
  }

  // Lets the queue run until the journal holds `count` entries; false if it never does.
  bool runUntil(size_t count) {
    if (!manual) return journal.waitForCount(count);
    for (int step = 0; step < 100'000 && journal.size() < count; ++step) manual->advanceBy(0.001);
    return journal.size() >= count;
  }

  Journal journal;
  std::shared_ptr<TavloMainQueue> queue;
  std::shared_ptr<TavloMainLoopQueue> thread;
  std::shared_ptr<TavloManualMainQueue> manual;
};

TEST_P(TavloMainQueueContract, TasksRunInPostOrderOnOneThread) {
  std::atomic<bool> sameThread{true};
  std::thread::id firstThread;
  queue->post(nullptr);
  EXPECT_EQ(0u, queue->schedule(1, false, nullptr)) << "an empty task gets no timer";
  queue->cancel(42);  // unknown: ignored
  std::vector<std::string> expected;
  for (int i = 0; i < 20; ++i) {
    expected.push_back(std::to_string(i));
    queue->post([&, i] {
      if (i == 0) firstThread = std::this_thread::get_id();
      else if (firstThread != std::this_thread::get_id()) sameThread = false;
      journal.record(std::to_string(i));
      if (i == 19) queue->post([&] { journal.record("posted from a task"); });
    });
  }
  expected.push_back("posted from a task");
  ASSERT_TRUE(runUntil(21));
  EXPECT_EQ(expected, journal.all());
  EXPECT_TRUE(sameThread.load()) << "every task must run on one thread";
}

TEST_P(TavloMainQueueContract, TimersFireByDeadlineAndCancelledOnesNever) {
  arrange([&] {
    queue->schedule(0.3, false, [&] { journal.record("late"); });
    queue->schedule(0.01, false, [&] { journal.record("early"); });
    queue->schedule(0.01, false, [&] { journal.record("early, armed later"); });
    const TavloTimerID doomed = queue->schedule(0.02, false, [&] { journal.record("cancelled timer fired"); });
    const TavloTimerID repeating = queue->schedule(0.001, true, [&] { journal.record("cancelled repeating timer fired"); });
    EXPECT_NE(doomed, repeating);
    queue->cancel(doomed);
    queue->cancel(repeating);
    queue->cancel(doomed);  // twice is harmless
  });
  ASSERT_TRUE(runUntil(3));
  EXPECT_EQ((std::vector<std::string>{"early", "early, armed later", "late"}), journal.all());
}

TEST_P(TavloMainQueueContract, RepeatingTimerCancelledFromItsOwnTaskStopsFiring) {
  std::atomic<int> firings{0};
  TavloTimerID timer = 0;
  arrange([&] {  // the identifier is stored before the task may need it
    timer = queue->schedule(0.001, true, [&] {
      if (++firings == 3) {
        queue->cancel(timer);
        // Scheduled after the cancel: had the 1 ms timer survived, it would fire many
        // times before this one does.
        queue->schedule(0.05, false, [&] { journal.record("later"); });
      }
    });
  });
  ASSERT_TRUE(runUntil(1));
  EXPECT_EQ(3, firings.load()) << "a timer cancelled by its own task must not fire again";
}

TEST_P(TavloMainQueueContract, TaskThatThrowsIsReportedAndTheQueueGoesOn) {
  arrange([&] {
    queue->post([] { throw std::runtime_error("disk on fire"); });
    queue->post([] { throw 7; });
    queue->schedule(0.001, false, [] { throw std::logic_error("timer broke"); });
    queue->schedule(0.05, false, [&] { journal.record("still alive"); });
  });
  ASSERT_TRUE(runUntil(1));
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A main queue task threw (disk on fire)"));
  EXPECT_TRUE(test.logSink->contains("threw an unknown exception"));
  EXPECT_TRUE(test.logSink->contains("(timer broke)"));
}

INSTANTIATE_TEST_SUITE_P(Queues, TavloMainQueueContract, ::testing::Values(Kind::thread, Kind::virtualTime),
                         [](const auto& info) { return info.param == Kind::thread ? "Thread" : "VirtualTime"; });

TEST(TavloMainQueueRules, IntervalsAndCatchUpKeepTimersSane) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  const std::pair<double, double> intervals[] = {
      {0.5, 0.5},   {120, 120},       {0, 0.0001},      {-5, 0.0001},      {1e-9, 0.0001},
      {inf, 1e9},   {1e300, 1e9},     {-inf, 0.0001},   {std::nan(""), 0.0001},
  };
  for (const auto& [asked, used] : intervals) {
    EXPECT_EQ(used, TavloMainQueue::effectiveInterval(asked)) << "interval " << asked;
  }

  // A 1 s repeating timer on a queue that comes back at `present`: it fires once and its
  // next deadline keeps the rhythm of the first (missed firings skipped, no burst).
  constexpr int64_t second = TavloTimerAgenda::kNanosecondsPerSecond;
  const std::pair<int64_t, int64_t> catchUps[] = {
      {second, 2 * second},                  // on time
      {second + second / 2, 2 * second},     // late, within one interval
      {7 * second + 1, 8 * second},          // six intervals behind
      {7 * second, 8 * second},              // exactly on a later beat
  };
  for (const auto& [present, nextDeadline] : catchUps) {
    TavloTimerAgenda agenda;
    agenda.schedule(0, 1, true, [] {});
    EXPECT_NE(nullptr, agenda.takeDue(present)) << "at " << present;
    EXPECT_EQ(nullptr, agenda.takeDue(present)) << "a second firing at " << present;
    EXPECT_EQ(nextDeadline, agenda.nextDue()) << "next deadline after coming back at " << present;
  }
}

// The library's thread: when it starts, and how it ends.

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
  queue.schedule(1, false, nullptr);
  EXPECT_FALSE(queue.TEST_isRunning()) << "cancel, isCurrent and empty work must not start the thread";
  queue.post([&] { journal.record("ran"); });
  EXPECT_TRUE(queue.TEST_isRunning());
  ASSERT_TRUE(journal.waitForCount(1));
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

// The kit's queue: exact virtual times, on the clock the code under test reads.

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
  TavloManualMainQueue& queue = *test.mainQueue;
  std::vector<Firing> firings;
};

TEST_F(TavloManualMainQueueTest, DueWorkRunsInDeadlineOrderAtItsOwnTimeOnTheKitsClock) {
  queue.schedule(3, false, recorder("three"));
  queue.schedule(1, false, recorder("one"));
  queue.schedule(2, true, recorder("every two"));
  queue.post(recorder("posted"));
  queue.schedule(1, false, recorder("one, armed later"));
  queue.schedule(1.5, false, [this] {
    firings.push_back({"nested", secondsIn()});
    queue.post(recorder("posted by nested"));
    queue.schedule(1, false, recorder("scheduled by nested"));  // due at 2.5: inside the span
    queue.schedule(10, false, recorder("scheduled too far"));   // due at 11.5: outside
  });
  EXPECT_TRUE(firings.empty()) << "nothing runs until the test says so";
  EXPECT_EQ(1u, queue.runUntilIdle());
  EXPECT_EQ((std::vector<Firing>{{"posted", 0}}), firings) << "runUntilIdle runs only what is due now";
  EXPECT_EQ(0, secondsIn()) << "runUntilIdle must not move time";
  EXPECT_EQ(std::optional<double>(1), queue.nextDueIn());

  EXPECT_EQ(8u, queue.advanceBy(5));
  const std::vector<Firing> expected = {
      {"posted", 0},    {"one", 1},         {"one, armed later", 1},    {"nested", 1.5},   {"posted by nested", 1.5},
      {"every two", 2}, {"scheduled by nested", 2.5}, {"three", 3}, {"every two", 4},
  };
  EXPECT_EQ(expected, firings);
  EXPECT_EQ(5, secondsIn()) << "the clock ends at the end of the span";
  EXPECT_DOUBLE_EQ(5, queue.elapsed());
  EXPECT_EQ(2u, queue.pendingCount()) << "the repeating timer and the far one remain";
  EXPECT_EQ(std::optional<double>(1), queue.nextDueIn()) << "the repeating timer is due at 6";

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

TEST_F(TavloManualMainQueueTest, WorkRunsOnlyOnTheCallersThreadAndANestedAdvanceDoesNothing) {
  bool otherThreadSaw = true;
  size_t nested = 99;
  int added = 0;
  queue.setWorkAddedHandler([&] { ++added; });
  queue.post([&] {
    std::thread other([&] {  // as a real reachability source would
      otherThreadSaw = queue.isCurrent();
      queue.post(recorder("posted from another thread"));
    });
    other.join();
    nested = queue.advanceBy(100);
  });
  EXPECT_EQ(2u, queue.runUntilIdle());
  EXPECT_FALSE(otherThreadSaw);
  EXPECT_EQ(0u, nested) << "a nested advance must do nothing";
  EXPECT_EQ((std::vector<Firing>{{"posted from another thread", 0}}), firings);
  EXPECT_EQ(2, added) << "a pump must hear of work posted from any thread";
  EXPECT_EQ(std::nullopt, queue.nextDueIn());
}

}  // namespace
