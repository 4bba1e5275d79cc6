#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/TavloNetlinkReachabilitySource.h"
#include "platform/TavloNetlinkSocket.h"
#include "platform/TavloReachability.h"
#include "support/TavloManualMainQueue.h"

extern char** environ;

// The Linux source against the real kernel. On this machine it must read without
// error; in a fresh network namespace (made with `unshare -rn`, no root needed) it must
// say "offline" for real, and follow links and routes that the test makes there.
//
// The namespace cases run in a child: this binary again, under `unshare -rn`, with
// TAVLO_FRESH_NETNS_CHILD=1 and a filter naming one of the DISABLED_ cases below (they
// never run on the host itself). Where unsharing is not permitted, the cases skip.

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr uint32_t LOCAL = TavloReachabilityFlagReachable | TavloReachabilityFlagIsLocalAddress | TavloReachabilityFlagIsDirect;
constexpr auto kGenerousTimeout = std::chrono::seconds(20);
constexpr auto kChildTimeout = std::chrono::seconds(180);
constexpr const char* kChildMarker = "TAVLO_FRESH_NETNS_CHILD";

sockaddr_in ipv4(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, text, &address.sin_addr);
  return address;
}

std::shared_ptr<TavloReachabilityHandle> handleFor(TavloNetlinkReachabilitySource& source, const char* address) {
  auto handle = source.handleForAddress(ipv4(address));
  EXPECT_NE(nullptr, handle) << address;
  return handle;
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
    return changed.wait_for(lock, kGenerousTimeout, [&] { return !seen.empty() && seen.back() == expected; });
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

struct ChildRun {
  bool started = false;
  int status = -1;  // exit code, or -1 when it did not exit normally
  std::string output;
};

std::string selfPath() {
  char path[4096];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return {};
  return std::string(path, static_cast<size_t>(length));
}

// Runs `arguments` (searched on PATH) with the marker in its environment and collects
// its output, killing it if it outlives kChildTimeout.
ChildRun run(const std::vector<std::string>& arguments) {
  ChildRun result;
  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDERR_FILENO);

  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
  environment.push_back(std::string(kChildMarker) + "=1");
  std::vector<char*> envp;
  for (auto& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);

  pid_t child = -1;
  const int spawned = ::posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeEnds[1]);
  if (spawned != 0) {
    ::close(pipeEnds[0]);
    return result;
  }
  result.started = true;

  const auto deadline = std::chrono::steady_clock::now() + kChildTimeout;
  char chunk[4096];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      ::kill(child, SIGKILL);
      result.output += "\n[the child was killed after " + std::to_string(kChildTimeout.count()) + " s]\n";
      break;
    }
    pollfd readable{pipeEnds[0], POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
    const ssize_t count = ::read(pipeEnds[0], chunk, sizeof chunk);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    result.output.append(chunk, static_cast<size_t>(count));
  }
  ::close(pipeEnds[0]);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// Why a fresh network namespace cannot be had here, or "" when it can.
std::string namespaceUnavailableReason() {
  const ChildRun probe = run({"unshare", "-rn", "true"});
  if (!probe.started) return "the unshare tool (util-linux) is not installed";
  if (probe.status != 0) return "unshare -rn is not permitted here: " + probe.output;
  return {};
}

// Runs the DISABLED_ case `name` in a fresh network namespace and checks its outcome.
void runInFreshNamespace(const std::string& name) {
  const std::string reason = namespaceUnavailableReason();
  if (!reason.empty()) GTEST_SKIP() << reason;
  const std::string self = selfPath();
  ASSERT_FALSE(self.empty()) << "cannot find this test binary";
  const ChildRun child = run({"unshare", "-rn", self, "--gtest_also_run_disabled_tests",
                              "--gtest_filter=TavloNetlinkReachabilityInFreshNamespace." + name});
  ASSERT_TRUE(child.started);
  if (child.output.find("[  SKIPPED ] 1 test") != std::string::npos) {
    GTEST_SKIP() << "the namespace case skipped itself:\n" << child.output;
  }
  EXPECT_EQ(0, child.status) << child.output;
  EXPECT_NE(std::string::npos, child.output.find("[  PASSED  ] 1 test")) << "the case did not run:\n" << child.output;
}

