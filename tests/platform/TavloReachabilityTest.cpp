#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
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

sockaddr_in ipv4(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, text, &address.sin_addr);
  return address;
}

class TavloReachabilityTest : public ::testing::Test {
 protected:
  std::shared_ptr<TavloReachability> internetMonitor() {
    return TavloReachability::reachabilityForInternetConnection(test.platform, center);
  }

  // Counts the change notifications `center` delivers, with their senders.
  void observeChanges() {
    center->addObserver(std::string(kTavloReachabilityChangedNotification),
                        [this](const std::string& name, const void* sender) {
                          EXPECT_EQ(kTavloReachabilityChangedNotification, name);
                          senders.push_back(sender);
                        });
  }

  TavloTestPlatform test = TavloMakeTestPlatform();
  std::shared_ptr<TavloNotificationCenter> center = std::make_shared<TavloNotificationCenter>();
  std::vector<const void*> senders;
};

// ---- Factories ----

TEST_F(TavloReachabilityTest, EachFactoryAsksTheSourceForItsTarget) {
  struct Case {
    const char* factory;
    std::function<std::shared_ptr<TavloReachability>()> make;
    std::vector<uint32_t> addresses;
    std::vector<std::string> hostNames;
  };
  const sockaddr_in someHost = ipv4("10.1.2.3");
  const std::vector<Case> cases = {
      {"reachabilityForInternetConnection", [&] { return TavloReachability::reachabilityForInternetConnection(test, center); },
       {0x00000000}, {}},
      {"reachabilityForLocalWiFi", [&] { return TavloReachability::reachabilityForLocalWiFi(test, center); },
       {0xA9FE0000}, {}},
      {"reachabilityWithAddress", [&] { return TavloReachability::reachabilityWithAddress(someHost, test, center); },
       {0x0A010203}, {}},
      {"reachabilityWithHostname", [&] { return TavloReachability::reachabilityWithHostname("tv.example", test, center); },
       {}, {"tv.example"}},
      {"reachabilityWithHostName", [&] { return TavloReachability::reachabilityWithHostName("tv.example", test, center); },
       {}, {"tv.example"}},
      {"reachabilityForInternetConnection (pieces)",
       [&] { return TavloReachability::reachabilityForInternetConnection(test.reachability, test.mainQueue, center); },
       {0x00000000}, {}},
      {"reachabilityWithAddress (pieces)",
       [&] { return TavloReachability::reachabilityWithAddress(someHost, test.reachability, test.mainQueue); },
       {0x0A010203}, {}},
  };
  for (const Case& c : cases) {
    TavloTestPlatform fresh = TavloMakeTestPlatform();
    test = fresh;
    auto monitor = c.make();
    ASSERT_NE(nullptr, monitor) << c.factory;
    EXPECT_TRUE(monitor->reachableOnWWAN()) << c.factory << ": reachableOnWWAN starts true";
    EXPECT_FALSE(monitor->TEST_isNotifying()) << c.factory << ": a new monitor is idle";
    EXPECT_EQ(c.addresses, test.reachability->addressesAsked()) << c.factory;
    EXPECT_EQ(c.hostNames, test.reachability->hostNamesAsked()) << c.factory;
  }
}

TEST_F(TavloReachabilityTest, FactoriesAnswerNullWhenRefusedOrIncomplete) {
  const sockaddr_in someHost = ipv4("10.1.2.3");
  test.reachability->setRefusesTargets(true);
  EXPECT_EQ(nullptr, TavloReachability::reachabilityForInternetConnection(test, center));
  EXPECT_EQ(nullptr, TavloReachability::reachabilityForLocalWiFi(test, center));
  EXPECT_EQ(nullptr, TavloReachability::reachabilityWithAddress(someHost, test, center));
  EXPECT_EQ(nullptr, TavloReachability::reachabilityWithHostname("tv.example", test, center));
  EXPECT_EQ(nullptr, TavloReachability::reachabilityWithHostName("tv.example", test, center));
  test.reachability->setRefusesTargets(false);

  TavloPlatform noSource = test.platform;
  noSource.reachabilitySource = nullptr;
  EXPECT_EQ(nullptr, TavloReachability::reachabilityForInternetConnection(noSource, center));
  TavloPlatform noQueue = test.platform;
  noQueue.mainQueue = nullptr;
  EXPECT_EQ(nullptr, TavloReachability::reachabilityForLocalWiFi(noQueue, center));
  EXPECT_EQ(nullptr, TavloReachability::initWithReachabilityRef(nullptr, test.mainQueue, center));
  EXPECT_NE(nullptr, TavloReachability::reachabilityForInternetConnection(test.platform))
      << "no centre means the default centre";
}

