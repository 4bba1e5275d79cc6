#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "linux/TavloNetlinkReachabilitySource.h"
#include "linux/TavloNetlinkSocket.h"
#include "platform/TavloReachability.h"
#include "tavlo/testkit/TavloManualMainQueue.h"

// The Linux source against the real kernel. On this machine it must read without
// error; in a fresh network namespace (made with `unshare -rn`, no root needed) it must
// say "offline" for real, and follow links and routes that the test makes there.
//
// The namespace cases run in a child: this binary again, under `unshare -rn`, with
// TAVLO_FRESH_NETNS_CHILD=1 and a filter naming one of the DISABLED_ cases below (they
// never run on the host itself). Where unsharing is not permitted, the cases skip.

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr uint32_t LOCAL = R | TavloReachabilityFlagIsLocalAddress | TavloReachabilityFlagIsDirect;
constexpr const char* kChildMarker = "TAVLO_FRESH_NETNS_CHILD";
const char* const kAddresses[] = {"0.0.0.0", "169.254.0.0", "127.0.0.1", "192.0.2.1"};

std::shared_ptr<TavloReachabilityHandle> handleFor(TavloNetlinkReachabilitySource& source, const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, text, &address.sin_addr);
  auto handle = source.handleForAddress(address);
  EXPECT_NE(nullptr, handle) << text;
  return handle;
}

std::shared_ptr<TavloReachability> monitorOverTheRealSource() {
  return TavloReachability::reachabilityForInternetConnection(std::make_shared<TavloNetlinkReachabilitySource>(),
                                                              std::make_shared<TavloManualMainQueue>(),
                                                              std::make_shared<TavloNotificationCenter>());
}

size_t threadCount() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

// Every flags value a watcher reported, in order.
class FlagsLog {
 public:
  std::function<void(uint32_t)> recorder() {
    return [this](uint32_t flags) {
      {
        std::lock_guard<std::mutex> lock(protector);
        seen.push_back(flags);
      }
      changed.notify_all();
    };
  }
  // Waits until the latest report is `expected`.
  bool waitForLatest(uint32_t expected) {
    std::unique_lock<std::mutex> lock(protector);
    return changed.wait_for(lock, std::chrono::seconds(20), [&] { return !seen.empty() && seen.back() == expected; });
  }
  std::vector<uint32_t> all() {
    std::lock_guard<std::mutex> lock(protector);
    return seen;
  }

 private:
  std::mutex protector;
  std::condition_variable changed;
  std::vector<uint32_t> seen;
};

// ---- The parent side: start this binary in a fresh network namespace ----

