#include "linux/TavloNetlinkReachabilitySource.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "linux/TavloNetlinkSocket.h"
#include "linux/TavloNetworkSnapshot.h"
#include "platform/TavloLogger.h"
#include "util/TavloLogSafe.h"

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

// ---- The process-wide watcher ----

// Tried again this often while the watcher has no state (its last dump failed).
constexpr int kRetryMilliseconds = 1000;

void logWatchFailure(const std::string& what) {
  TavloLogger::log("Stopped watching network changes: " + what + "; reachability is still answered when asked",
                   TavloLoggingModeWarning);
}

// One handle's registration with the watcher.
struct Subscriber {
  explicit Subscriber(Target watched) : target(watched) {}
  const Target target;
  // All guarded by the watcher's protector.
  std::function<void(uint32_t)> onChange;
  std::optional<uint32_t> lastFlags;  // the flags the handle last saw
  std::thread::id callingThread;      // set while onChange runs
};

// What one dump of the kernel's state says about the targets kept in memory.
struct Answers {
  uint32_t anyAddress = 0;
  uint32_t linkLocal = 0;
  std::map<in_addr_t, uint32_t> lookups;  // the route lookups of watched addresses; not kept
};

// What only the watching thread touches (and the thread that starts it, before it runs).
struct Session {
  TavloNetlinkSocket announcements{TavloNetlinkReachabilitySource::kWatchedGroups};
  // Whether each interface (index, name) is cellular. An interface renamed or replaced
  // under the same index is read again; one that is gone is forgotten.
  std::map<std::pair<int, std::string>, bool> cellular;
};

class NetworkWatcher {
 public:
  // Never destroyed: its thread may outlive every static of the process.
  static NetworkWatcher& shared() {
    static NetworkWatcher* const watcher = new NetworkWatcher();
    return *watcher;
  }

  // Registers `onChange` for `target`, starting the thread if none runs. Null when
  // watching could not start.
  std::shared_ptr<Subscriber> subscribe(const Target& target, std::function<void(uint32_t)> onChange) {
    std::lock_guard<std::mutex> starting(startProtector);
    if (!ensureRunning()) return nullptr;
    auto subscriber = std::make_shared<Subscriber>(target);
    std::optional<uint32_t> seen;
    if (target.kind == TargetKind::Address) seen = TavloNetlinkReachabilitySource::readFlags(target);
    std::lock_guard<std::mutex> lock(protector);
    if (target.kind != TargetKind::Address) seen = cachedLocked(target);
    subscriber->lastFlags = seen;
    subscriber->onChange = std::move(onChange);
    subscribers.push_back(subscriber);
    return subscriber;
  }

  void replace(Subscriber& subscriber, std::function<void(uint32_t)> onChange) {
    std::function<void(uint32_t)> replaced;  // destroyed after the lock is let go
    std::lock_guard<std::mutex> lock(protector);
    replaced = std::exchange(subscriber.onChange, std::move(onChange));
  }

  // When it returns, no call of `subscriber` runs or will start, unless it was called
  // from inside that very call, which it cannot wait for.
  void unsubscribe(const std::shared_ptr<Subscriber>& subscriber) {
    std::function<void(uint32_t)> dropped;  // destroyed after the lock is let go
    std::unique_lock<std::mutex> lock(protector);
    std::erase(subscribers, subscriber);
    dropped = std::move(subscriber->onChange);
    subscriber->onChange = nullptr;
    if (subscriber->callingThread == std::this_thread::get_id()) return;
    callEnded.wait(lock, [&] { return subscriber->callingThread == std::thread::id(); });
  }

  // The kept flags of an any-route or link-local target; nothing when there are none.
  std::optional<uint32_t> cached(const Target& target) const {
    std::lock_guard<std::mutex> lock(protector);
    return cachedLocked(target);
  }

 private:
  NetworkWatcher() = default;

  std::optional<uint32_t> cachedLocked(const Target& target) const {
    if (!answers) return std::nullopt;
    switch (target.kind) {
      case TargetKind::AnyAddress:
        return answers->anyAddress;
      case TargetKind::LinkLocal:
        return answers->linkLocal;
      case TargetKind::Address:
        break;
    }
    return std::nullopt;
  }

