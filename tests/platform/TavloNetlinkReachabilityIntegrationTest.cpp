// The Linux source against the real kernel: on this machine it must read without error; in a
// fresh network namespace (`unshare -rn`, no root needed) it must say "offline" for real
// and follow the links and routes the test makes there.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/wait.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>

#include "linux/TavloNetlinkReachabilitySource.h"
#include "linux/TavloNetlinkSocket.h"

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr const char* kChildMarker = "TAVLO_FRESH_NETNS_CHILD";
const char* const kAddresses[] = {"0.0.0.0", "169.254.0.0", "127.0.0.1", "192.0.2.1"};

std::shared_ptr<TavloReachabilityHandle> handleFor(TavloNetlinkReachabilitySource& source, const char* text) {
  sockaddr_in address{AF_INET, 0, {inet_addr(text)}, {}};
  return source.handleForAddress(address);
}

// Every flags value a watcher reported, in order.
struct FlagsLog {
  void operator()(uint32_t flags) {
    std::lock_guard<std::mutex> lock(protector);
    seen.push_back(flags);
    changed.notify_all();
  }
  // All reported once the latest is `expected`, or after 20 s.
  std::vector<uint32_t> waitForLatest(uint32_t expected) {
    std::unique_lock<std::mutex> lock(protector);
    changed.wait_for(lock, std::chrono::seconds(20), [&] { return !seen.empty() && seen.back() == expected; });
    return seen;
  }
  std::mutex protector;
  std::condition_variable changed;
  std::vector<uint32_t> seen;  // guarded by protector
};

// A request to change the namespace's network, as `ip` would: a fixed header, then
// attributes, nested ones included. ask() answers 0 or the kernel's error.
struct Body {
  std::vector<uint8_t> bytes;
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
  int ask(uint16_t type, int flags) const {
    return TavloNetlinkSocket().request(type, static_cast<uint16_t>(flags | NLM_F_ACK), bytes.data(), bytes.size(), std::chrono::seconds(5),
                                        [](const nlmsghdr&, const uint8_t*, size_t) {});
  }
};
const ifinfomsg kNoLink{};

bool setLinkUp(const std::string& name, bool up) {  // ip link set <name> up|down
  const ifinfomsg change{AF_UNSPEC, 0, 0, static_cast<int>(::if_nametoindex(name.c_str())), up ? unsigned{IFF_UP} : 0u, IFF_UP};
  return Body().raw(&change, sizeof change).ask(RTM_NEWLINK, 0) == 0;
}

// A real kernel's messages must parse, or the agent would take the box for offline for good.
TEST(TavloNetlinkReachabilityIntegrationTest, ReadsTheFlagsOfThisMachine) {
  TavloNetlinkReachabilitySource source;
  for (const char* address : kAddresses) EXPECT_TRUE(handleFor(source, address)->currentFlags()) << address;
}

// Every send asks the monitor, which asks the source: once watched, the source answers
// from what its watcher keeps, with no kernel request while nothing changes. A window in
// which the watcher itself re-read (an event on this machine) is tried again.
TEST(TavloNetlinkReachabilityIntegrationTest, AWatchedHandleAnswersWithoutAskingTheKernel) {
  TavloNetlinkReachabilitySource source;
  const std::shared_ptr<TavloReachabilityHandle> handle = handleFor(source, "0.0.0.0");
  if (!handle->startWatching([](uint32_t) {})) GTEST_SKIP() << "no routing-socket announcements here";
  bool quiet = false;
  for (int window = 0; window < 3 && !quiet; ++window) {
    const uint64_t before = TavloNetlinkSocket::TEST_requestCount();
    for (int query = 0; query < 100; ++query) ASSERT_TRUE(handle->currentFlags());
    quiet = TavloNetlinkSocket::TEST_requestCount() == before;
  }
  handle->stopWatching();
  EXPECT_TRUE(quiet) << "every query of a watched handle read the kernel afresh";
}

