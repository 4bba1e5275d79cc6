// One contract for every main queue: the library's own thread (TavloMainLoopQueue) and the
// test kit's virtual-time queue must order and fire work alike, or the streaming tests that
// run on the kit's queue prove nothing about a real box. The thread's cases wait for the
// event they need, never for a duration, and assert on order only.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <stdexcept>

#include "platform/TavloMainLoopQueue.h"
#include "platform/TavloTimerAgenda.h"
#include "support/TavloLoggingFixture.h"

namespace {

// What the queue reports back; also serves as a gate one side waits at.
struct Journal {
  void record(const std::string& entry) {
    std::lock_guard<std::mutex> lock(protector);
    entries.push_back(entry);
    changed.notify_all();
  }
  std::vector<std::string> waitFor(size_t count) {  // what is in once `count` entries are, or after 20 s
    std::unique_lock<std::mutex> lock(protector);
    changed.wait_for(lock, std::chrono::seconds(20), [&] { return entries.size() >= count; });
    return entries;
  }
  std::mutex protector;
  std::condition_variable changed;
  std::vector<std::string> entries;
};

// The queue is declared after what its tasks touch, so the thread is joined first.
class TavloMainQueueContract : public TavloLoggingTest, public ::testing::WithParamInterface<bool> {
 protected:
  // Runs `steps` while nothing on the queue can run: behind a gate task on the thread.
  void arrange(const std::function<void()>& steps) {
    if (!GetParam()) return steps();
    Journal gate, flushed;
    queue->post([&gate] { gate.waitFor(1); });
    steps();
    gate.record("open");
    queue->post([&flushed] { flushed.record("flushed"); });  // once it ran, the gate task has returned
    flushed.waitFor(1);
  }
  // Lets the queue run until `journal` holds `count` entries.
  std::vector<std::string> run(Journal& journal, size_t count) {
    for (int step = 0; !GetParam() && step < 100'000 && journal.waitFor(0).size() < count; ++step) manual->advanceBy(0.001);
    return journal.waitFor(count);
  }

  Journal journal;
  std::shared_ptr<TavloManualMainQueue> manual = std::make_shared<TavloManualMainQueue>(nullptr, test.logSink);
  std::shared_ptr<TavloMainQueue> queue = GetParam() ? std::shared_ptr<TavloMainQueue>(std::make_shared<TavloMainLoopQueue>()) : manual;
};

TEST_P(TavloMainQueueContract, TasksRunInPostOrderAndOneThatThrowsIsReportedAndDropped) {
  queue->post(nullptr);
  EXPECT_EQ(0u, queue->schedule(1, false, nullptr)) << "an empty task gets no timer";
  queue->cancel(42);  // unknown: ignored
  std::vector<std::string> expected;
  for (int i = 0; i < 20; ++i) {
    expected.push_back(std::to_string(i));
    queue->post([&, i] {
      journal.record(std::to_string(i));
      if (i == 5) throw std::runtime_error("disk on fire");
      if (i == 9) throw 7;
      if (i == 19) queue->post([&] { journal.record("posted from a task"); });
    });
  }
  expected.push_back("posted from a task");
  EXPECT_EQ(expected, run(journal, 21));
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A main queue task threw (disk on fire)"));
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A main queue task threw an unknown exception"));
}

TEST_P(TavloMainQueueContract, TimersFireByDeadlineAndCancelledOnesNeverEvenFromTheirOwnTask) {
  std::atomic<int> firings{0};
  TavloTimerID selfCancelling = 0;
  arrange([&] {
    queue->schedule(0.3, false, [&] { journal.record("late"); });
    queue->schedule(0.01, false, [&] { journal.record("early"); });
    queue->schedule(0.01, false, [&] { journal.record("early, armed later"); });
    queue->schedule(0.001, false, [] { throw std::logic_error("timer broke"); });
    const TavloTimerID doomed = queue->schedule(0.02, false, [&] { journal.record("cancelled timer fired"); });
    const TavloTimerID repeating = queue->schedule(0.001, true, [&] { journal.record("cancelled repeating timer fired"); });
    EXPECT_NE(doomed, repeating);
    queue->cancel(doomed);
    queue->cancel(repeating);
    // Had it survived its own cancel, this 1 ms timer would fire many times before "late".
    selfCancelling = queue->schedule(0.001, true, [&] {
      if (++firings == 3) queue->cancel(selfCancelling);
    });
  });
  EXPECT_EQ((std::vector<std::string>{"early", "early, armed later", "late"}), run(journal, 3));
  EXPECT_EQ(3, firings.load()) << "a timer cancelled by its own task must not fire again";
  EXPECT_TRUE(test.logSink->contains("(timer broke)"));
}

INSTANTIATE_TEST_SUITE_P(Queues, TavloMainQueueContract, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Thread" : "VirtualTime"; });

// A real box falls behind (a long task, a suspended box): a repeating timer then fires once
// and keeps its rhythm, since a burst of catch-up firings would send a burst of hits.
TEST(TavloMainQueueRules, IntervalsStaySaneAndALateRepeatingTimerKeepsItsRhythmWithoutABurst) {
  for (double asked : {0.0, -5.0, -HUGE_VAL, std::nan("")}) EXPECT_EQ(0.0001, TavloMainQueue::effectiveInterval(asked)) << asked;
  for (double asked : {HUGE_VAL, 1e300}) EXPECT_EQ(1e9, TavloMainQueue::effectiveInterval(asked)) << asked;
  constexpr int64_t second = TavloTimerAgenda::kNanosecondsPerSecond;
  for (const auto& [present, nextDeadline] : {std::pair<int64_t, int64_t>{2 * second, 3 * second}, {7 * second + 1, 8 * second}}) {
    TavloTimerAgenda agenda;
    agenda.schedule(0, 1, true, [] {});
    EXPECT_TRUE(agenda.takeDue(present) && !agenda.takeDue(present)) << "one firing at " << present;
    EXPECT_EQ(nextDeadline, agenda.nextDue()) << "next deadline after coming back at " << present;
  }
}

}  // namespace