  // REQUIRES: startProtector held.
  bool ensureRunning() {
    {
      std::lock_guard<std::mutex> lock(protector);
      if (running) return true;
    }
    auto session = std::make_shared<Session>();
    if (!session->announcements.isOpen()) {
      logWatchFailure(std::string("cannot open a routing socket (") + std::strerror(errno) + ")");
      return false;
    }
    // Subscribed before this first dump, so no change between the two goes unseen.
    publish(read(*session, {}));
    try {
      std::thread thread([this, session] { run(session); });
      pthread_setname_np(thread.native_handle(), "TavloReachable");
      thread.detach();
    } catch (const std::system_error& failure) {
      logWatchFailure(std::string("cannot start a thread (") + failure.what() + ")");
      publish(std::nullopt);
      return false;
    }
    std::lock_guard<std::mutex> lock(protector);
    running = true;
    return true;
  }

  void publish(std::optional<Answers> fresh) {
    std::lock_guard<std::mutex> lock(protector);
    answers = std::move(fresh);
  }

  // Dumps links, addresses and routes, and looks up `addresses`; nothing when the kernel
  // could not be asked.
  static std::optional<Answers> read(Session& session, const std::vector<in_addr_t>& addresses) {
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
      TavloNetlinkSocket socket;
      if (!socket.isOpen()) return std::nullopt;
      TavloNetworkSnapshot snapshot;
      Exchange outcome = dump(socket, RTM_GETLINK, ifinfomsg{}, snapshot);
      if (outcome == Exchange::Done) outcome = dump(socket, RTM_GETADDR, ifaddrmsg{}, snapshot);
      if (outcome == Exchange::Done) outcome = dump(socket, RTM_GETROUTE, rtmsg{}, snapshot);
      if (outcome == Exchange::Retry) continue;
      if (outcome == Exchange::Failed) return std::nullopt;

      std::map<std::pair<int, std::string>, bool> cellular;
      for (const auto& [index, link] : snapshot.links()) {
        const auto key = std::make_pair(index, link.name);
        const auto known = session.cellular.find(key);
        cellular[key] = known != session.cellular.end() ? known->second
                                                         : TavloNetlinkReachabilitySource::isCellularInterface(link.name);
      }
      session.cellular = std::move(cellular);
      const auto isCellular = [&session](const std::string& name) {
        for (const auto& [key, value] : session.cellular) {
          if (key.second == name) return value;
        }
        return false;
      };

      Answers fresh;
      fresh.anyAddress = snapshot.flagsForAnyAddress(isCellular);
      fresh.linkLocal = snapshot.flagsForLinkLocal();
      for (const in_addr_t address : addresses) {
        std::optional<TavloNetworkSnapshot::Route> route;
        // A lookup that timed out leaves its address out: its handles hear next time.
        if (lookUp(socket, address, route) != Exchange::Done) continue;
        fresh.lookups[address] = route ? snapshot.flagsForLookup(*route, isCellular) : 0;
      }
      return fresh;
    }
    return std::nullopt;
  }

  void run(const std::shared_ptr<Session>& session) {
    try {
      watch(*session);
    } catch (const std::exception& failure) {
      stop(std::string("unexpected failure (") + failure.what() + ")");
    }
  }

  void watch(Session& session) {
    reportChanges({});  // to handles still registered from a watcher that failed
    pollfd waiting{session.announcements.fd(), POLLIN, 0};
    for (;;) {
      bool known;
      {
        std::lock_guard<std::mutex> lock(protector);
        known = answers.has_value();
      }
      const int ready = ::poll(&waiting, 1, known ? -1 : kRetryMilliseconds);
      if (ready < 0) {
        if (errno == EINTR) continue;
        return stop(std::string("poll failed (") + std::strerror(errno) + ")");
      }
      // Announcements say something changed, not what the whole picture is: read them
      // all, then read the state once.
      if (ready > 0 && !session.announcements.drain()) {
        return stop(std::string("the routing socket failed (") + std::strerror(errno) + ")");
      }
      auto fresh = read(session, watchedAddresses());
      const bool readable = fresh.has_value();
      std::map<in_addr_t, uint32_t> lookups;
      if (readable) lookups = std::move(fresh->lookups);
      publish(std::move(fresh));
      if (readable) reportChanges(lookups);
    }
  }

  void stop(const std::string& why) {
    logWatchFailure(why);
    std::lock_guard<std::mutex> lock(protector);
    answers.reset();
    running = false;
  }

  std::vector<in_addr_t> watchedAddresses() const {
    std::vector<in_addr_t> addresses;
    std::lock_guard<std::mutex> lock(protector);
    for (const auto& subscriber : subscribers) {
      if (subscriber->target.kind == TargetKind::Address) addresses.push_back(subscriber->target.address);
    }
    return addresses;
  }

  // Calls each registered handle whose flags differ from the last ones it saw.
  void reportChanges(const std::map<in_addr_t, uint32_t>& lookups) {
    std::vector<std::shared_ptr<Subscriber>> registered;
    {
      std::lock_guard<std::mutex> lock(protector);
      registered = subscribers;
    }
    for (const auto& subscriber : registered) {
      std::function<void(uint32_t)> onChange;
      uint32_t flags = 0;
      {
        std::lock_guard<std::mutex> lock(protector);
        if (std::find(subscribers.begin(), subscribers.end(), subscriber) == subscribers.end()) continue;
        std::optional<uint32_t> now = cachedLocked(subscriber->target);
        if (subscriber->target.kind == TargetKind::Address) {
          const auto found = lookups.find(subscriber->target.address);
          if (found != lookups.end()) now = found->second;
        }
        if (!now || now == subscriber->lastFlags) continue;
        subscriber->lastFlags = now;
        if (!subscriber->onChange) continue;
        flags = *now;
        onChange = subscriber->onChange;  // a copy: the callback may replace or stop itself
        subscriber->callingThread = std::this_thread::get_id();
      }
      call(onChange, flags);
      {
        std::lock_guard<std::mutex> lock(protector);
        subscriber->callingThread = std::thread::id();
      }
      callEnded.notify_all();
    }
  }

  static void call(const std::function<void(uint32_t)>& onChange, uint32_t flags) {
    try {
      onChange(flags);
    } catch (const std::exception& failure) {
      TavloLogger::log("A reachability change callback threw (" + TavloLogSafe(failure.what()) + "); watching goes on",
                       TavloLoggingModeError);
    } catch (...) {
      TavloLogger::log("A reachability change callback threw an unknown exception; watching goes on",
                       TavloLoggingModeError);
    }
  }

  std::mutex startProtector;  // one start at a time; taken before protector, never after
  mutable std::mutex protector;
  std::condition_variable callEnded;
  bool running = false;                                  // guarded by protector; a thread watches
  std::optional<Answers> answers;                        // guarded by protector; the last good dump
  std::vector<std::shared_ptr<Subscriber>> subscribers;  // guarded by protector
};

class NetlinkHandle : public TavloReachabilityHandle {
 public:
  explicit NetlinkHandle(Target watched) : target(watched) {}
  ~NetlinkHandle() override { stopWatching(); }

  std::optional<uint32_t> currentFlags() override {
    if (auto kept = NetworkWatcher::shared().cached(target)) return kept;
    return TavloNetlinkReachabilitySource::readFlags(target);
  }

  bool startWatching(std::function<void(uint32_t)> onChange) override {
    std::lock_guard<std::mutex> lock(protector);
    if (subscriber) {
      NetworkWatcher::shared().replace(*subscriber, std::move(onChange));
      return true;
    }
    subscriber = NetworkWatcher::shared().subscribe(target, std::move(onChange));
    return subscriber != nullptr;
  }

  void stopWatching() override {
    std::shared_ptr<Subscriber> stopped;
    {
      std::lock_guard<std::mutex> lock(protector);
      stopped = std::move(subscriber);
    }
    // Not under protector: it may wait for a callback that calls startWatching.
    if (stopped) NetworkWatcher::shared().unsubscribe(stopped);
  }

 private:
  const Target target;
  std::mutex protector;
  std::shared_ptr<Subscriber> subscriber;  // guarded by protector; set while watching
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