// Runs `command` through the shell with the child marker set, killed if it outlives
// three minutes; answers its exit status and everything it printed.
std::pair<int, std::string> run(const std::string& command) {
  FILE* pipe = ::popen((std::string(kChildMarker) + "=1 timeout -s KILL 180 " + command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return {-1, "cannot start a shell"};
  std::string output;
  char chunk[4096];
  for (size_t count; (count = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) output.append(chunk, count);
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// Runs the DISABLED_ case `name` in a fresh network namespace and checks its outcome.
void runInFreshNamespace(const std::string& name) {
  const auto [probe, why] = run("unshare -rn true");
  if (probe == 127) GTEST_SKIP() << "the unshare tool (util-linux) is not installed";
  if (probe != 0) GTEST_SKIP() << "unshare -rn is not permitted here: " << why;
  char self[4096];
  const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
  ASSERT_GT(length, 0) << "cannot find this test binary";
  const auto [status, output] =
      run("unshare -rn '" + std::string(self, static_cast<size_t>(length)) + "' --gtest_also_run_disabled_tests" +
          " --gtest_filter=TavloNetlinkReachabilityInFreshNamespace." + name);
  if (output.find("[  SKIPPED ] 1 test") != std::string::npos) GTEST_SKIP() << "the case skipped itself:\n" << output;
  EXPECT_EQ(0, status) << output;
  EXPECT_NE(std::string::npos, output.find("[  PASSED  ] 1 test")) << "the case did not run:\n" << output;
}

// ---- The child side: change the namespace's network, as `ip` would ----

// A request body: a fixed header and attributes, nested ones included.
struct Body {
  std::vector<uint8_t> bytes;
  template <typename Header>
  Body& header(const Header& value) {
    return raw(&value, sizeof value);
  }
  Body& raw(const void* data, size_t length) {
    bytes.insert(bytes.end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + length);
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return *this;
  }
  Body& attribute(uint16_t type, const void* data, size_t length) {
    const rtattr head{static_cast<unsigned short>(RTA_LENGTH(length)), type};
    return raw(&head, sizeof head).raw(data, length);
  }
  Body& text(uint16_t type, const std::string& value) { return attribute(type, value.c_str(), value.size() + 1); }
  Body& nested(uint16_t type, const Body& inner) {
    return attribute(static_cast<uint16_t>(type | NLA_F_NESTED), inner.bytes.data(), inner.bytes.size());
  }
};

// Answers 0, or the kernel's error.
int ask(uint16_t type, uint16_t flags, const Body& body) {
  TavloNetlinkSocket socket;
  return socket.request(type, static_cast<uint16_t>(flags | NLM_F_ACK), body.bytes.data(), body.bytes.size(),
                        std::chrono::seconds(5), [](const nlmsghdr&, const uint8_t*, size_t) {});
}

// `ip link set <name> up|down`
bool setLinkUp(const std::string& name, bool up) {
  ifinfomsg change{};
  change.ifi_index = static_cast<int>(::if_nametoindex(name.c_str()));
  change.ifi_flags = up ? unsigned{IFF_UP} : 0u;
  change.ifi_change = IFF_UP;
  return ask(RTM_NEWLINK, 0, Body().header(change)) == 0;
}

// `ip link add <name> type veth peer name <peer>`
int createVethPair(const std::string& name, const std::string& peer) {
  const Body peerLink = Body().header(ifinfomsg{}).text(IFLA_IFNAME, peer);
  const Body info = Body().text(IFLA_INFO_KIND, "veth").nested(IFLA_INFO_DATA, Body().nested(VETH_INFO_PEER, peerLink));
  return ask(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL,
             Body().header(ifinfomsg{}).text(IFLA_IFNAME, name).nested(IFLA_LINKINFO, info));
}

// `ip route add default dev <name>`
int addDefaultRoute(const std::string& name) {
  const rtmsg route{AF_INET, 0, 0, 0, RT_TABLE_MAIN, RTPROT_BOOT, RT_SCOPE_LINK, RTN_UNICAST, 0};
  const uint32_t index = ::if_nametoindex(name.c_str());
  return ask(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL, Body().header(route).attribute(RTA_OIF, &index, sizeof index));
}

// ---- On this machine ----

TEST(TavloNetlinkReachabilityIntegrationTest, ReadsTheFlagsOfThisMachineAndTheMonitorAgrees) {
  TavloNetlinkReachabilitySource source;
  for (const char* address : kAddresses) {
    auto handle = handleFor(source, address);
    ASSERT_NE(nullptr, handle);
    EXPECT_TRUE(handle->currentFlags().has_value()) << "could not read the flags for " << address;
  }
  EXPECT_EQ(LOCAL, handleFor(source, "127.0.0.1")->currentFlags().value_or(0)) << "the loopback address is this box's own";
  EXPECT_TRUE(source.handleForHostName("tv.example")->currentFlags().has_value());

  auto monitor = monitorOverTheRealSource();
  ASSERT_NE(nullptr, monitor);
  const uint32_t flags = monitor->reachabilityFlags();
  const TavloReachabilityStatus status = monitor->currentReachabilityStatus();
  EXPECT_EQ(status != TavloReachabilityStatusNone, monitor->isReachableWithFlags(flags))
      << "flags " << TavloReachability::flagsText(flags) << " status " << status;
}

TEST(TavloNetlinkReachabilityIntegrationTest, WatchingStartsAgainAfterEveryStop) {
  TavloNetlinkReachabilitySource source;
  auto handle = handleFor(source, "0.0.0.0");
  FlagsLog log;
  ASSERT_TRUE(handle->startWatching(log.recorder()));
  ASSERT_TRUE(handle->startWatching(log.recorder())) << "starting again replaces the callback";
  handle->stopWatching();
  handle->stopWatching();
  ASSERT_TRUE(handle->startWatching(log.recorder())) << "a stopped handle starts again";
  handle.reset();  // the destructor stops it too
}

// ---- In a fresh network namespace ----

TEST(TavloNetlinkReachabilityIntegrationTest, FreshNamespaceIsOfflineAndWatchedOnOneThreadFromMemory) {
  runInFreshNamespace("DISABLED_IsOfflineAndWatchedOnOneThreadFromMemory");
}

TEST(TavloNetlinkReachabilityIntegrationTest, FreshNamespaceFollowsADefaultRouteComingAndGoing) {
  runInFreshNamespace("DISABLED_DefaultRouteComesAndGoes");
}

TEST(TavloNetlinkReachabilityInFreshNamespace, DISABLED_IsOfflineAndWatchedOnOneThreadFromMemory) {
  if (std::getenv(kChildMarker) == nullptr) GTEST_SKIP() << "runs only in the namespace its parent case makes";
  TavloNetlinkReachabilitySource source, other;
  uint64_t requests = TavloNetlinkSocket::TEST_requestCount();
  for (const char* address : kAddresses) {
    const auto flags = handleFor(source, address)->currentFlags();
    ASSERT_TRUE(flags.has_value()) << "could not read the flags for " << address;
    EXPECT_EQ(0u, *flags) << address << " reads " << TavloReachability::flagsText(*flags);
  }
  auto monitor = monitorOverTheRealSource();
  ASSERT_NE(nullptr, monitor);
  EXPECT_FALSE(monitor->isReachable());
  EXPECT_EQ(TavloReachabilityStatusNone, monitor->currentReachabilityStatus());
  EXPECT_EQ("No Connection", monitor->currentReachabilityString());
  EXPECT_EQ("-- -------", monitor->currentReachabilityFlags());
  EXPECT_GT(TavloNetlinkSocket::TEST_requestCount(), requests) << "unwatched, a query must read afresh";

  // Nothing changes here until lo comes up below, so no announcement wakes the watcher:
  // a request counted in between would come from a query.
  std::thread([] {}).join();  // a sanitizer's helper thread starts with the first thread, not with ours
  const size_t threadsBefore = threadCount();
  std::vector<std::shared_ptr<TavloReachabilityHandle>> watching;
  for (int i = 0; i < 10; ++i) {
    watching.push_back(handleFor(i % 2 == 0 ? source : other, i % 3 == 0 ? "169.254.0.0" : "0.0.0.0"));
    ASSERT_TRUE(watching.back()->startWatching([](uint32_t) {}));
  }
  EXPECT_LE(threadCount(), threadsBefore + 1) << "ten watching handles need one thread, not ten";
  const std::vector<std::shared_ptr<TavloReachabilityHandle>> asked = {
      handleFor(other, "0.0.0.0"), handleFor(other, "169.254.0.0"), other.handleForHostName("tv.example")};
  requests = TavloNetlinkSocket::TEST_requestCount();
  for (int i = 0; i < 1000; ++i) {
    for (const auto& handle : asked) ASSERT_EQ(0u, handle->currentFlags().value_or(R));
    ASSERT_FALSE(monitor->isReachable());
  }
  EXPECT_EQ(requests, TavloNetlinkSocket::TEST_requestCount()) << "queries asked the kernel while it was watched";

  auto loopback = handleFor(source, "127.0.0.1");
  FlagsLog loopbackLog;
  ASSERT_TRUE(loopback->startWatching(loopbackLog.recorder()));
  ASSERT_TRUE(setLinkUp("lo", true));
  EXPECT_TRUE(loopbackLog.waitForLatest(LOCAL)) << "no change reported for 127.0.0.1 after lo came up";
  EXPECT_EQ(0u, handleFor(source, "0.0.0.0")->currentFlags().value_or(R)) << "loopback is no way to the internet";
  EXPECT_EQ(0u, handleFor(source, "169.254.0.0")->currentFlags().value_or(R)) << "loopback is no local network";
  ASSERT_TRUE(setLinkUp("lo", false));
  EXPECT_TRUE(loopbackLog.waitForLatest(0)) << "no change reported for 127.0.0.1 after lo went down";
  loopback->stopWatching();
  const auto seen = loopbackLog.all();
  for (size_t i = 1; i < seen.size(); ++i) EXPECT_NE(seen[i - 1], seen[i]) << "a report without a change";
}

TEST(TavloNetlinkReachabilityInFreshNamespace, DISABLED_DefaultRouteComesAndGoes) {
  if (std::getenv(kChildMarker) == nullptr) GTEST_SKIP() << "runs only in the namespace its parent case makes";
  const int created = createVethPair("tavlo0", "tavlo1");
  if (created != 0) GTEST_SKIP() << "cannot make a veth pair here (error " << created << ")";

  auto queue = std::make_shared<TavloManualMainQueue>();
  auto monitor = TavloReachability::reachabilityForInternetConnection(
      std::make_shared<TavloNetlinkReachabilitySource>(), queue, std::make_shared<TavloNotificationCenter>());
  ASSERT_NE(nullptr, monitor);
  FlagsLog log;
  monitor->setReachableBlock([&](const std::shared_ptr<TavloReachability>&) { log.recorder()(R); });
  monitor->setUnreachableBlock([&](const std::shared_ptr<TavloReachability>&) { log.recorder()(0); });
  ASSERT_TRUE(monitor->startNotifier());

  // Beside the monitor, handles of another source instance, all served by one watcher.
  TavloNetlinkReachabilitySource other;
  std::array<FlagsLog, 4> logs;
  std::vector<std::shared_ptr<TavloReachabilityHandle>> handles;
  for (size_t i = 0; i < logs.size(); ++i) {
    handles.push_back(i % 2 == 0 ? handleFor(other, "0.0.0.0") : other.handleForHostName("tv.example"));
    ASSERT_TRUE(handles.back()->startWatching(logs[i].recorder()));
  }
  FlagsLog loopbackLog;  // lo stays up: 127.0.0.1 never changes, so it is never called
  ASSERT_TRUE(setLinkUp("lo", true));
  auto loopback = handleFor(other, "127.0.0.1");
  ASSERT_TRUE(loopback->startWatching(loopbackLog.recorder()));
  FlagsLog selfLog;
  auto selfStopping = handleFor(other, "0.0.0.0");
  ASSERT_TRUE(selfStopping->startWatching([&](uint32_t flags) {
    selfLog.recorder()(flags);
    selfStopping->stopWatching();  // must not wait for this very call
  }));
  // One stopped from another thread while its call runs: the stop waits for that call.
  std::mutex gate;
  std::condition_variable turned;
  bool entered = false, stopping = false;
  std::atomic<int> blockedCalls{0};
  std::atomic<bool> blockedCallEnded{false};
  auto blocked = handleFor(other, "0.0.0.0");
  ASSERT_TRUE(blocked->startWatching([&](uint32_t) {
    ++blockedCalls;
    std::unique_lock<std::mutex> lock(gate);
    entered = true;
    turned.notify_all();
    turned.wait(lock, [&] { return stopping; });
    blockedCallEnded = true;
  }));

  ASSERT_TRUE(setLinkUp("tavlo0", true));
  ASSERT_TRUE(setLinkUp("tavlo1", true));
  ASSERT_EQ(0, addDefaultRoute("tavlo0"));
  {
    std::unique_lock<std::mutex> lock(gate);
    ASSERT_TRUE(turned.wait_for(lock, std::chrono::seconds(20), [&] { return entered; })) << "no call for the route";
  }
  std::thread stopper([&] {
    {
      std::lock_guard<std::mutex> lock(gate);
      stopping = true;
    }
    turned.notify_all();
    blocked->stopWatching();
    EXPECT_TRUE(blockedCallEnded) << "stopWatching returned while its handle's call was still running";
  });
  stopper.join();
  EXPECT_TRUE(log.waitForLatest(R)) << "a default route through a running link is the internet";
  EXPECT_EQ("WiFi", monitor->currentReachabilityString());

  ASSERT_TRUE(setLinkUp("tavlo1", false));  // the peer goes: tavlo0 loses its carrier, the route stays
  EXPECT_TRUE(log.waitForLatest(0)) << "a link without carrier still counted";
  ASSERT_TRUE(setLinkUp("tavlo1", true));
  EXPECT_TRUE(log.waitForLatest(R)) << "the carrier came back, the route with it";

  ASSERT_TRUE(setLinkUp("tavlo0", false));  // the kernel drops the route without a word
  EXPECT_TRUE(log.waitForLatest(0)) << "the silently dropped route was not noticed";
  ASSERT_TRUE(setLinkUp("tavlo0", true));
  EXPECT_EQ(0u, monitor->reachabilityFlags()) << "the route is gone for good once its link went down";
  for (size_t i = 0; i < logs.size(); ++i) {
    EXPECT_TRUE(logs[i].waitForLatest(0)) << "handle " << i;
    EXPECT_EQ((std::vector<uint32_t>{R, 0, R, 0}), logs[i].all()) << "handle " << i << " missed or repeated a change";
  }
  EXPECT_EQ(std::vector<uint32_t>{R}, selfLog.all()) << "a call after the handle stopped itself";
  EXPECT_EQ(1, blockedCalls) << "a call after stopWatching returned";
  EXPECT_EQ(std::vector<uint32_t>{}, loopbackLog.all()) << "called without a change of its own target";
  monitor->stopNotifier();
  // Notifications still waiting on the queue must not keep a stopped monitor alive.
  EXPECT_GT(queue->pendingCount(), 0u);
  std::weak_ptr<TavloReachability> weak = monitor;
  monitor.reset();
  EXPECT_TRUE(weak.expired());
}

}  // namespace
