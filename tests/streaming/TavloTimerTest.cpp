// The weak-target timer, in virtual time on the manual main queue. Its ordinary firings,
// repeats and lifetime are the streaming tagger's polling and throttle, tested there; here
// the one rule those cannot reach: a stopped timer stays silent even when already due.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "streaming/TavloTimer.h"
#include "tavlo/testkit/TavloManualMainQueue.h"

namespace {

// Records when each firing reached it; may stop another timer.
struct Recorder {
  std::shared_ptr<TavloManualMainQueue> queue;
  std::vector<double> times;
  std::shared_ptr<TavloTimer> victim;
  void fire(const std::shared_ptr<TavloTimer>&) {
    times.push_back(queue->elapsed());
    if (victim) victim->invalidate();
  }
};

class TavloTimerTest : public ::testing::Test {
 protected:
  std::shared_ptr<TavloTimer> arm(double interval, bool repeating, const std::shared_ptr<Recorder>& target) {
    return TavloTimer::TavloTimerWithInterval(queue, interval, std::weak_ptr<Recorder>(target), &Recorder::fire,
                                              repeating);
  }
  std::shared_ptr<Recorder> recorder() { return std::make_shared<Recorder>(Recorder{queue, {}, nullptr}); }

  std::shared_ptr<TavloManualMainQueue> queue = std::make_shared<TavloManualMainQueue>();
};

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