// ---- Queries ----

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
      {R | W, false, false},     // cellular while cellular does not count
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

TEST_F(TavloReachabilityTest, QueriesReadTheCurrentFlags) {
  struct Case {
    uint32_t flags;
    bool viaWWAN, viaWiFi, connectionRequired, onDemand, intervention;
    TavloReachabilityStatus status;
  };
  constexpr uint32_t OnTraffic = TavloReachabilityFlagConnectionOnTraffic;
  constexpr uint32_t OnDemand = TavloReachabilityFlagConnectionOnDemand;
  constexpr uint32_t Intervention = TavloReachabilityFlagInterventionRequired;
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
  };
  auto monitor = internetMonitor();
  for (const Case& c : cases) {
    test.reachability->setFlags(c.flags);
    SCOPED_TRACE(testing::Message() << std::hex << "flags 0x" << c.flags);
    EXPECT_EQ(c.viaWWAN, monitor->isReachableViaWWAN());
    EXPECT_EQ(c.viaWiFi, monitor->isReachableViaWiFi());
    EXPECT_EQ(c.connectionRequired, monitor->connectionRequired());
    EXPECT_EQ(c.connectionRequired, monitor->isConnectionRequired());
    EXPECT_EQ(c.onDemand, monitor->isConnectionOnDemand());
    EXPECT_EQ(c.intervention, monitor->isInterventionRequired());
    EXPECT_EQ(c.status, monitor->currentReachabilityStatus());
    EXPECT_EQ(c.flags, monitor->reachabilityFlags());
  }
}

TEST_F(TavloReachabilityTest, UnreadableFlagsAnswerFalseZeroAndEmpty) {
  auto monitor = internetMonitor();
  test.reachability->setFlags(0xFFFFFFFF);
  test.reachability->setFlagsUnreadable(true);
  EXPECT_FALSE(monitor->isReachable());
  EXPECT_FALSE(monitor->isReachableViaWWAN());
  EXPECT_FALSE(monitor->isReachableViaWiFi());
  EXPECT_FALSE(monitor->connectionRequired());
  EXPECT_FALSE(monitor->isConnectionRequired());
  EXPECT_FALSE(monitor->isConnectionOnDemand());
  EXPECT_FALSE(monitor->isInterventionRequired());
  EXPECT_EQ(TavloReachabilityStatusNone, monitor->currentReachabilityStatus());
  EXPECT_EQ(0u, monitor->reachabilityFlags());
  EXPECT_EQ("-- -------", monitor->currentReachabilityFlags());
  EXPECT_EQ("No Connection", monitor->currentReachabilityString());
}

TEST_F(TavloReachabilityTest, QueriesAskTheSourceEveryTime) {
  auto monitor = internetMonitor();
  const size_t before = test.reachability->flagsReadCount();
  test.reachability->setFlags(R);
  EXPECT_TRUE(monitor->isReachable());
  test.reachability->setFlags(0);
  EXPECT_FALSE(monitor->isReachable());
  EXPECT_EQ(TavloReachabilityStatusNone, monitor->currentReachabilityStatus());
  EXPECT_EQ(before + 3, test.reachability->flagsReadCount()) << "one read per query, nothing cached";
}

