// One contract for every main queue: the library's own thread (TavloMainLoopQueue) and the
// test kit's virtual-time queue must order and fire work alike, or the streaming tests that
// run on the kit's queue prove nothing about a real box. The thread's cases wait for the
// event they need, never for a duration, and assert on order only.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <future>
#include <stdexcept>

#include "platform/TavloMainLoopQueue.h"
#include "platform/TavloTimerAgenda.h"
#include "support/TavloLoggingFixture.h"

namespace {

// The queue is declared after what its work touches, so the thread is joined first.
class TavloMainQueueContract : public TavloLoggingTest, public ::testing::WithParamInterface<bool> {
 protected:
  // Lets the queue run until its work sets `finished`, then answers what the work recorded:
  // setting the promise is what makes the journal safe to read on this thread.
  std::vector<std::string> runUntilFinished() {
    std::future<void> done = finished.get_future();
    for (int step = 0; !GetParam() && step < 100'000 && done.wait_for(std::chrono::seconds(0)) != std::future_status::ready; ++step) {
      manual->advanceBy(0.001);
    }
    EXPECT_EQ(std::future_status::ready, done.wait_for(std::chrono::seconds(20)));
    return journal;
  }

  std::vector<std::string> journal;  // the queue's work alone writes it
  std::promise<void> finished;
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
      journal.push_back(std::to_string(i));
      if (i == 5) throw std::runtime_error("disk on fire");
      if (i == 9) throw 7;
      if (i == 19) queue->post([&] { journal.push_back("posted from a task"), finished.set_value(); });
    });
  }
  expected.push_back("posted from a task");
  EXPECT_EQ(expected, runUntilFinished());
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A main queue task threw (disk on fire)"));
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A main queue task threw an unknown exception"));
}

TEST_P(TavloMainQueueContract, TimersFireByDeadlineAndCancelledOnesNeverEvenFromTheirOwnTask) {
  std::atomic<int> firings{0};
  TavloTimerID selfCancelling = 0;
  queue->post([&] {  // armed from one task: on the thread, none can fire before all are armed
    queue->schedule(0.3, false, [&] { journal.push_back("late"), finished.set_value(); });
    queue->schedule(0.01, false, [&] { journal.push_back("early"); });
    queue->schedule(0.01, false, [&] { journal.push_back("early, armed later"); });
    queue->schedule(0.001, false, [] { throw std::logic_error("timer broke"); });
    const TavloTimerID doomed = queue->schedule(0.02, false, [&] { journal.push_back("cancelled timer fired"); });
    const TavloTimerID repeating = queue->schedule(0.001, true, [&] { journal.push_back("cancelled repeating timer fired"); });
    queue->cancel(doomed);
    queue->cancel(repeating);
    // Had it survived its own cancel, this 1 ms timer would fire many times before "late".
    selfCancelling = queue->schedule(0.001, true, [&] {
      if (++firings == 3) queue->cancel(selfCancelling);
    });
  });
  EXPECT_EQ((std::vector<std::string>{"early", "early, armed later", "late"}), runUntilFinished());
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
