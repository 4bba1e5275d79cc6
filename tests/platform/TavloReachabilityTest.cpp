// The monitor the agent and the streaming tagger ask before each send: whether the network
// counts as reachable and how (the hit's network name), and each change reported on the
// source's thread, then as a notification on the main queue.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "platform/TavloReachability.h"
#include "support/TavloLoggingFixture.h"

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr uint32_t W = TavloReachabilityFlagIsWWAN;
constexpr uint32_t TC = TavloReachabilityFlagTransientConnection | TavloReachabilityFlagConnectionRequired;

using Monitor = std::shared_ptr<TavloReachability>;

class TavloReachabilityTest : public TavloLoggingTest {
 protected:
  Monitor internetMonitor() { return TavloReachability::reachabilityForInternetConnection(test.platform, center); }

  std::shared_ptr<TavloNotificationCenter> center = std::make_shared<TavloNotificationCenter>();
};

TEST_F(TavloReachabilityTest, TheInternetMonitorWatchesAnyRouteAndGivesReachabilityAndStatusFromOneReading) {
  const std::tuple<uint32_t, bool, TavloReachabilityStatus> cases[] = {  // flags, cellular counts, status
      {R, true, TavloReachabilityStatusWiFi}, {0, true, TavloReachabilityStatusNone}, {W, true, TavloReachabilityStatusNone},
      {R | TC, true, TavloReachabilityStatusNone},  // a transient connection still to be made
      {R | TavloReachabilityFlagConnectionRequired, true, TavloReachabilityStatusWiFi}, {0xFFFFFFFF, true, TavloReachabilityStatusNone},
      {R | W, true, TavloReachabilityStatusWWAN}, {R | W, false, TavloReachabilityStatusNone}};
  auto monitor = internetMonitor();
  EXPECT_EQ(std::vector<uint32_t>{0}, test.reachability->addressesAsked()) << "0.0.0.0 stands for any route";
  EXPECT_TRUE(monitor->reachableOnWWAN()) << "a box on a cellular modem sends unless told otherwise";
  for (const auto& [flags, cellularCounts, status] : cases) {
    monitor->setReachableOnWWAN(cellularCounts);
    test.reachability->setFlags(flags);
    EXPECT_EQ(status, monitor->currentReachabilityStatus()) << std::hex << flags << " " << cellularCounts;
    EXPECT_EQ(status != TavloReachabilityStatusNone, monitor->isReachable()) << std::hex << flags << " " << cellularCounts;
  }
  test.reachability->setFlags(R);
  test.reachability->setFlagsUnreadable(true);
  EXPECT_FALSE(monitor->isReachable() || monitor->currentReachabilityStatus() || monitor->reachabilityFlags());

  EXPECT_EQ(nullptr, TavloReachability::reachabilityForInternetConnection(nullptr, test.mainQueue, center));
  EXPECT_EQ(nullptr, TavloReachability::reachabilityForInternetConnection(test.reachability, nullptr, center));
  test.reachability->setRefusesTargets(true);
  EXPECT_EQ(nullptr, internetMonitor());
}

TEST_F(TavloReachabilityTest, EachChangeCallsItsCallbackOnTheSourcesThreadThenNotifiesOnTheMainQueueUntilStopped) {
  auto monitor = internetMonitor();
  std::vector<std::string> calls;
  std::vector<const void*> senders;
  const auto callback = [&](const char* name) {
    return [&, name](const Monitor& which) {
      calls.push_back((which == monitor ? name : "another monitor") + (" on " + std::to_string(gettid())));
      if (calls.size() == 1 && calls[0].starts_with("unreachable")) throw std::runtime_error("app bug");
    };
  };
  monitor->setReachableBlock(callback("reachable"));
  monitor->setUnreachableBlock(callback("unreachable"));
  center->addObserver(std::string(kTavloReachabilityChangedNotification), [](const std::string&, const void*) { throw 7; });
  center->addObserver(std::string(kTavloReachabilityChangedNotification), [&](const std::string&, const void* sender) {
    senders.push_back(test.mainQueue->isCurrent() ? sender : nullptr);
  });
  ASSERT_TRUE(monitor->startNotifier());
  for (const auto& [flags, expected] : {std::pair<uint32_t, const char*>{R, "reachable"}, {R | TC, "unreachable"}, {R | W, "reachable"}}) {
    calls.clear(), senders.clear();
    pid_t sourceThread = 0;
    std::thread([&, flags = flags] { sourceThread = gettid(), test.reachability->setFlags(flags); }).join();
    EXPECT_EQ(std::vector<std::string>{expected + (" on " + std::to_string(sourceThread))}, calls) << "at once, once, on the source's thread";
    EXPECT_TRUE(senders.empty()) << flags << ": the notification waits for the main queue";
    test.mainQueue->runUntilIdle();
    EXPECT_EQ(std::vector<const void*>{monitor.get()}, senders) << flags << ": one notification, from the monitor, on the queue";
  }
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A reachability callback threw (app bug)")) << "and the change still announced";
  EXPECT_TRUE(test.logSink->contains("(ERROR) : An observer of kTavloReachabilityChangedNotification threw")) << "the next one still hears";

  monitor->stopNotifier();
  calls.clear(), senders.clear();
  test.reachability->setFlags(0);
  test.mainQueue->runUntilIdle();
  EXPECT_TRUE(calls.empty() && senders.empty() && test.reachability->watchingCount() == 0) << "a stopped monitor is silent";
}

TEST_F(TavloReachabilityTest, ANotifyingMonitorKeepsItselfAliveUntilStoppedAndNoLonger) {
  auto monitor = internetMonitor();
  std::weak_ptr<TavloReachability> weak = monitor;
  uint32_t seenFromObserver = 0xDEAD;
  monitor->setUnreachableBlock([](const Monitor& which) { which->stopNotifier(); });
  center->addObserver(std::string(kTavloReachabilityChangedNotification), [&](const std::string&, const void* sender) {
    seenFromObserver = static_cast<const TavloReachability*>(sender)->reachabilityFlags();  // must still be alive
  });
  ASSERT_TRUE(monitor->startNotifier());
  monitor.reset();
  ASSERT_FALSE(weak.expired()) << "the application let go, but the monitor is still notifying";
  test.reachability->setFlags(R);
  test.mainQueue->runUntilIdle();
  EXPECT_EQ(R, std::exchange(seenFromObserver, 0xDEAD));
  test.reachability->setFlags(0);  // the callback stops the notifier: nothing holds the monitor now
  EXPECT_TRUE(weak.expired()) << "a stopped monitor nobody holds must go, pending notification or not";
  test.mainQueue->runUntilIdle();
  EXPECT_EQ(0xDEADu, seenFromObserver) << "a notification for a monitor that is gone must not be posted";
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