TEST_F(TavloReachabilityTest, ReachabilityStringComparesTheStatusWithTheCellularSetting) {
  struct Case {
    uint32_t flags;
    bool cellularCounts;
    const char* word;
  };
  const Case cases[] = {
      {R | W, true, "Cellular"},       // status 1
      {R, true, "WiFi"},               // status 2
      {0, true, "No Connection"},      // status 0
      {0, false, "Cellular"},          // status 0 equals "false": kept as it is
      {R | W, false, "Cellular"},      // cellular does not count: status 0 again
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
}

TEST_F(TavloReachabilityTest, FlagsTextHasALetterPerBitInItsPlace) {
  struct Case {
    uint32_t flags;
    const char* text;
  };
  const Case cases[] = {
      {0x0, "-- -------"},
      {0x2, "-R -------"},
      {0x40002, "WR -------"},
      {0x30005, "-- ct---ld"},
      {0x40000, "W- -------"},
      {0x4, "-- c------"},
      {0x1, "-- -t-----"},
      {0x10, "-- --i----"},
      {0x8, "-- ---C---"},
      {0x20, "-- ----D--"},
      {0x10000, "-- -----l-"},
      {0x20000, "-- ------d"},
      {0x7003F, "WR ctiCDld"},
      {0xFFF80000 | 0x40 | 0xFFC0, "-- -------"},  // bits with no letter are not shown
  };
  auto monitor = internetMonitor();
  for (const Case& c : cases) {
    EXPECT_EQ(c.text, TavloReachability::flagsText(c.flags)) << std::hex << "flags 0x" << c.flags;
    test.reachability->setFlags(c.flags);
    EXPECT_EQ(c.text, monitor->currentReachabilityFlags()) << std::hex << "current flags 0x" << c.flags;
  }
}

TEST_F(TavloReachabilityTest, DescriptionNamesTheClassAndThe32BitIdentity) {
  auto monitor = internetMonitor();
  char expected[64];
  std::snprintf(expected, sizeof expected, "<TavloReachability: %#x>",
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(monitor.get()) & 0xFFFFFFFFu));
  EXPECT_EQ(expected, monitor->description());
  EXPECT_EQ(0u, monitor->description().find("<TavloReachability: 0x"));
  EXPECT_NE(monitor->description(), internetMonitor()->description()) << "two monitors, two identities";
}

// ---- Notifying ----

TEST_F(TavloReachabilityTest, ChangesCallTheMatchingCallbackThenNotifyOnTheMainQueue) {
  struct Case {
    uint32_t flags;
    bool cellularCounts;
    const char* expected;
  };
  const Case cases[] = {
      {R, true, "reachable"},
      {0, true, "unreachable"},
      {R | W, true, "reachable"},
      {R | W, false, "unreachable"},
      {R | T | C, true, "unreachable"},
      {R | C, true, "reachable"},
  };
  auto monitor = internetMonitor();
  std::vector<std::string> calls;
  monitor->setReachableBlock([&](const std::shared_ptr<TavloReachability>& which) {
    EXPECT_EQ(monitor, which);
    calls.push_back("reachable");
  });
  monitor->setUnreachableBlock([&](const std::shared_ptr<TavloReachability>& which) {
    EXPECT_EQ(monitor, which);
    calls.push_back("unreachable");
  });
  observeChanges();
  ASSERT_TRUE(monitor->startNotifier());
  EXPECT_TRUE(monitor->TEST_isNotifying());
  EXPECT_EQ(1u, test.reachability->watchingCount());

  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << "flags 0x" << c.flags << " cellular counts " << c.cellularCounts);
    calls.clear();
    senders.clear();
    monitor->setReachableOnWWAN(c.cellularCounts);
    test.reachability->setFlags(c.flags);
    EXPECT_EQ(std::vector<std::string>{c.expected}, calls) << "the callback runs at once, on the source's thread";
    EXPECT_TRUE(senders.empty()) << "the notification waits for the main queue";
    EXPECT_EQ(1u, test.mainQueue->pendingCount());
    test.mainQueue->runUntilIdle();
    EXPECT_EQ(std::vector<const void*>{monitor.get()}, senders);
  }
  monitor->stopNotifier();
}

