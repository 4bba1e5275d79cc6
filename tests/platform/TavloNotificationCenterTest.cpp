#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/TavloNotificationCenter.h"
#include "support/TavloLoggingFixture.h"

namespace {

constexpr auto kGenerousTimeout = std::chrono::seconds(20);

struct Delivery {
  std::string observer;
  std::string name;
  const void* sender;
  bool operator==(const Delivery&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Delivery& d) {
  return out << d.observer << " got " << d.name << " from " << d.sender;
}

class TavloNotificationCenterTest : public ::testing::Test {
 protected:
  TavloObserverToken observe(const std::string& name, const std::string& observer) {
    return center.addObserver(name, [this, observer](const std::string& posted, const void* sender) {
      deliveries.push_back({observer, posted, sender});
    });
  }

  TavloNotificationCenter center;
  std::vector<Delivery> deliveries;
  const int senderA = 0;
  const int senderB = 0;
};

TEST_F(TavloNotificationCenterTest, DeliversToTheNamesObserversInRegistrationOrderUntilRemoved) {
  observe("changed", "first");
  observe("other", "unrelated");
  const TavloObserverToken gone = observe("changed", "gone");
  observe("changed", "second");
  EXPECT_EQ(0u, center.addObserver("changed", nullptr)) << "an empty observer is refused";
  center.removeObserver(gone);
  center.removeObserver(gone);
  center.removeObserver(0);
  center.removeObserver(123456);

  center.postNotification("changed", &senderA);
  center.postNotification("changed", nullptr);
  center.postNotification("nobody listens", &senderB);
  const std::vector<Delivery> expected = {
      {"first", "changed", &senderA}, {"second", "changed", &senderA},
      {"first", "changed", nullptr},  {"second", "changed", nullptr},
  };
  EXPECT_EQ(expected, deliveries);
  EXPECT_EQ(2u, center.TEST_observerCount("changed"));
}

TEST(TavloNotificationCenterDefault, IsOneProcessWideCentreAndTheNameIsFixed) {
  ASSERT_NE(nullptr, TavloNotificationCenter::defaultCenter());
  EXPECT_EQ(TavloNotificationCenter::defaultCenter(), TavloNotificationCenter::defaultCenter());
  EXPECT_EQ("kTavloReachabilityChangedNotification", kTavloReachabilityChangedNotification);
}

TEST_F(TavloNotificationCenterTest, ChangesMadeDuringADeliveryApplyFromTheNextOne) {
  TavloObserverToken later = 0;
  TavloObserverToken self = 0;
  int selfCalls = 0;
  center.addObserver("changed", [&](const std::string&, const void* sender) {
    deliveries.push_back({"remover", "changed", sender});
    center.removeObserver(later);                 // not yet called in this delivery
    observe("changed", "added during delivery");  // not called in this delivery
    center.postNotification("inner", sender);     // delivered at once, inside this one
  });
  self = center.addObserver("changed", [&](const std::string&, const void*) {
    ++selfCalls;
    center.removeObserver(self);  // must not wait for itself
  });
  later = observe("changed", "removed before its turn");
  observe("inner", "inner");

  center.postNotification("changed", &senderA);
  EXPECT_EQ((std::vector<Delivery>{{"remover", "changed", &senderA}, {"inner", "inner", &senderA}}), deliveries);
  EXPECT_EQ(1, selfCalls);

  deliveries.clear();
  center.postNotification("changed", nullptr);
  EXPECT_EQ(1, selfCalls) << "an observer that removed itself was called again";
  ASSERT_EQ(3u, deliveries.size());
  EXPECT_EQ("added during delivery", deliveries[2].observer);
}

TEST(TavloNotificationCenterThreads, RemovalWaitsForACallRunningOnAnotherThread) {
  TavloNotificationCenter center;
  std::mutex protector;
  std::condition_variable changed;
  bool entered = false;
  bool release = false;
  std::vector<std::string> order;
  const TavloObserverToken token = center.addObserver("slow", [&](const std::string&, const void*) {
    std::unique_lock<std::mutex> lock(protector);
    entered = true;
    changed.notify_all();
    changed.wait_for(lock, kGenerousTimeout, [&] { return release; });
    order.push_back("observer finished");
  });

  std::thread poster([&] { center.postNotification("slow", nullptr); });
  {
    std::unique_lock<std::mutex> lock(protector);
    ASSERT_TRUE(changed.wait_for(lock, kGenerousTimeout, [&] { return entered; }));
  }
  std::thread remover([&] {
    center.removeObserver(token);
    std::lock_guard<std::mutex> lock(protector);
    order.push_back("removeObserver returned");
  });
  // Once the registration is gone from the table the remover is inside removeObserver;
  // only then is the observer let go, so a removal that did not wait would be seen.
  const auto deadline = std::chrono::steady_clock::now() + kGenerousTimeout;
  while (center.TEST_observerCount("slow") != 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  {
    std::lock_guard<std::mutex> lock(protector);
    release = true;
  }
  changed.notify_all();
  poster.join();
  remover.join();
  EXPECT_EQ((std::vector<std::string>{"observer finished", "removeObserver returned"}), order);
}

TEST(TavloNotificationCenterThreads, NoCallStartsAfterRemovalReturnsUnderConcurrentPosting) {
  TavloNotificationCenter center;
  std::atomic<bool> removed{false};
  std::atomic<int> lateCalls{0};
  std::atomic<int> calls{0};
  const TavloObserverToken token = center.addObserver("busy", [&](const std::string&, const void*) {
    ++calls;
    if (removed) ++lateCalls;
  });
  std::atomic<bool> stop{false};
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) {
    posters.emplace_back([&] {
      while (!stop) center.postNotification("busy", nullptr);
    });
  }
  while (calls < 1000) std::this_thread::yield();
  center.removeObserver(token);
  removed = true;
  for (int i = 0; i < 1000; ++i) center.postNotification("busy", nullptr);
  stop = true;
  for (auto& poster : posters) poster.join();
  EXPECT_EQ(0, lateCalls.load()) << "an observer was called after removeObserver returned";
}

using TavloNotificationCenterLogging = TavloLoggingTest;

TEST_F(TavloNotificationCenterLogging, ObserverThatThrowsIsLoggedAndTheOthersStillHear) {
  TavloNotificationCenter center;
  bool heard = false;
  center.addObserver("changed", [](const std::string&, const void*) { throw std::runtime_error("bad observer"); });
  center.addObserver("changed", [&](const std::string&, const void*) { heard = true; });
  center.postNotification("changed", nullptr);
  EXPECT_TRUE(heard);
  EXPECT_TRUE(test.logSink->contains("(ERROR) : An observer of changed threw (bad observer)"));
}

}  // namespace
