#include "platform/TavloNetlinkReachabilitySource.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/TavloLogger.h"
#include "util/TavloLogSafe.h"
#include "platform/TavloNetlinkSocket.h"
#include "platform/TavloNetworkSnapshot.h"

namespace {

using Target = TavloNetlinkReachabilitySource::Target;
using TargetKind = TavloNetlinkReachabilitySource::TargetKind;

constexpr auto kRequestTimeout = std::chrono::milliseconds(1000);
// A dump interrupted by a change is asked again; past this, the read gives up.
constexpr int kReadAttempts = 3;
constexpr size_t kLongestHostName = 255;
constexpr in_addr_t kLinkLocalNetwork = 0xA9FE0000;  // 169.254.0.0/16, host order
constexpr in_addr_t kLinkLocalMask = 0xFFFF0000;

enum class Exchange { Done, Retry, Failed };

// Sends one dump request and feeds every answer to the snapshot.
template <typename Header>
Exchange dump(TavloNetlinkSocket& socket, uint16_t type, const Header& header, TavloNetworkSnapshot& snapshot) {
  const int outcome = socket.request(type, NLM_F_DUMP, &header, sizeof header, kRequestTimeout,
                                     [&](const nlmsghdr& message, const uint8_t* payload, size_t length) {
                                       snapshot.add(message.nlmsg_type, payload, length);
                                     });
  if (outcome == 0) return Exchange::Done;
  return outcome < 0 ? Exchange::Retry : Exchange::Failed;
}

// Asks the kernel which route it would take to `address`. No route is an answer too.
Exchange lookUp(TavloNetlinkSocket& socket, in_addr_t address, std::optional<TavloNetworkSnapshot::Route>& answer) {
  struct {
    rtmsg header;
    rtattr destinationHeader;
    in_addr_t destination;
  } request{};
  static_assert(sizeof request == NLMSG_ALIGN(sizeof(rtmsg)) + RTA_LENGTH(sizeof(in_addr_t)));
  request.header.rtm_family = AF_INET;
  request.header.rtm_dst_len = 32;
  request.destinationHeader.rta_len = RTA_LENGTH(sizeof(in_addr_t));
  request.destinationHeader.rta_type = RTA_DST;
  request.destination = address;
  answer.reset();
  const int outcome = socket.request(RTM_GETROUTE, 0, &request, sizeof request, kRequestTimeout,
                                     [&](const nlmsghdr& message, const uint8_t* payload, size_t length) {
                                       if (message.nlmsg_type == RTM_NEWROUTE) {
                                         answer = TavloNetworkSnapshot::parseRoute(payload, length);
                                       }
                                     });
  if (outcome < 0) return Exchange::Retry;
  // ENETUNREACH, EHOSTUNREACH and the like: the kernel has no way there.
  return Exchange::Done;
}

std::optional<uint32_t> readOnce(const Target& target, Exchange& outcome) {
  TavloNetlinkSocket socket;
  if (!socket.isOpen()) {
    outcome = Exchange::Failed;
    return std::nullopt;
  }
  TavloNetworkSnapshot snapshot;
  const ifinfomsg linkRequest{};
  outcome = dump(socket, RTM_GETLINK, linkRequest, snapshot);
  if (outcome != Exchange::Done) return std::nullopt;

  const auto cellular = [](const std::string& name) { return TavloNetlinkReachabilitySource::isCellularInterface(name); };
  switch (target.kind) {
    case TargetKind::AnyAddress: {
      const rtmsg routeRequest{};
      outcome = dump(socket, RTM_GETROUTE, routeRequest, snapshot);
      if (outcome != Exchange::Done) return std::nullopt;
      return snapshot.flagsForAnyAddress(cellular);
    }
    case TargetKind::LinkLocal: {
      const ifaddrmsg addressRequest{};
      outcome = dump(socket, RTM_GETADDR, addressRequest, snapshot);
      if (outcome != Exchange::Done) return std::nullopt;
      return snapshot.flagsForLinkLocal();
    }
    case TargetKind::Address: {
      std::optional<TavloNetworkSnapshot::Route> answer;
      outcome = lookUp(socket, target.address, answer);
      if (outcome != Exchange::Done) return std::nullopt;
      return answer ? snapshot.flagsForLookup(*answer, cellular) : 0;
    }
  }
  outcome = Exchange::Failed;
  return std::nullopt;
}

// ---- Watching ----

// What one watching thread owns. Shared between the handle and its thread, so the
// thread can be detached (when the handle is stopped from inside a callback) and still
// never touch freed memory.
struct Watch {
  explicit Watch(Target watched) : target(watched), announcements(TavloNetlinkReachabilitySource::kWatchedGroups) {}
  ~Watch() {
    if (wakeUp >= 0) ::close(wakeUp);
  }

  const Target target;
  TavloNetlinkSocket announcements;  // used by the thread only, once started
  int wakeUp = -1;                   // eventfd; written by stopWatching
  std::optional<uint32_t> lastFlags; // used by the thread only, once started