TEST_F(TavloReachabilityTest, CallbacksRunOnTheSourcesThreadAndNotificationsOnTheQueues) {
  auto monitor = internetMonitor();
  std::thread::id callbackThread;
  std::thread::id observerThread;
  bool observerSawMainQueue = false;
  monitor->setUnreachableBlock([&](const std::shared_ptr<TavloReachability>&) { callbackThread = std::this_thread::get_id(); });
  center->addObserver(std::string(kTavloReachabilityChangedNotification), [&](const std::string&, const void*) {
    observerThread = std::this_thread::get_id();
    observerSawMainQueue = test.mainQueue->isCurrent();
  });
  ASSERT_TRUE(monitor->startNotifier());
  std::thread sourceThread([&] { test.reachability->setFlags(0); });
  const std::thread::id sourceId = sourceThread.get_id();
  sourceThread.join();
  test.mainQueue->runUntilIdle();
  EXPECT_EQ(sourceId, callbackThread);
  EXPECT_EQ(std::this_thread::get_id(), observerThread);
  EXPECT_TRUE(observerSawMainQueue);
  monitor->stopNotifier();
}

TEST_F(TavloReachabilityTest, StopNotifierStopsEverything) {
  auto monitor = internetMonitor();
  int calls = 0;
  monitor->setReachableBlock([&](const std::shared_ptr<TavloReachability>&) { ++calls; });
  monitor->setUnreachableBlock([&](const std::shared_ptr<TavloReachability>&) { ++calls; });
  observeChanges();
  monitor->stopNotifier();  // before any start: harmless
  ASSERT_TRUE(monitor->startNotifier());
  monitor->stopNotifier();
  monitor->stopNotifier();
  EXPECT_FALSE(monitor->TEST_isNotifying());
  EXPECT_EQ(0u, test.reachability->watchingCount());
  test.reachability->setFlags(0);
  test.reachability->setFlags(R);
  EXPECT_EQ(0, calls);
  EXPECT_EQ(0u, test.mainQueue->pendingCount());

  ASSERT_TRUE(monitor->startNotifier()) << "a stopped monitor can start again";
  test.reachability->setFlags(0);
  EXPECT_EQ(1, calls);
  monitor->stopNotifier();
}

TEST_F(TavloReachabilityTest, StartingTwiceStillReportsEachChangeOnce) {
  auto monitor = internetMonitor();
  int calls = 0;
  monitor->setUnreachableBlock([&](const std::shared_ptr<TavloReachability>&) { ++calls; });
  ASSERT_TRUE(monitor->startNotifier());
  ASSERT_TRUE(monitor->startNotifier());
  test.reachability->setFlags(0);
  EXPECT_EQ(1, calls);
  monitor->stopNotifier();
  EXPECT_FALSE(monitor->TEST_isNotifying());
}

TEST_F(TavloReachabilityTest, FailedStartLeavesTheMonitorIdleAndReleasable) {
  auto monitor = internetMonitor();
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
  const void* identity = monitor.get();
  std::string seenFromObserver;
  monitor->setUnreachableBlock([](const std::shared_ptr<TavloReachability>& which) { which->stopNotifier(); });
  center->addObserver(std::string(kTavloReachabilityChangedNotification), [&](const std::string&, const void* sender) {
    // The sender must still be a live monitor while observers run.
    seenFromObserver = static_cast<const TavloReachability*>(sender)->currentReachabilityFlags();
  });
  ASSERT_TRUE(monitor->startNotifier());
  monitor.reset();
  ASSERT_FALSE(weak.expired()) << "the application let go, but the monitor is still notifying";

  test.reachability->setFlags(R);  // a change while only the monitor holds itself
  EXPECT_EQ(1u, test.mainQueue->pendingCount());
  test.mainQueue->runUntilIdle();
  EXPECT_EQ("-R -------", seenFromObserver) << "the sender was not a live monitor while observers ran";

  seenFromObserver.clear();
  test.reachability->setFlags(0);  // the callback stops the notifier: nothing holds the monitor now
  EXPECT_EQ(0u, test.reachability->watchingCount());
  EXPECT_TRUE(weak.expired()) << "a stopped monitor nobody holds must go, pending notification or not";
  test.mainQueue->runUntilIdle();
  EXPECT_EQ("", seenFromObserver) << "a notification for a monitor that is gone must not be posted";
  EXPECT_NE(nullptr, identity);
}

