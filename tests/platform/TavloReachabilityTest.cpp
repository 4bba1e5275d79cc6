// The monitor the agent and the streaming tagger ask before each send: whether the network
// counts as reachable and how (the hit's network name), and each change announced as a
// notification on the main queue, which is all they listen to.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/TavloReachability.h"
#include "support/TavloLoggingFixture.h"

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr uint32_t W = TavloReachabilityFlagIsWWAN;
const std::string kChanged(kTavloReachabilityChangedNotification);

class TavloReachabilityTest : public TavloLoggingTest {
 protected:
  std::shared_ptr<TavloNotificationCenter> center = std::make_shared<TavloNotificationCenter>();
  std::shared_ptr<TavloReachability> monitor = TavloReachability::reachabilityForInternetConnection(test.platform, center);
};

TEST_F(TavloReachabilityTest, TheInternetMonitorWatchesAnyRouteAndGivesReachabilityAndStatusFromOneReading) {
  const std::pair<uint32_t, TavloReachabilityStatus> cases[] = {
      {R, TavloReachabilityStatusWiFi}, {0, TavloReachabilityStatusNone}, {W, TavloReachabilityStatusNone},
      {R | TavloReachabilityFlagConnectionRequired, TavloReachabilityStatusWiFi},
      {R | TavloReachabilityFlagConnectionRequired | TavloReachabilityFlagTransientConnection, TavloReachabilityStatusNone},  // still to be made
      {0xFFFFFFFF, TavloReachabilityStatusNone},
      {R | W, TavloReachabilityStatusWWAN}};  // a box on a cellular modem sends unless told otherwise
  EXPECT_EQ(std::vector<uint32_t>{0}, test.reachability->addressesAsked()) << "0.0.0.0 stands for any route";
  for (const auto& [flags, status] : cases) {
    test.reachability->setFlags(flags);
    EXPECT_EQ(status, monitor->currentReachabilityStatus()) << std::hex << flags;
    EXPECT_EQ(status != TavloReachabilityStatusNone, monitor->isReachable()) << std::hex << flags;
  }
  test.reachability->setFlags(R);
  test.reachability->setFlagsUnreadable(true);
  EXPECT_FALSE(monitor->isReachable() || monitor->currentReachabilityStatus() || monitor->reachabilityFlags());
  test.reachability->setRefusesTargets(true);
  EXPECT_EQ(nullptr, TavloReachability::reachabilityForInternetConnection(test.platform, center)) << "not a monitor that cannot read";
}

// Changes come on the source's own thread; the agent's observer must run on the main queue.
TEST_F(TavloReachabilityTest, EachChangeIsOneNotificationOnTheMainQueueUntilStopped) {
  std::vector<const void*> senders;
  center->addObserver(kChanged, [](const std::string&, const void*) { throw 7; });  // an application's bug
  center->addObserver(kChanged, [&](const std::string&, const void* sender) { senders.push_back(test.mainQueue->isCurrent() ? sender : nullptr); });
  ASSERT_TRUE(monitor->startNotifier());
  for (uint32_t flags : {R, 0u, R | W}) {
    senders.clear();
    std::thread([&] { test.reachability->setFlags(flags); }).join();
    EXPECT_TRUE(senders.empty()) << flags << ": the notification waits for the main queue";
    test.mainQueue->runUntilIdle();
    EXPECT_EQ(std::vector<const void*>{monitor.get()}, senders) << flags << ": one notification, from the monitor, on the queue";
  }
  EXPECT_TRUE(test.logSink->contains("(ERROR) : An observer of kTavloReachabilityChangedNotification threw")) << "the next one still hears";

  monitor->stopNotifier();
  senders.clear();
  test.reachability->setFlags(0);
  test.mainQueue->runUntilIdle();
  EXPECT_TRUE(senders.empty() && test.reachability->watchingCount() == 0) << "a stopped monitor is silent";
}

// The agent and the streaming tagger remove their observers when they go, whatever thread
// is delivering at that moment.
TEST_F(TavloReachabilityTest, TheCentreStartsNoCallAfterARemovalReturnsUnderConcurrentPosting) {
  TavloNotificationCenter busy;
  std::atomic<bool> removed{false}, stop{false};
  std::atomic<int> calls{0}, lateCalls{0};
  const TavloObserverToken token = busy.addObserver("busy", [&](const std::string&, const void*) {
    ++calls;
    std::this_thread::yield();  // widens the window a removal that did not wait would fall into
    if (removed) ++lateCalls;
  });
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) posters.emplace_back([&] { while (!stop) busy.postNotification("busy", nullptr); });
  while (calls < 1000) std::this_thread::yield();
  busy.removeObserver(token);
  removed = true;
  stop = true;
  for (auto& poster : posters) poster.join();
  EXPECT_EQ(0, lateCalls.load()) << "an observer was called, or still running, after removeObserver returned";
}

}  // namespace