  std::mutex protector;
  std::function<void(uint32_t)> onChange;  // guarded by protector
  bool stopping = false;                   // guarded by protector
};

void logWatchFailure(const std::string& what) {
  TavloLogger::log("Stopped watching network changes: " + what + "; reachability is still answered when asked",
                   TavloLoggingModeWarning);
}

void reportIfChanged(Watch& watch) {
  const auto flags = TavloNetlinkReachabilitySource::readFlags(watch.target);
  if (!flags || flags == watch.lastFlags) return;
  watch.lastFlags = flags;
  std::function<void(uint32_t)> onChange;
  {
    std::lock_guard<std::mutex> lock(watch.protector);
    if (watch.stopping) return;
    onChange = watch.onChange;  // a copy: the callback may replace or stop itself
  }
  if (!onChange) return;
  try {
    onChange(*flags);
  } catch (const std::exception& failure) {
    TavloLogger::log("A reachability change callback threw (" + TavloLogSafe(failure.what()) + "); watching goes on",
                     TavloLoggingModeError);
  } catch (...) {
    TavloLogger::log("A reachability change callback threw an unknown exception; watching goes on", TavloLoggingModeError);
  }
}

void watchUntilStopped(const std::shared_ptr<Watch>& watch) {
  pollfd waiting[2] = {{watch->announcements.fd(), POLLIN, 0}, {watch->wakeUp, POLLIN, 0}};
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(watch->protector);
      if (watch->stopping) return;
    }
    const int ready = ::poll(waiting, 2, -1);  // stopWatching wakes it: no timeout needed
    if (ready < 0) {
      if (errno == EINTR) continue;
      logWatchFailure(std::string("poll failed (") + std::strerror(errno) + ")");
      return;
    }
    if (waiting[1].revents != 0) continue;  // woken to stop: checked at the top
    if (waiting[0].revents == 0) continue;
    // Announcements say something changed, not what the whole picture is: read them
    // all, then read the state once.
    if (!watch->announcements.drain()) {
      logWatchFailure(std::string("the routing socket failed (") + std::strerror(errno) + ")");
      return;
    }
    reportIfChanged(*watch);
  }
}

void runWatch(std::shared_ptr<Watch> watch) {
  try {
    watchUntilStopped(watch);
  } catch (const std::exception& failure) {
    logWatchFailure(std::string("unexpected failure (") + failure.what() + ")");
  }
}

class NetlinkHandle : public TavloReachabilityHandle {
 public:
  explicit NetlinkHandle(Target watched) : target(watched) {}
  ~NetlinkHandle() override { stopWatching(); }

  std::optional<uint32_t> currentFlags() override { return TavloNetlinkReachabilitySource::readFlags(target); }

  bool startWatching(std::function<void(uint32_t)> onChange) override {
    std::lock_guard<std::mutex> lock(protector);
    if (watch) {
      std::function<void(uint32_t)> replaced;
      std::lock_guard<std::mutex> watchLock(watch->protector);
      replaced = std::exchange(watch->onChange, std::move(onChange));
      return true;
    }
    auto fresh = std::make_shared<Watch>(target);
    if (!fresh->announcements.isOpen()) return false;
    fresh->wakeUp = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fresh->wakeUp < 0) return false;
    // Subscribed before this first read, so no change between the two goes unseen.
    fresh->lastFlags = TavloNetlinkReachabilitySource::readFlags(target);
    fresh->onChange = std::move(onChange);
    try {
      thread = std::thread(runWatch, fresh);
    } catch (const std::system_error&) {
      return false;
    }
    pthread_setname_np(thread.native_handle(), "TavloReachable");
    watch = std::move(fresh);
    return true;
  }

  void stopWatching() override {
    std::shared_ptr<Watch> stopped;
    std::thread running;
    {
      std::lock_guard<std::mutex> lock(protector);
      stopped = std::move(watch);
      running = std::move(thread);
    }
    if (!stopped) return;
    std::function<void(uint32_t)> dropped;
    {
      std::lock_guard<std::mutex> lock(stopped->protector);
      stopped->stopping = true;
      dropped = std::move(stopped->onChange);
      stopped->onChange = nullptr;
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(stopped->wakeUp, &one, sizeof one);
    if (!running.joinable()) return;
    if (running.get_id() == std::this_thread::get_id()) {
      // Stopped from inside its own callback: the thread ends when the callback returns.
      running.detach();
    } else {
      running.join();
    }
  }

 private:
  const Target target;
  std::mutex protector;
  std::shared_ptr<Watch> watch;  // guarded by protector; set while watching
  std::thread thread;            // guarded by protector
};

}  // namespace

Target TavloNetlinkReachabilitySource::targetFor(const sockaddr_in& address) {
  const in_addr_t host = ntohl(address.sin_addr.s_addr);
  if (host == 0) return Target{TargetKind::AnyAddress, 0};
  if ((host & kLinkLocalMask) == kLinkLocalNetwork) return Target{TargetKind::LinkLocal, address.sin_addr.s_addr};
  return Target{TargetKind::Address, address.sin_addr.s_addr};
}

std::shared_ptr<TavloReachabilityHandle> TavloNetlinkReachabilitySource::handleForAddress(const sockaddr_in& address) {
  if (address.sin_family != AF_INET) return nullptr;
  return std::make_shared<NetlinkHandle>(targetFor(address));
}

std::shared_ptr<TavloReachabilityHandle> TavloNetlinkReachabilitySource::handleForHostName(const std::string& hostName) {
  if (hostName.empty() || hostName.size() > kLongestHostName) return nullptr;
  return std::make_shared<NetlinkHandle>(Target{TargetKind::AnyAddress, 0});
}

std::optional<uint32_t> TavloNetlinkReachabilitySource::readFlags(const Target& target) {
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    Exchange outcome = Exchange::Failed;
    auto flags = readOnce(target, outcome);
    if (outcome == Exchange::Done) return flags;
    if (outcome == Exchange::Failed) return std::nullopt;
  }
  return std::nullopt;
}

bool TavloNetlinkReachabilitySource::isCellularInterface(const std::string& name) {
  if (name.rfind("wwan", 0) == 0) return true;
  // The name comes from the kernel, but it becomes a path: nothing that could leave
  // /sys/class/net.
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") return false;
  std::ifstream uevent("/sys/class/net/" + name + "/uevent");
  std::string line;
  while (std::getline(uevent, line)) {
    if (line == "DEVTYPE=wwan") return true;
  }
  return false;
}
