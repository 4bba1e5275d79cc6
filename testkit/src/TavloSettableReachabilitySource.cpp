#include "tavlo/testkit/TavloSettableReachabilitySource.h"

#include <arpa/inet.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <utility>

namespace {

// One watching handle's callback. `calling` is recursive and held while the callback
// runs: stopWatching() from another thread waits for it, from the callback itself it
// goes straight through.
struct Watcher {
  std::recursive_mutex calling;
  std::function<void(uint32_t)> onChange;  // guarded by calling
  bool watching = false;                   // guarded by calling
  uint64_t startedOrder = 0;               // guarded by calling
};

}  // namespace

struct TavloSettableReachabilitySource::State {
  std::mutex protector;
  uint32_t flags = TavloReachabilityFlagReachable;  // guarded by protector
  bool refuses = false;                              // guarded by protector
  bool unreadable = false;                           // guarded by protector
  bool watchingFails = false;                        // guarded by protector
  uint64_t lastStarted = 0;                          // guarded by protector
  std::vector<std::weak_ptr<Watcher>> watchers;      // guarded by protector; every handle's, in making order
  std::vector<uint32_t> addresses;                   // guarded by protector
  std::vector<std::string> hostNames;                // guarded by protector
};

class TavloSettableReachabilitySource::Handle : public TavloReachabilityHandle {
 public:
  explicit Handle(std::shared_ptr<State> shared) : state(std::move(shared)), watcher(std::make_shared<Watcher>()) {
    std::lock_guard<std::mutex> lock(state->protector);
    state->watchers.push_back(watcher);
  }
  ~Handle() override { stopWatching(); }

  std::optional<uint32_t> currentFlags() override {
    std::lock_guard<std::mutex> lock(state->protector);
    if (state->unreadable) return std::nullopt;
    return state->flags;
  }

  bool startWatching(std::function<void(uint32_t)> onChange) override {
    uint64_t order = 0;
    {
      std::lock_guard<std::mutex> lock(state->protector);
      if (state->watchingFails) return false;
      order = ++state->lastStarted;
    }
    std::function<void(uint32_t)> replaced;
    std::lock_guard<std::recursive_mutex> lock(watcher->calling);
    replaced = std::exchange(watcher->onChange, std::move(onChange));
    watcher->watching = true;
    watcher->startedOrder = order;
    return true;
  }

  void stopWatching() override {
    std::function<void(uint32_t)> dropped;
    std::lock_guard<std::recursive_mutex> lock(watcher->calling);
    watcher->watching = false;
    dropped = std::move(watcher->onChange);
    watcher->onChange = nullptr;
  }

 private:
  const std::shared_ptr<State> state;
  const std::shared_ptr<Watcher> watcher;
};

TavloSettableReachabilitySource::TavloSettableReachabilitySource() : state(std::make_shared<State>()) {}

TavloSettableReachabilitySource::~TavloSettableReachabilitySource() = default;

std::shared_ptr<TavloReachabilityHandle> TavloSettableReachabilitySource::handleForAddress(const sockaddr_in& address) {
  {
    std::lock_guard<std::mutex> lock(state->protector);
    state->addresses.push_back(ntohl(address.sin_addr.s_addr));
    if (state->refuses) return nullptr;
  }
  return std::make_shared<Handle>(state);
}

std::shared_ptr<TavloReachabilityHandle> TavloSettableReachabilitySource::handleForHostName(const std::string& hostName) {
  {
    std::lock_guard<std::mutex> lock(state->protector);
    state->hostNames.push_back(hostName);
    if (state->refuses) return nullptr;
  }
  return std::make_shared<Handle>(state);
}

void TavloSettableReachabilitySource::setFlags(uint32_t flags) {
  std::vector<std::shared_ptr<Watcher>> targets;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    state->flags = flags;
    std::erase_if(state->watchers, [](const std::weak_ptr<Watcher>& watcher) { return watcher.expired(); });
    for (const auto& weak : state->watchers) {
      if (auto watcher = weak.lock()) targets.push_back(std::move(watcher));
    }
  }
  // Earliest started first; a handle that is not watching is skipped below.
  std::vector<std::pair<uint64_t, std::shared_ptr<Watcher>>> ordered;
  for (auto& watcher : targets) {
    std::lock_guard<std::recursive_mutex> lock(watcher->calling);
    if (watcher->watching) ordered.emplace_back(watcher->startedOrder, watcher);
  }
  std::sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& [order, watcher] : ordered) {
    std::lock_guard<std::recursive_mutex> lock(watcher->calling);
    if (!watcher->watching || !watcher->onChange) continue;
    auto onChange = watcher->onChange;  // the callback may replace itself while it runs
    onChange(flags);
  }
}

uint32_t TavloSettableReachabilitySource::flags() {
  std::lock_guard<std::mutex> lock(state->protector);
  return state->flags;
}

void TavloSettableReachabilitySource::setRefusesTargets(bool refuses) {
  std::lock_guard<std::mutex> lock(state->protector);
  state->refuses = refuses;
}

void TavloSettableReachabilitySource::setFlagsUnreadable(bool unreadable) {
  std::lock_guard<std::mutex> lock(state->protector);
  state->unreadable = unreadable;
}

void TavloSettableReachabilitySource::setWatchingFails(bool fails) {
  std::lock_guard<std::mutex> lock(state->protector);
  state->watchingFails = fails;
}

size_t TavloSettableReachabilitySource::watchingCount() {
  std::vector<std::shared_ptr<Watcher>> all;
  {
    std::lock_guard<std::mutex> lock(state->protector);
    for (const auto& weak : state->watchers) {
      if (auto watcher = weak.lock()) all.push_back(std::move(watcher));
    }
  }
  size_t count = 0;
  for (const auto& watcher : all) {
    std::lock_guard<std::recursive_mutex> lock(watcher->calling);
    if (watcher->watching) ++count;
  }
  return count;
}

std::vector<uint32_t> TavloSettableReachabilitySource::addressesAsked() {
  std::lock_guard<std::mutex> lock(state->protector);
  return state->addresses;
}

std::vector<std::string> TavloSettableReachabilitySource::hostNamesAsked() {
  std::lock_guard<std::mutex> lock(state->protector);
  return state->hostNames;
}
