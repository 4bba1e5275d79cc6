#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/TavloReachability.h"
#include "support/TavloLoggingFixture.h"
#include "support/TavloTestPlatform.h"

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr uint32_t T = TavloReachabilityFlagTransientConnection;
constexpr uint32_t C = TavloReachabilityFlagConnectionRequired;
constexpr uint32_t W = TavloReachabilityFlagIsWWAN;

using Monitor = std::shared_ptr<TavloReachability>;

class TavloReachabilityTest : public ::testing::Test {
 protected:
  Monitor internetMonitor() { return TavloReachability::reachabilityForInternetConnection(test.platform, center); }

  // Records the change notifications `center` delivers, by sender.
  void observeChanges() {
    center->addObserver(std::string(kTavloReachabilityChangedNotification),
                        [this](const std::string&, const void* sender) { senders.push_back(sender); });
  }

  TavloTestPlatform test = TavloMakeTestPlatform();
  std::shared_ptr<TavloNotificationCenter> center = std::make_shared<TavloNotificationCenter>();
  std::vector<const void*> senders;
};

// ---- Factories and queries ----

TEST_F(TavloReachabilityTest, EachFactoryAsksTheSourceForItsTargetOrAnswersNull) {
  sockaddr_in someHost{};
  someHost.sin_family = AF_INET;
  inet_pton(AF_INET, "10.1.2.3", &someHost.sin_addr);
  struct Case {
    const char* factory;
    std::function<Monitor()> make;
    std::vector<uint32_t> addresses;
    std::vector<std::string> hostNames;
  };
  const std::vector<Case> cases = {
      {"ForInternetConnection", [&] { return TavloReachability::reachabilityForInternetConnection(test, center); },
       {0x00000000}, {}},
      {"ForLocalWiFi", [&] { return TavloReachability::reachabilityForLocalWiFi(test, center); }, {0xA9FE0000}, {}},
      {"WithAddress", [&] { return TavloReachability::reachabilityWithAddress(someHost, test, center); }, {0x0A010203}, {}},
      {"WithHostname", [&] { return TavloReachability::reachabilityWithHostname("tv.example", test, center); }, {},
       {"tv.example"}},
      {"WithHostName", [&] { return TavloReachability::reachabilityWithHostName("tv.example", test, center); }, {},
       {"tv.example"}},
      {"ForInternetConnection (pieces)",
       [&] { return TavloReachability::reachabilityForInternetConnection(test.reachability, test.mainQueue, center); },
       {0x00000000}, {}},
      {"WithAddress (pieces)",
       [&] { return TavloReachability::reachabilityWithAddress(someHost, test.reachability, test.mainQueue); },
       {0x0A010203}, {}},
  };
  for (const Case& c : cases) {
    test = TavloMakeTestPlatform();
    auto monitor = c.make();
    ASSERT_NE(nullptr, monitor) << c.factory;
    EXPECT_TRUE(monitor->reachableOnWWAN()) << c.factory << ": reachableOnWWAN starts true";
    EXPECT_FALSE(monitor->TEST_isNotifying()) << c.factory << ": a new monitor is idle";
    EXPECT_EQ(c.addresses, test.reachability->addressesAsked()) << c.factory;
    EXPECT_EQ(c.hostNames, test.reachability->hostNamesAsked()) << c.factory;
    test.reachability->setRefusesTargets(true);
    EXPECT_EQ(nullptr, c.make()) << c.factory << " with a source that refuses the target";
  }

  test = TavloMakeTestPlatform();
  TavloPlatform noSource = test.platform;
  noSource.reachabilitySource = nullptr;
  EXPECT_EQ(nullptr, TavloReachability::reachabilityForInternetConnection(noSource, center));
  TavloPlatform noQueue = test.platform;
  noQueue.mainQueue = nullptr;
  EXPECT_EQ(nullptr, TavloReachability::reachabilityForLocalWiFi(noQueue, center));
  EXPECT_EQ(nullptr, TavloReachability::initWithReachabilityRef(nullptr, test.mainQueue, center));

  auto withoutCentre = TavloReachability::reachabilityForInternetConnection(test.platform);
  ASSERT_NE(nullptr, withoutCentre);
  const TavloObserverToken token = TavloNotificationCenter::defaultCenter()->addObserver(
      std::string(kTavloReachabilityChangedNotification),
      [this](const std::string&, const void* sender) { senders.push_back(sender); });
  withoutCentre->reachabilityChanged(0);
  test.mainQueue->runUntilIdle();
  TavloNotificationCenter::defaultCenter()->removeObserver(token);
  EXPECT_EQ(std::vector<const void*>{withoutCentre.get()}, senders) << "no centre means the default centre";
}