TEST(TavloNetlinkReachabilityIntegrationTest, FreshNamespaceIsOfflineAndFollowsADefaultRouteComingAndGoing) {
  // This binary again, in the namespace, with the marker set; killed if it outlives three minutes.
  // A cross build's program runs under the emulator CTest started it with: the host's
  // unshare cannot execute it by itself.
  const char* emulator = std::getenv("TAVLO_TEST_EMULATOR");
  const std::string runner = emulator != nullptr && *emulator != '\0' ? std::string(emulator) + " " : "";
  FILE* child = ::popen((std::string(kChildMarker) + "=1 timeout -s KILL 180 unshare -rn " + runner + "'" + std::filesystem::read_symlink("/proc/self/exe").string() +
                         "' --gtest_also_run_disabled_tests --gtest_filter=TavloNetlinkInFreshNamespace.* 2>&1").c_str(), "r");
  ASSERT_NE(nullptr, child);
  std::string output;
  char chunk[4096];
  for (size_t count; (count = std::fread(chunk, 1, sizeof chunk, child)) > 0;) output.append(chunk, count);
  const int status = ::pclose(child);
  if (output.find("[==========] Running") == std::string::npos) GTEST_SKIP() << "unshare -rn cannot run here: " << output;
  if (output.find("[  SKIPPED ] 1 test") != std::string::npos) GTEST_SKIP() << "the case skipped itself:\n" << output;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
  EXPECT_NE(std::string::npos, output.find("[  PASSED  ] 1 test")) << "the case did not run:\n" << output;
}

TEST(TavloNetlinkInFreshNamespace, DISABLED_FollowsADefaultRouteComingAndGoing) {
  if (std::getenv(kChildMarker) == nullptr) GTEST_SKIP() << "runs only in the namespace its parent case makes";
  TavloNetlinkReachabilitySource source, other;
  const uint64_t requests = TavloNetlinkSocket::TEST_requestCount();
  for (const char* address : kAddresses) EXPECT_EQ(0u, handleFor(source, address)->currentFlags().value_or(R)) << address;
  EXPECT_GT(TavloNetlinkSocket::TEST_requestCount(), requests) << "unwatched, a query must read afresh";

  // Handles of two source instances: the one watcher of the process serves both.
  std::array<FlagsLog, 2> logs;
  const std::shared_ptr<TavloReachabilityHandle> handles[] = {handleFor(source, "0.0.0.0"), handleFor(other, "0.0.0.0")};
  for (size_t i = 0; i < 2; ++i) ASSERT_TRUE(handles[i]->startWatching(std::ref(logs[i])));

  // ip link add tavlo0 type veth peer name tavlo1; ip link set tavlo0 up; ip link set tavlo1 up
  const Body peer = Body().raw(&kNoLink, sizeof kNoLink).text(IFLA_IFNAME, "tavlo1");
  const Body info = Body().text(IFLA_INFO_KIND, "veth").nested(IFLA_INFO_DATA, Body().nested(VETH_INFO_PEER, peer));
  const int created = Body().raw(&kNoLink, sizeof kNoLink).text(IFLA_IFNAME, "tavlo0").nested(IFLA_LINKINFO, info).ask(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
  if (created != 0) GTEST_SKIP() << "cannot make a veth pair here (error " << created << ")";
  ASSERT_TRUE(setLinkUp("tavlo0", true) && setLinkUp("tavlo1", true));
  // ip route add default dev tavlo0
  const rtmsg route{AF_INET, 0, 0, 0, RT_TABLE_MAIN, RTPROT_BOOT, RT_SCOPE_LINK, RTN_UNICAST, 0};
  const uint32_t index = ::if_nametoindex("tavlo0");
  ASSERT_EQ(0, Body().raw(&route, sizeof route).attribute(RTA_OIF, &index, sizeof index).ask(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL));
  EXPECT_EQ(std::vector<uint32_t>{R}, logs[0].waitForLatest(R)) << "a default route through a running link is the internet";

  ASSERT_TRUE(setLinkUp("tavlo1", false));  // the peer goes: tavlo0 loses its carrier, the route stays
  EXPECT_EQ(0u, logs[0].waitForLatest(0).back()) << "a link without carrier still counted";
  ASSERT_TRUE(setLinkUp("tavlo1", true));
  EXPECT_EQ(R, logs[0].waitForLatest(R).back()) << "the carrier came back, the route with it";
  ASSERT_TRUE(setLinkUp("tavlo0", false) && setLinkUp("tavlo0", true));  // the kernel drops the route without a word
  for (FlagsLog& log : logs) EXPECT_EQ((std::vector<uint32_t>{R, 0, R, 0}), log.waitForLatest(0)) << "a change missed or repeated";
  EXPECT_EQ(0u, handles[1]->currentFlags().value_or(R)) << "the route is gone for good once its link went down";
}

}  // namespace