// A handle that counts what the monitor asks of it.
class CountingHandle : public TavloReachabilityHandle {
 public:
  std::optional<uint32_t> currentFlags() override { return R; }
  bool startWatching(std::function<void(uint32_t)> onChange) override {
    callback = std::move(onChange);
    ++starts;
    return true;
  }
  void stopWatching() override {
    callback = nullptr;
    ++stops;
  }
  std::function<void(uint32_t)> callback;
  int starts = 0;
  int stops = 0;
};

TEST_F(TavloReachabilityTest, DestroyingAMonitorStopsItsWatching) {
  auto handle = std::make_shared<CountingHandle>();
  auto monitor = TavloReachability::initWithReachabilityRef(handle, test.mainQueue, center);
  ASSERT_NE(nullptr, monitor);
  EXPECT_EQ(handle, monitor->reachabilityRef());
  monitor.reset();
  EXPECT_EQ(1, handle->stops);
  EXPECT_EQ(0, handle->starts);
}

TEST_F(TavloReachabilityTest, CallbackOutlivingItsMonitorDoesNothing) {
  auto handle = std::make_shared<CountingHandle>();
  auto monitor = TavloReachability::initWithReachabilityRef(handle, test.mainQueue, center);
  ASSERT_TRUE(monitor->startNotifier());
  auto staleCallback = handle->callback;  // as if a source had kept a copy
  monitor->stopNotifier();
  monitor.reset();
  observeChanges();
  staleCallback(0);
  test.mainQueue->runUntilIdle();
  EXPECT_TRUE(senders.empty());
}

TEST_F(TavloReachabilityTest, DefaultCentreCarriesTheNotificationWhenNoneIsGiven) {
  auto monitor = TavloReachability::reachabilityForInternetConnection(test.platform);
  auto center = TavloNotificationCenter::defaultCenter();
  std::vector<const void*> heard;
  const TavloObserverToken token = center->addObserver(
      std::string(kTavloReachabilityChangedNotification),
      [&](const std::string&, const void* sender) { heard.push_back(sender); });
  monitor->reachabilityChanged(0);
  test.mainQueue->runUntilIdle();
  center->removeObserver(token);
  EXPECT_EQ(std::vector<const void*>{monitor.get()}, heard);
}

TEST_F(TavloReachabilityTest, CallbacksMayBeSwappedWhileChangesArrive) {
  auto monitor = internetMonitor();
  std::atomic<int> calls{0};
  ASSERT_TRUE(monitor->startNotifier());
  std::thread swapper([&] {
    for (int i = 0; i < 2000; ++i) {
      monitor->setReachableBlock([&](const std::shared_ptr<TavloReachability>&) { ++calls; });
      monitor->setUnreachableBlock(i % 2 == 0 ? TavloReachability::Block() : [&](const std::shared_ptr<TavloReachability>&) { ++calls; });
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
  monitor->setUnreachableBlock([](const std::shared_ptr<TavloReachability>&) { throw std::runtime_error("app bug"); });
  ASSERT_TRUE(monitor->startNotifier());
  test.reachability->setFlags(0);
  test.mainQueue->runUntilIdle();
  EXPECT_EQ(1, heard);
  EXPECT_TRUE(test.logSink->contains("(ERROR) : A reachability callback threw (app bug)"));
  monitor->stopNotifier();
}

}  // namespace