TEST_F(TavloReachabilityTest, IsReachableWithFlagsFollowsTheThreeRules) {
  struct Case {
    uint32_t flags;
    bool cellularCounts;
    bool reachable;
  };
  const Case cases[] = {
      {R, true, true},
      {0, true, false},
      {R | T | C, true, false},  // a transient connection still to be made
      {R | T, true, true},
      {R | C, true, true},
      {T | C, true, false},
      {R | W, true, true},
      {R | W, false, false},  // cellular while cellular does not count
      {R, false, true},
      {W, true, false},
      {0xFFFFFFFF, true, false},
      {R | TavloReachabilityFlagIsDirect | TavloReachabilityFlagIsLocalAddress, false, true},
  };
  auto monitor = internetMonitor();
  for (const Case& c : cases) {
    monitor->setReachableOnWWAN(c.cellularCounts);
    EXPECT_EQ(c.reachable, monitor->isReachableWithFlags(c.flags))
        << std::hex << "flags 0x" << c.flags << " cellular counts " << c.cellularCounts;
    test.reachability->setFlags(c.flags);
    EXPECT_EQ(c.reachable, monitor->isReachable()) << std::hex << "current flags 0x" << c.flags;
  }
}

TEST_F(TavloReachabilityTest, QueriesReadTheCurrentFlagsAndUnreadableFlagsAnswerNothing) {
  constexpr uint32_t OnTraffic = TavloReachabilityFlagConnectionOnTraffic;
  constexpr uint32_t OnDemand = TavloReachabilityFlagConnectionOnDemand;
  constexpr uint32_t Intervention = TavloReachabilityFlagInterventionRequired;
  struct Case {
    uint32_t flags;
    bool viaWWAN, viaWiFi, connectionRequired, onDemand, intervention;
    TavloReachabilityStatus status;
    bool unreadable = false;
  };
  const Case cases[] = {
      {0, false, false, false, false, false, TavloReachabilityStatusNone},
      {R, false, true, false, false, false, TavloReachabilityStatusWiFi},
      {R | W, true, false, false, false, false, TavloReachabilityStatusWWAN},
      {W, false, false, false, false, false, TavloReachabilityStatusNone},
      {R | T | C, false, true, true, false, false, TavloReachabilityStatusNone},
      {R | C | OnTraffic, false, true, true, true, false, TavloReachabilityStatusWiFi},
      {R | C | OnDemand, false, true, true, true, false, TavloReachabilityStatusWiFi},
      {OnTraffic | OnDemand, false, false, false, false, false, TavloReachabilityStatusNone},
      {C | Intervention, false, false, true, false, true, TavloReachabilityStatusNone},
      {Intervention, false, false, false, false, false, TavloReachabilityStatusNone},
      {0xFFFFFFFF, false, false, false, false, false, TavloReachabilityStatusNone, /*unreadable=*/true},
  };
  auto monitor = internetMonitor();
  for (const Case& c : cases) {
    test.reachability->setFlags(c.flags);
    test.reachability->setFlagsUnreadable(c.unreadable);
    SCOPED_TRACE(testing::Message() << std::hex << "flags 0x" << c.flags << (c.unreadable ? ", unreadable" : ""));
    EXPECT_EQ(c.viaWWAN, monitor->isReachableViaWWAN());
    EXPECT_EQ(c.viaWiFi, monitor->isReachableViaWiFi());
    EXPECT_EQ(c.connectionRequired, monitor->connectionRequired());
    EXPECT_EQ(c.connectionRequired, monitor->isConnectionRequired());
    EXPECT_EQ(c.onDemand, monitor->isConnectionOnDemand());
    EXPECT_EQ(c.intervention, monitor->isInterventionRequired());
    EXPECT_EQ(c.status, monitor->currentReachabilityStatus());
    EXPECT_EQ(c.status != TavloReachabilityStatusNone, monitor->isReachable());
    const uint32_t read = c.unreadable ? 0 : c.flags;
    EXPECT_EQ(read, monitor->reachabilityFlags());
    EXPECT_EQ(TavloReachability::flagsText(read), monitor->currentReachabilityFlags());
  }
}

