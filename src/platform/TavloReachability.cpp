#include "platform/TavloReachability.h"

#include <arpa/inet.h>

#include <cstdio>
#include <exception>
#include <utility>

#include "platform/TavloLogger.h"
#include "util/TavloLogSafe.h"

namespace {

constexpr uint32_t kTransientAndRequired =
    TavloReachabilityFlagTransientConnection | TavloReachabilityFlagConnectionRequired;

// 0.0.0.0 stands for "any route": the internet connection as a whole.
constexpr in_addr_t kAnyAddress = 0x00000000;
// 169.254.0.0, the link-local network.
constexpr in_addr_t kLinkLocalNetwork = 0xA9FE0000;

std::shared_ptr<TavloNotificationCenter> centerOrDefault(std::shared_ptr<TavloNotificationCenter> center) {
  return center ? std::move(center) : TavloNotificationCenter::defaultCenter();
}

void callLoggingFailures(const TavloReachability::Block& block, const std::shared_ptr<TavloReachability>& monitor) {
  try {
    block(monitor);
  } catch (const std::exception& failure) {
    TavloLogger::log("A reachability callback threw (" + TavloLogSafe(failure.what()) + "); the change is still announced",
                     TavloLoggingModeError);
  } catch (...) {
    TavloLogger::log("A reachability callback threw an unknown exception; the change is still announced",
                     TavloLoggingModeError);
  }
}

}  // namespace

// ---- Factories ----