bool inFreshNamespace() { return std::getenv(kChildMarker) != nullptr; }

// ---- The child side: change the namespace's network ----

bool setLinkUp(const std::string& name, bool up) {
  const int control = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (control < 0) return false;
  ifreq request{};
  std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
  bool done = ::ioctl(control, SIOCGIFFLAGS, &request) == 0;
  if (done) {
    if (up) request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    else request.ifr_flags = static_cast<short>(request.ifr_flags & ~IFF_UP);
    done = ::ioctl(control, SIOCSIFFLAGS, &request) == 0;
  }
  ::close(control);
  return done;
}

// A request payload with nested attributes.
class RequestBody {
 public:
  template <typename Header>
  void header(const Header& value) {
    append(&value, sizeof value);
  }
  void attribute(uint16_t type, const void* data, size_t length) {
    rtattr head{static_cast<unsigned short>(RTA_LENGTH(length)), type};
    append(&head, sizeof head);
    append(data, length);
  }
  void text(uint16_t type, const std::string& value) { attribute(type, value.c_str(), value.size() + 1); }
  size_t open(uint16_t type) {
    const size_t at = bytes.size();
    rtattr head{0, static_cast<unsigned short>(type | NLA_F_NESTED)};
    append(&head, sizeof head);
    return at;
  }
  void close(size_t at) {
    const auto length = static_cast<unsigned short>(bytes.size() - at);
    std::memcpy(bytes.data() + at, &length, sizeof length);
  }
  std::vector<uint8_t> bytes;

 private:
  void append(const void* data, size_t length) {
    const auto* from = static_cast<const uint8_t*>(data);
    bytes.insert(bytes.end(), from, from + length);
    while (bytes.size() % 4 != 0) bytes.push_back(0);
  }
};

int ask(uint16_t type, uint16_t flags, const RequestBody& body) {
  TavloNetlinkSocket socket;
  if (!socket.isOpen()) return -1;
  return socket.request(type, static_cast<uint16_t>(flags | NLM_F_ACK), body.bytes.data(), body.bytes.size(),
                        std::chrono::seconds(5), [](const nlmsghdr&, const uint8_t*, size_t) {});
}

// `ip link add <name> type veth peer name <peer>`
int createVethPair(const std::string& name, const std::string& peer) {
  RequestBody body;
  body.header(ifinfomsg{});
  body.text(IFLA_IFNAME, name);
  const size_t linkInfo = body.open(IFLA_LINKINFO);
  body.text(IFLA_INFO_KIND, "veth");
  const size_t data = body.open(IFLA_INFO_DATA);
  const size_t peerInfo = body.open(VETH_INFO_PEER);
  body.header(ifinfomsg{});
  body.text(IFLA_IFNAME, peer);
  body.close(peerInfo);
  body.close(data);
  body.close(linkInfo);
  return ask(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, body);
}

// `ip route add default dev <name>`
int addDefaultRoute(const std::string& name) {
  rtmsg route{};
  route.rtm_family = AF_INET;
  route.rtm_table = RT_TABLE_MAIN;
  route.rtm_protocol = RTPROT_BOOT;
  route.rtm_scope = RT_SCOPE_LINK;
  route.rtm_type = RTN_UNICAST;
  RequestBody body;
  body.header(route);
  const uint32_t index = ::if_nametoindex(name.c_str());
  body.attribute(RTA_OIF, &index, sizeof index);
  return ask(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL, body);
}

// ---- On this machine ----