TEST_F(TavloReachabilityTest, ReachabilityStringComparesTheStatusWithTheCellularSetting) {
  struct Case {
    uint32_t flags;
    bool cellularCounts;
    const char* word;
  };
  const Case cases[] = {
      {R | W, true, "Cellular"},   // status 1
      {R, true, "WiFi"},           // status 2
      {0, true, "No Connection"},  // status 0
      {0, false, "Cellular"},      // status 0 equals "false": kept as it is
      {R | W, false, "Cellular"},  // cellular does not count: status 0 again
      {R, false, "WiFi"},
      {R | T | C, true, "No Connection"},
  };
  auto monitor = internetMonitor();
  for (const Case& c : cases) {
    test.reachability->setFlags(c.flags);
    monitor->setReachableOnWWAN(c.cellularCounts);
    EXPECT_EQ(c.word, monitor->currentReachabilityString())
        << std::hex << "flags 0x" << c.flags << " cellular counts " << c.cellularCounts;
  }
  test.reachability->setFlagsUnreadable(true);
  monitor->setReachableOnWWAN(true);
  EXPECT_EQ("No Connection", monitor->currentReachabilityString()) << "unreadable flags";
}

TEST_F(TavloReachabilityTest, FlagsTextHasALetterPerBitInItsPlace) {
  const std::pair<uint32_t, const char*> cases[] = {
      {0x0, "-- -------"},     {0x2, "-R -------"},     {0x40002, "WR -------"}, {0x30005, "-- ct---ld"},
      {0x40000, "W- -------"}, {0x4, "-- c------"},     {0x1, "-- -t-----"},     {0x10, "-- --i----"},
      {0x8, "-- ---C---"},     {0x20, "-- ----D--"},    {0x10000, "-- -----l-"}, {0x20000, "-- ------d"},
      {0x7003F, "WR ctiCDld"},
      {0xFFF80000 | 0x40 | 0xFFC0, "-- -------"},  // bits with no letter are not shown
  };
  for (const auto& [flags, text] : cases) {
    EXPECT_EQ(text, TavloReachability::flagsText(flags)) << std::hex << "flags 0x" << flags;
  }
}

// ---- Notifying ----

