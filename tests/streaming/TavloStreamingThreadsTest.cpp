// The streaming tagger on real threads: an application thread notifies events while the
// default Linux main queue fires the tagger's timers. Built with -DTAVLO_SANITIZE=thread,
// this is where a data race or a lock-order inversion would show.
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/TavloMainLoopQueue.h"
#include "streaming/TavloStreamingFixture.h"

namespace {

// The default main queue with every timer interval scaled down, so a second of the
// tagger's time passes in 10 ms and many firings meet many events. It counts the timer
// firings, so the test can wait for the queue to have run instead of sleeping.
class TavloFastMainQueue : public TavloMainQueue {
 public:
  explicit TavloFastMainQueue(double scale) : scale_(scale) {}

  void post(std::function<void()> task) override { inner_->post(std::move(task)); }
  TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) override {
    return inner_->schedule(interval * scale_, repeats, [this, task = std::move(task)] {
      task();
      std::lock_guard lock(firingsProtector_);
      ++firings_;
      fired_.notify_all();
    });
  }
  void cancel(TavloTimerID timer) override { inner_->cancel(timer); }
  bool isCurrent() override { return inner_->isCurrent(); }

  uint64_t firings() {
    std::lock_guard lock(firingsProtector_);
    return firings_;
  }
  /// Waits until more than `count` firings have happened; false after `timeout`.
  bool waitForFiringsAfter(uint64_t count, std::chrono::seconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(firingsProtector_);
    return fired_.wait_for(lock, timeout, [&] { return firings_ > count; });
  }

 private:
  const double scale_;
  std::mutex firingsProtector_;
  std::condition_variable fired_;  // notified under firingsProtector_
  uint64_t firings_ = 0;           // guarded by firingsProtector_
  // Last, so it stops (and joins its thread) before the counters go.
  const std::shared_ptr<TavloMainLoopQueue> inner_ = std::make_shared<TavloMainLoopQueue>();
};

class TavloStreamingThreadsTest : public TavloStreamingTest {
 protected:
  void SetUp() override {
    test.platform.mainQueue = fastQueue;
    TavloStreamingTest::SetUp();
  }

  std::shared_ptr<TavloFastMainQueue> fastQueue = std::make_shared<TavloFastMainQueue>(0.01);
};

TEST_F(TavloStreamingThreadsTest, EventsFromAnApplicationThreadNeverRaceTheTimers) {
  constexpr int kRounds = 4;
  constexpr int kEventsPerRound = 40;

  // Keeps the queue ticking while no tagger timer is armed (after a stop).
  const TavloTimerID metronome = fastQueue->schedule(1.0, true, [] {});

  const auto delegate = std::make_shared<TavloTestPositionDelegate>();
  // Calls the tagger back, from both threads: no lock may be held around the delegate.
  delegate->answer = [](TavloStreamingTagger& tagger) { return static_cast<int64_t>(tagger.mediaName()->size()); };

  std::thread application([&] {
    for (int round = 0; round < kRounds; ++round) {
      auto t = tagger(TavloStreamingTypeDelegatePosition, nullptr, "123", "film-" + std::to_string(round));
      t->setDelegate(delegate);
      for (int i = 0; i < kEventsPerRound; ++i) {
        const uint64_t seen = fastQueue->firings();
        const bool last = i == kEventsPerRound - 1;
        if (last && round % 2 == 0) {
          t->notifyEvent(TavloStreamingEventStop, i);
        } else if (!last) {
          t->notifyEvent(i % 2 == 0 ? TavloStreamingEventPlay : TavloStreamingEventPause);
        }
        t->setMediaVolume(i);
        t->setNewLevel1(std::to_string(i));
        t->setSendingMode(TavloSendingModeLive);
        if (i % 10 == 0) t->setDelegate(i % 20 == 0 ? delegate : nullptr);
        if (!fastQueue->waitForFiringsAfter(seen + 1)) {  // two firings: events and timers keep meeting
          ADD_FAILURE() << "the main queue stopped firing";
          return;
        }
      }
      // Odd rounds let go of a playing tagger, its timers still armed.
    }
  });
  application.join();
  fastQueue->cancel(metronome);

  // Ranks must reach the agent in order, whichever thread made the hit: within one
  // medium each hit follows the one before, and a stop starts the count again.
  const auto received = hits();
  std::map<std::string, const TavloParameters*> previous;
  size_t polls = 0;
  size_t stops = 0;
  for (const auto& hit : received) {
    const std::string& medium = hit.at("cmsSN");
    const TavloParameters* before = previous[medium];
    const bool fresh = before == nullptr || before->at("cmsPS") == "12";
    const int64_t expected = fresh ? 1 : std::stoll(before->at("cmsRK")) + 1;
    ASSERT_EQ(std::to_string(expected), hit.at("cmsRK")) << medium << " " << hit.at("cmsEV") << " " << hit.at("cmsPS");
    previous[medium] = &hit;
    polls += hit.at("cmsEV") == "polling" ? 1 : 0;
    stops += hit.at("cmsPS") == "12" ? 1 : 0;
  }
  EXPECT_EQ(static_cast<size_t>(kRounds / 2), stops);
  EXPECT_GT(polls, 0u) << "polling never met the events";
  EXPECT_GT(delegate->calls.load(), kRounds * kEventsPerRound / 2);
}

}  // namespace