TEST(TavloNetlinkReachabilityIntegrationTest, ReadsTheFlagsOfThisMachine) {
  TavloNetlinkReachabilitySource source;
  for (const char* address : {"0.0.0.0", "169.254.0.0", "127.0.0.1", "192.0.2.1"}) {
    auto handle = handleFor(source, address);
    ASSERT_NE(nullptr, handle);
    EXPECT_TRUE(handle->currentFlags().has_value()) << "could not read the flags for " << address;
  }
  EXPECT_EQ(LOCAL, handleFor(source, "127.0.0.1")->currentFlags().value_or(0)) << "the loopback address is this box's own";
  EXPECT_TRUE(source.handleForHostName("tv.example")->currentFlags().has_value());
}

TEST(TavloNetlinkReachabilityIntegrationTest, MonitorOverTheRealSourceAgreesWithItsFlags) {
  auto source = std::make_shared<TavloNetlinkReachabilitySource>();
  auto queue = std::make_shared<TavloManualMainQueue>();
  auto monitor = TavloReachability::reachabilityForInternetConnection(source, queue, std::make_shared<TavloNotificationCenter>());
  ASSERT_NE(nullptr, monitor);
  const uint32_t flags = monitor->reachabilityFlags();
  const TavloReachabilityStatus status = monitor->currentReachabilityStatus();
  EXPECT_EQ(status != TavloReachabilityStatusNone, monitor->isReachableWithFlags(flags))
      << "flags " << TavloReachability::flagsText(flags) << " status " << status;
}

TEST(TavloNetlinkReachabilityIntegrationTest, WatchingStartsAndStopsPromptly) {
  TavloNetlinkReachabilitySource source;
  auto handle = handleFor(source, "0.0.0.0");
  FlagsLog log;
  ASSERT_TRUE(handle->startWatching(log.recorder()));
  ASSERT_TRUE(handle->startWatching(log.recorder())) << "starting again replaces the callback";
  handle->stopWatching();  // joins the thread: the test would hang here if it could not be woken
  handle->stopWatching();
  ASSERT_TRUE(handle->startWatching(log.recorder()));
  handle.reset();  // the destructor stops it too
  SUCCEED();
}

// ---- In a fresh network namespace ----

TEST(TavloNetlinkReachabilityIntegrationTest, FreshNamespaceIsOffline) { runInFreshNamespace("DISABLED_IsOffline"); }

TEST(TavloNetlinkReachabilityIntegrationTest, FreshNamespaceWithLoopbackUpIsStillOffline) {
  runInFreshNamespace("DISABLED_LoopbackAloneIsNoInternet");
}

TEST(TavloNetlinkReachabilityIntegrationTest, FreshNamespaceFollowsADefaultRouteComingAndGoing) {
  runInFreshNamespace("DISABLED_DefaultRouteComesAndGoes");
}

TEST(TavloNetlinkReachabilityInFreshNamespace, DISABLED_IsOffline) {
  if (!inFreshNamespace()) GTEST_SKIP() << "runs only in the fresh network namespace its parent case makes";
  TavloNetlinkReachabilitySource source;
  for (const char* address : {"0.0.0.0", "169.254.0.0", "127.0.0.1", "192.0.2.1"}) {
    const auto flags = handleFor(source, address)->currentFlags();
    ASSERT_TRUE(flags.has_value()) << "could not read the flags for " << address;
    EXPECT_EQ(0u, *flags) << address << " reads " << TavloReachability::flagsText(*flags);
  }
  auto monitor = TavloReachability::reachabilityForInternetConnection(
      std::make_shared<TavloNetlinkReachabilitySource>(), std::make_shared<TavloManualMainQueue>(),
      std::make_shared<TavloNotificationCenter>());
  ASSERT_NE(nullptr, monitor);
  EXPECT_FALSE(monitor->isReachable());
  EXPECT_EQ(TavloReachabilityStatusNone, monitor->currentReachabilityStatus());
  EXPECT_EQ("No Connection", monitor->currentReachabilityString());
  EXPECT_EQ("-- -------", monitor->currentReachabilityFlags());
}