std::shared_ptr<TavloReachability> TavloReachability::initWithReachabilityRef(
    std::shared_ptr<TavloReachabilityHandle> reachabilityRef, std::shared_ptr<TavloMainQueue> mainQueue,
    std::shared_ptr<TavloNotificationCenter> center) {
  if (!reachabilityRef || !mainQueue) return nullptr;
  return std::make_shared<TavloReachability>(Passkey(), std::move(reachabilityRef), std::move(mainQueue),
                                             centerOrDefault(std::move(center)));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityWithHostname(
    const std::string& hostname, std::shared_ptr<TavloReachabilitySource> source, std::shared_ptr<TavloMainQueue> mainQueue,
    std::shared_ptr<TavloNotificationCenter> center) {
  if (!source || !mainQueue) return nullptr;
  return initWithReachabilityRef(source->handleForHostName(hostname), std::move(mainQueue), std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityWithHostname(
    const std::string& hostname, const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center) {
  return reachabilityWithHostname(hostname, platform.reachabilitySource, platform.mainQueue, std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityWithHostName(
    const std::string& hostname, std::shared_ptr<TavloReachabilitySource> source, std::shared_ptr<TavloMainQueue> mainQueue,
    std::shared_ptr<TavloNotificationCenter> center) {
  return reachabilityWithHostname(hostname, std::move(source), std::move(mainQueue), std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityWithHostName(
    const std::string& hostname, const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center) {
  return reachabilityWithHostname(hostname, platform, std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityWithAddress(
    const sockaddr_in& hostAddress, std::shared_ptr<TavloReachabilitySource> source, std::shared_ptr<TavloMainQueue> mainQueue,
    std::shared_ptr<TavloNotificationCenter> center) {
  if (!source || !mainQueue) return nullptr;
  return initWithReachabilityRef(source->handleForAddress(hostAddress), std::move(mainQueue), std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityWithAddress(
    const sockaddr_in& hostAddress, const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center) {
  return reachabilityWithAddress(hostAddress, platform.reachabilitySource, platform.mainQueue, std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::withAddress(in_addr_t address,
                                                                  std::shared_ptr<TavloReachabilitySource> source,
                                                                  std::shared_ptr<TavloMainQueue> mainQueue,
                                                                  std::shared_ptr<TavloNotificationCenter> center) {
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = 0;
  target.sin_addr.s_addr = htonl(address);
  return reachabilityWithAddress(target, std::move(source), std::move(mainQueue), std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityForInternetConnection(
    std::shared_ptr<TavloReachabilitySource> source, std::shared_ptr<TavloMainQueue> mainQueue,
    std::shared_ptr<TavloNotificationCenter> center) {
  return withAddress(kAnyAddress, std::move(source), std::move(mainQueue), std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityForInternetConnection(
    const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center) {
  return reachabilityForInternetConnection(platform.reachabilitySource, platform.mainQueue, std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityForLocalWiFi(
    std::shared_ptr<TavloReachabilitySource> source, std::shared_ptr<TavloMainQueue> mainQueue,
    std::shared_ptr<TavloNotificationCenter> center) {
  return withAddress(kLinkLocalNetwork, std::move(source), std::move(mainQueue), std::move(center));
}

std::shared_ptr<TavloReachability> TavloReachability::reachabilityForLocalWiFi(
    const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center) {
  return reachabilityForLocalWiFi(platform.reachabilitySource, platform.mainQueue, std::move(center));
}

TavloReachability::TavloReachability(Passkey, std::shared_ptr<TavloReachabilityHandle> reachabilityRef,
                                     std::shared_ptr<TavloMainQueue> mainQueue,
                                     std::shared_ptr<TavloNotificationCenter> center)
    : reachabilityRef_(std::move(reachabilityRef)), mainQueue_(std::move(mainQueue)), center_(std::move(center)) {}

TavloReachability::~TavloReachability() {
  // Nothing holds the monitor any more, so it is not notifying as far as it knows; but
  // a start that failed half-way, or a source that ignored stopWatching once, must
  // still never call into freed memory.
  reachabilityRef_->stopWatching();
}

// ---- Notifying ----

bool TavloReachability::startNotifier() {
  std::shared_ptr<TavloReachability> self = weak_from_this().lock();
  if (!self) return false;  // being destroyed
  {
    std::lock_guard<std::mutex> lock(notifierProtector);
    reachabilityObject_ = self;
  }
  // The source gets a weak reference: the monitor's own reachabilityObject is what
  // keeps it alive while notifying, and stopNotifier() ends that.
  std::weak_ptr<TavloReachability> weak = self;
  const bool watching = reachabilityRef_->startWatching([weak](uint32_t flags) {
    if (auto monitor = weak.lock()) monitor->reachabilityChanged(flags);
  });
  if (watching) return true;
  std::shared_ptr<TavloReachability> released;
  {
    std::lock_guard<std::mutex> lock(notifierProtector);
    released = std::move(reachabilityObject_);
  }
  return false;  // `self` still holds the monitor; `released` goes first
}

void TavloReachability::stopNotifier() {
  // Not under notifierProtector: stopWatching waits for a running callback, and that
  // callback may itself call stopNotifier.
  reachabilityRef_->stopWatching();
  std::shared_ptr<TavloReachability> released;
  {
    std::lock_guard<std::mutex> lock(notifierProtector);
    released = std::move(reachabilityObject_);
  }
  // `released` may be the last reference: the monitor may be destroyed on the way out,
  // so nothing touches a member after this point.
}

void TavloReachability::reachabilityChanged(uint32_t flags) {
  std::shared_ptr<TavloReachability> self = weak_from_this().lock();
  if (!self) return;
  Block block;
  {
    std::lock_guard<std::mutex> lock(blocksProtector);
    block = isReachableWithFlags(flags) ? reachableBlock_ : unreachableBlock_;
  }
  if (block) callLoggingFailures(block, self);
  // The task holds the monitor weakly: a strong hold would make a cycle (monitor ->
  // queue -> task -> monitor) that a queue which never runs again, such as a test's,
  // would never break. A monitor gone before the queue runs is not announced; nobody
  // could ask it anything. While the observers run, the sender is held alive.
  std::weak_ptr<TavloReachability> weak = self;
  mainQueue_->post([weak, center = center_] {
    if (auto sender = weak.lock()) center->postNotification(kTavloReachabilityChangedNotification, sender.get());
  });
}

bool TavloReachability::TEST_isNotifying() const {
  std::lock_guard<std::mutex> lock(notifierProtector);
  return reachabilityObject_ != nullptr;
}

// ---- Queries ----

std::optional<uint32_t> TavloReachability::readFlags() const { return reachabilityRef_->currentFlags(); }

bool TavloReachability::currentFlagsHave(uint32_t required) const {
  const auto flags = readFlags();
  return flags && (*flags & required) == required;
}

bool TavloReachability::isReachableWithFlags(uint32_t flags) const {
  if ((flags & TavloReachabilityFlagReachable) == 0) return false;
  if ((flags & kTransientAndRequired) == kTransientAndRequired) return false;
  if ((flags & TavloReachabilityFlagIsWWAN) != 0 && !reachableOnWWAN()) return false;
  return true;
}

bool TavloReachability::isReachable() const {
  const auto flags = readFlags();
  return flags && isReachableWithFlags(*flags);
}

bool TavloReachability::isReachableViaWWAN() const {
  return currentFlagsHave(TavloReachabilityFlagReachable | TavloReachabilityFlagIsWWAN);
}

bool TavloReachability::isReachableViaWiFi() const {
  const auto flags = readFlags();
  return flags && (*flags & TavloReachabilityFlagReachable) != 0 && (*flags & TavloReachabilityFlagIsWWAN) == 0;
}

bool TavloReachability::connectionRequired() const { return currentFlagsHave(TavloReachabilityFlagConnectionRequired); }

bool TavloReachability::isConnectionRequired() const { return connectionRequired(); }

bool TavloReachability::isConnectionOnDemand() const {
  const auto flags = readFlags();
  return flags && (*flags & TavloReachabilityFlagConnectionRequired) != 0 &&
         (*flags & (TavloReachabilityFlagConnectionOnTraffic | TavloReachabilityFlagConnectionOnDemand)) != 0;
}

bool TavloReachability::isInterventionRequired() const {
  return currentFlagsHave(TavloReachabilityFlagConnectionRequired | TavloReachabilityFlagInterventionRequired);
}

TavloReachabilityStatus TavloReachability::currentReachabilityStatus() const {
  // One reading: asking twice could straddle a change and mix two states.
  const auto flags = readFlags();
  if (!flags || !isReachableWithFlags(*flags)) return TavloReachabilityStatusNone;
  return (*flags & TavloReachabilityFlagIsWWAN) == 0 ? TavloReachabilityStatusWiFi : TavloReachabilityStatusWWAN;
}

uint32_t TavloReachability::reachabilityFlags() const { return readFlags().value_or(0); }

std::string TavloReachability::currentReachabilityString() const {
  const TavloReachabilityStatus status = currentReachabilityStatus();
  if (status == (reachableOnWWAN() ? 1 : 0)) return "Cellular";
  if (status == TavloReachabilityStatusWiFi) return "WiFi";
  return "No Connection";
}

std::string TavloReachability::flagsText(uint32_t flags) {
  auto mark = [flags](uint32_t bit, char letter) { return (flags & bit) != 0 ? letter : '-'; };
  char text[16];
  std::snprintf(text, sizeof text, "%c%c %c%c%c%c%c%c%c", mark(TavloReachabilityFlagIsWWAN, 'W'),
                mark(TavloReachabilityFlagReachable, 'R'), mark(TavloReachabilityFlagConnectionRequired, 'c'),
                mark(TavloReachabilityFlagTransientConnection, 't'), mark(TavloReachabilityFlagInterventionRequired, 'i'),
                mark(TavloReachabilityFlagConnectionOnTraffic, 'C'), mark(TavloReachabilityFlagConnectionOnDemand, 'D'),
                mark(TavloReachabilityFlagIsLocalAddress, 'l'), mark(TavloReachabilityFlagIsDirect, 'd'));
  return text;
}

std::string TavloReachability::currentReachabilityFlags() const { return flagsText(reachabilityFlags()); }

std::string TavloReachability::description() const {
  char text[48];
  std::snprintf(text, sizeof text, "<TavloReachability: %#x>",
                static_cast<unsigned>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(this))));
  return text;
}

// ---- Properties ----

TavloReachability::Block TavloReachability::reachableBlock() const {
  std::lock_guard<std::mutex> lock(blocksProtector);
  return reachableBlock_;
}

void TavloReachability::setReachableBlock(Block block) {
  Block previous;
  std::lock_guard<std::mutex> lock(blocksProtector);
  previous = std::exchange(reachableBlock_, std::move(block));
}

TavloReachability::Block TavloReachability::unreachableBlock() const {
  std::lock_guard<std::mutex> lock(blocksProtector);
  return unreachableBlock_;
}

void TavloReachability::setUnreachableBlock(Block block) {
  Block previous;
  std::lock_guard<std::mutex> lock(blocksProtector);
  previous = std::exchange(unreachableBlock_, std::move(block));
}