TEST_F(TavloReachabilityTest, ChangesCallTheMatchingCallbackOnTheSourcesThreadThenNotifyOnTheMainQueue) {
  struct Case {
    uint32_t flags;
    bool cellularCounts;
    const char* expected;
  };
  const Case cases[] = {
      {R, true, "reachable"},        {0, true, "unreachable"},         {R | W, true, "reachable"},
      {R | W, false, "unreachable"}, {R | T | C, true, "unreachable"}, {R | C, true, "reachable"},
  };
  auto monitor = internetMonitor();
  std::vector<std::string> calls;
  std::thread::id callbackThread;
  const auto callback = [&](const char* name) {
    return [&, name](const Monitor& which) {
      calls.push_back(which == monitor ? name : "another monitor");
      callbackThread = std::this_thread::get_id();
    };
  };
  monitor->setReachableBlock(callback("reachable"));
  monitor->setUnreachableBlock(callback("unreachable"));
  center->addObserver(std::string(kTavloReachabilityChangedNotification), [&](const std::string&, const void* sender) {
    senders.push_back(test.mainQueue->isCurrent() ? sender : nullptr);
  });
  ASSERT_TRUE(monitor->startNotifier());
  EXPECT_TRUE(monitor->TEST_isNotifying());

  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << "flags 0x" << c.flags << " cellular counts " << c.cellularCounts);
    calls.clear();
    senders.clear();
    monitor->setReachableOnWWAN(c.cellularCounts);
    std::thread source([&] { test.reachability->setFlags(c.flags); });
    const std::thread::id sourceThread = source.get_id();
    source.join();
    EXPECT_EQ(std::vector<std::string>{c.expected}, calls) << "the callback runs at once";
    EXPECT_EQ(sourceThread, callbackThread) << "the callback runs on the source's thread";
    EXPECT_TRUE(senders.empty()) << "the notification waits for the main queue";
    test.mainQueue->runUntilIdle();
    EXPECT_EQ(std::vector<const void*>{monitor.get()}, senders) << "one notification, from the monitor, on the queue";
  }
  monitor->stopNotifier();
}

TEST_F(TavloReachabilityTest, NotifierStartsOnceStopsFullyAndFailsCleanly) {
  auto monitor = internetMonitor();
  int calls = 0;
  monitor->setReachableBlock([&](const Monitor&) { ++calls; });
  monitor->setUnreachableBlock([&](const Monitor&) { ++calls; });
  observeChanges();
  monitor->stopNotifier();  // before any start: harmless
  ASSERT_TRUE(monitor->startNotifier());
  ASSERT_TRUE(monitor->startNotifier());
  EXPECT_EQ(1u, test.reachability->watchingCount()) << "starting twice watches once";
  test.reachability->setFlags(0);
  EXPECT_EQ(1, calls) << "starting twice still reports each change once";

  monitor->stopNotifier();
  monitor->stopNotifier();
  EXPECT_FALSE(monitor->TEST_isNotifying());
  EXPECT_EQ(0u, test.reachability->watchingCount());
  test.mainQueue->runUntilIdle();
  senders.clear();
  test.reachability->setFlags(R);
  test.mainQueue->runUntilIdle();
  EXPECT_EQ(1, calls) << "a stopped monitor calls nothing";
  EXPECT_TRUE(senders.empty()) << "a stopped monitor posts nothing";

  ASSERT_TRUE(monitor->startNotifier()) << "a stopped monitor can start again";
  test.reachability->setFlags(0);
  EXPECT_EQ(2, calls);
  monitor->stopNotifier();

  test.reachability->setWatchingFails(true);
  EXPECT_FALSE(monitor->startNotifier());
  EXPECT_FALSE(monitor->TEST_isNotifying());
  EXPECT_EQ(0u, test.reachability->watchingCount());
  std::weak_ptr<TavloReachability> weak = monitor;
  monitor.reset();
  EXPECT_TRUE(weak.expired()) << "a monitor that failed to start must not keep itself alive";
}

TEST_F(TavloReachabilityTest, NotifyingMonitorKeepsItselfAliveUntilStopped) {
  auto monitor = internetMonitor();
  std::weak_ptr<TavloReachability> weak = monitor;
  std::string seenFromObserver;
  monitor->setUnreachableBlock([](const Monitor& which) { which->stopNotifier(); });
  center->addObserver(std::string(kTavloReachabilityChangedNotification), [&](const std::string&, const void* sender) {
    // The sender must still be a live monitor while observers run.
    seenFromObserver = static_cast<const TavloReachability*>(sender)->currentReachabilityFlags();
  });
  ASSERT_TRUE(monitor->startNotifier());
  monitor.reset();
  ASSERT_FALSE(weak.expired()) << "the application let go, but the monitor is still notifying";

  test.reachability->setFlags(R);  // a change while only the monitor holds itself
  test.mainQueue->runUntilIdle();
  EXPECT_EQ("-R -------", seenFromObserver) << "the sender was not a live monitor while observers ran";

  seenFromObserver.clear();
  test.reachability->setFlags(0);  // the callback stops the notifier: nothing holds the monitor now
  EXPECT_EQ(0u, test.reachability->watchingCount());
  EXPECT_TRUE(weak.expired()) << "a stopped monitor nobody holds must go, pending notification or not";
  test.mainQueue->runUntilIdle();
  EXPECT_EQ("", seenFromObserver) << "a notification for a monitor that is gone must not be posted";
}