TEST(TavloNetlinkReachabilityInFreshNamespace, DISABLED_LoopbackAloneIsNoInternet) {
  if (!inFreshNamespace()) GTEST_SKIP() << "runs only in the fresh network namespace its parent case makes";
  TavloNetlinkReachabilitySource source;
  auto loopback = handleFor(source, "127.0.0.1");
  auto internet = handleFor(source, "0.0.0.0");
  auto linkLocal = handleFor(source, "169.254.0.0");
  FlagsLog loopbackLog;
  ASSERT_TRUE(loopback->startWatching(loopbackLog.recorder()));

  ASSERT_TRUE(setLinkUp("lo", true));
  EXPECT_TRUE(loopbackLog.waitForLatest(LOCAL)) << "no change reported for 127.0.0.1 after lo came up";
  EXPECT_EQ(0u, internet->currentFlags().value_or(R)) << "loopback is no way to the internet";
  EXPECT_EQ(0u, linkLocal->currentFlags().value_or(R)) << "loopback is no local network";

  ASSERT_TRUE(setLinkUp("lo", false));
  EXPECT_TRUE(loopbackLog.waitForLatest(0)) << "no change reported for 127.0.0.1 after lo went down";
  loopback->stopWatching();
  const auto seen = loopbackLog.all();
  ASSERT_GE(seen.size(), 2u);
  for (size_t i = 1; i < seen.size(); ++i) EXPECT_NE(seen[i - 1], seen[i]) << "a report without a change";
}

TEST(TavloNetlinkReachabilityInFreshNamespace, DISABLED_DefaultRouteComesAndGoes) {
  if (!inFreshNamespace()) GTEST_SKIP() << "runs only in the fresh network namespace its parent case makes";
  const int created = createVethPair("tavlo0", "tavlo1");
  if (created != 0) GTEST_SKIP() << "cannot make a veth pair here (error " << created << ")";

  auto source = std::make_shared<TavloNetlinkReachabilitySource>();
  auto queue = std::make_shared<TavloManualMainQueue>();
  auto monitor = TavloReachability::reachabilityForInternetConnection(source, queue, std::make_shared<TavloNotificationCenter>());
  ASSERT_NE(nullptr, monitor);
  FlagsLog log;
  monitor->setReachableBlock([&](const std::shared_ptr<TavloReachability>&) { log.recorder()(R); });
  monitor->setUnreachableBlock([&](const std::shared_ptr<TavloReachability>&) { log.recorder()(0); });
  ASSERT_TRUE(monitor->startNotifier());

  ASSERT_TRUE(setLinkUp("tavlo0", true));
  ASSERT_TRUE(setLinkUp("tavlo1", true));
  ASSERT_EQ(0, addDefaultRoute("tavlo0"));
  EXPECT_TRUE(log.waitForLatest(R)) << "a default route through a running link is the internet";
  EXPECT_EQ(TavloReachabilityStatusWiFi, monitor->currentReachabilityStatus());
  EXPECT_EQ("WiFi", monitor->currentReachabilityString());

  ASSERT_TRUE(setLinkUp("tavlo1", false));  // the peer goes: tavlo0 loses its carrier, the route stays
  EXPECT_TRUE(log.waitForLatest(0)) << "a link without carrier still counted";
  ASSERT_TRUE(setLinkUp("tavlo1", true));
  EXPECT_TRUE(log.waitForLatest(R)) << "the carrier came back, the route with it";

  ASSERT_TRUE(setLinkUp("tavlo0", false));  // the kernel drops the route without a word
  EXPECT_TRUE(log.waitForLatest(0)) << "the silently dropped route was not noticed";
  EXPECT_EQ(TavloReachabilityStatusNone, monitor->currentReachabilityStatus());
  ASSERT_TRUE(setLinkUp("tavlo0", true));
  EXPECT_EQ(0u, monitor->reachabilityFlags()) << "the route is gone for good once its link went down";
  monitor->stopNotifier();
  // Notifications still waiting on the queue must not keep a stopped monitor alive.
  EXPECT_GT(queue->pendingCount(), 0u);
  std::weak_ptr<TavloReachability> weak = monitor;
  monitor.reset();
  EXPECT_TRUE(weak.expired());
}

}  // namespace