TEST_F(TavloReachabilityTest, DestroyingAMonitorStopsItsWatchingAndSilencesStaleCallbacks) {
  // A handle that keeps what the monitor gives it, as a source might.
  class KeepingHandle : public TavloReachabilityHandle {
   public:
    std::optional<uint32_t> currentFlags() override { return R; }
    bool startWatching(std::function<void(uint32_t)> onChange) override {
      callback = std::move(onChange);
      return true;
    }
    void stopWatching() override { ++stops; }
    std::function<void(uint32_t)> callback;
    int stops = 0;
  };
  auto handle = std::make_shared<KeepingHandle>();
  auto monitor = TavloReachability::initWithReachabilityRef(handle, test.mainQueue, center);
  ASSERT_NE(nullptr, monitor);
  EXPECT_EQ(handle, monitor->reachabilityRef());
  monitor.reset();
  EXPECT_EQ(1, handle->stops) << "an idle monitor stops its handle when it goes";

  monitor = TavloReachability::initWithReachabilityRef(handle, test.mainQueue, center);
  ASSERT_TRUE(monitor->startNotifier());
  monitor->stopNotifier();
  monitor.reset();
  observeChanges();
  handle->callback(0);  // a copy the source kept past the monitor's end
  test.mainQueue->runUntilIdle();
  EXPECT_TRUE(senders.empty());
}

TEST_F(TavloReachabilityTest, CallbacksMayBeSwappedWhileChangesArrive) {
  auto monitor = internetMonitor();
  std::atomic<int> calls{0};
  const TavloReachability::Block counting = [&](const Monitor&) { ++calls; };
  ASSERT_TRUE(monitor->startNotifier());
  std::thread swapper([&] {
    for (int i = 0; i < 2000; ++i) {
      monitor->setReachableBlock(counting);
      monitor->setUnreachableBlock(i % 2 == 0 ? TavloReachability::Block() : counting);
      (void)monitor->reachableBlock();
    }
  });
  for (int i = 0; i < 2000; ++i) test.reachability->setFlags(i % 2 == 0 ? R : 0);
  swapper.join();
  // The last swap left both callbacks set: each change now calls exactly one of them.
  calls = 0;
  test.reachability->setFlags(0);
  test.reachability->setFlags(R);
  EXPECT_EQ(2, calls.load());
  monitor->stopNotifier();
}

using TavloReachabilityLogging = TavloLoggingTest;

TEST_F(TavloReachabilityLogging, CallbackThatThrowsIsLoggedAndTheChangeStillAnnounced) {
  auto center = std::make_shared<TavloNotificationCenter>();
  auto monitor = TavloReachability::reachabilityForInternetConnection(test.platform, center);
  int heard = 0;
  center->addObserver(std::string(kTavloReachabilityChangedNotification), [&](const std::string&, const void*) { ++heard; });
  monitor->setUnreachableBlock([](const Monitor&) { throw std::runtime_error("app bug"); });
  ASSERT_TRUE(monitor->startNotifier());
  test.reachability->setFlags(0);
  test.mainQueue->runUntilIdle();
  EXPECT_EQ(1, heard);
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A reachability callback threw (app bug)"));
  monitor->stopNotifier();
}

}  // namespace
