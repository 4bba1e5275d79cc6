// Whether the network can be reached, and how; and every change of it.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/TavloNotificationCenter.h"
#include "tavlo/platform/TavloMainQueue.h"
#include "tavlo/platform/TavloPlatform.h"
#include "tavlo/platform/TavloReachabilitySource.h"

/// How the network can be reached. The values are sent on the wire (through the hit
/// URL's network name) and must not be renumbered.
enum TavloReachabilityStatus : int64_t {
  TavloReachabilityStatusNone = 0,  // not reachable
  TavloReachabilityStatusWWAN = 1,  // reachable, not over WiFi (cellular)
  TavloReachabilityStatusWiFi = 2,  // reachable over WiFi or a wired local network
};

/// A reachability monitor: one watched target (any route, the link-local network, an
/// address or a host name) behind the platform's reachability source.
///
/// Queries ask the source afresh every time and keep nothing; flags that cannot be read
/// answer false, 0 or an empty set. Once started, the monitor reports every change: the
/// source's thread calls reachabilityChanged(), which calls reachableBlock or
/// unreachableBlock there, and then posts kTavloReachabilityChangedNotification on the
/// main queue, through the notification centre, with the monitor as sender. Observers
/// ask the monitor for the new state; the flags do not travel with the notification.
///
/// Ownership: made only by the factories, always owned by a std::shared_ptr. While
/// notifying, the monitor holds itself (reachabilityObject), so an application may let
/// go of it and still get its callbacks; stopNotifier() lets go. A notification waiting
/// on the main queue holds the monitor weakly: one whose monitor is gone by then is not
/// posted, and while observers run the sender is held alive. The destructor stops the
/// watching; it may run on the source's thread or the main queue if one let go last.
///
/// Threads: queries and the properties may be used from any thread. The callbacks are
/// guarded by a mutex, so setting them while notifying is safe, though callers should
/// set them before startNotifier() to see every change. reachableOnWWAN is an atomic.
class TavloReachability : public std::enable_shared_from_this<TavloReachability> {
  struct Passkey {
    explicit Passkey() = default;
  };

 public:
  /// Called with the monitor, on the source's thread.
  using Block = std::function<void(const std::shared_ptr<TavloReachability>& reachability)>;

  // Factories. Each answers null when the source refuses the target, or when the source
  // or the main queue is missing. A missing notification centre means the default one.

  static std::shared_ptr<TavloReachability> reachabilityWithHostname(
      const std::string& hostname, const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center = nullptr);
  static std::shared_ptr<TavloReachability> reachabilityWithHostname(
      const std::string& hostname, std::shared_ptr<TavloReachabilitySource> source,
      std::shared_ptr<TavloMainQueue> mainQueue, std::shared_ptr<TavloNotificationCenter> center = nullptr);
  /// The same as reachabilityWithHostname, under its second spelling.
  static std::shared_ptr<TavloReachability> reachabilityWithHostName(
      const std::string& hostname, const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center = nullptr);
  static std::shared_ptr<TavloReachability> reachabilityWithHostName(
      const std::string& hostname, std::shared_ptr<TavloReachabilitySource> source,
      std::shared_ptr<TavloMainQueue> mainQueue, std::shared_ptr<TavloNotificationCenter> center = nullptr);

  static std::shared_ptr<TavloReachability> reachabilityWithAddress(
      const sockaddr_in& hostAddress, const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center = nullptr);
  static std::shared_ptr<TavloReachability> reachabilityWithAddress(
      const sockaddr_in& hostAddress, std::shared_ptr<TavloReachabilitySource> source,
      std::shared_ptr<TavloMainQueue> mainQueue, std::shared_ptr<TavloNotificationCenter> center = nullptr);

  /// Watches 0.0.0.0, the address that stands for any route: the internet connection.
  static std::shared_ptr<TavloReachability> reachabilityForInternetConnection(
      const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center = nullptr);
  static std::shared_ptr<TavloReachability> reachabilityForInternetConnection(
      std::shared_ptr<TavloReachabilitySource> source, std::shared_ptr<TavloMainQueue> mainQueue,
      std::shared_ptr<TavloNotificationCenter> center = nullptr);

  /// Watches 169.254.0.0, the link-local network.
  static std::shared_ptr<TavloReachability> reachabilityForLocalWiFi(
      const TavloPlatform& platform, std::shared_ptr<TavloNotificationCenter> center = nullptr);
  static std::shared_ptr<TavloReachability> reachabilityForLocalWiFi(
      std::shared_ptr<TavloReachabilitySource> source, std::shared_ptr<TavloMainQueue> mainQueue,
      std::shared_ptr<TavloNotificationCenter> center = nullptr);

  /// A monitor of a handle already made; reachableOnWWAN starts true. Null when the
  /// handle or the main queue is missing.
  static std::shared_ptr<TavloReachability> initWithReachabilityRef(
      std::shared_ptr<TavloReachabilityHandle> reachabilityRef, std::shared_ptr<TavloMainQueue> mainQueue,
      std::shared_ptr<TavloNotificationCenter> center = nullptr);

  /// For make_shared only; use the factories.
  TavloReachability(Passkey, std::shared_ptr<TavloReachabilityHandle> reachabilityRef,
                    std::shared_ptr<TavloMainQueue> mainQueue, std::shared_ptr<TavloNotificationCenter> center);
  ~TavloReachability();
  TavloReachability(const TavloReachability&) = delete;
  TavloReachability& operator=(const TavloReachability&) = delete;

  // Notifying.

  /// Starts reporting changes. Answers false, and stays idle, when the source cannot
  /// watch. Starting again registers again (the source replaces its callback).
  bool startNotifier();
  /// Stops reporting; when it returns no callback runs (except one that called it).
  /// Harmless when not notifying.
  void stopNotifier();
  /// What the source calls on each change: the callback matching `flags`, then the
  /// notification, posted on the main queue.
  void reachabilityChanged(uint32_t flags);

  // Queries.

  bool isReachable() const;
  /// Reachable bit set, not a transient connection that still needs connecting
  /// (TransientConnection and ConnectionRequired both set), and not cellular while
  /// cellular does not count (IsWWAN with reachableOnWWAN false).
  bool isReachableWithFlags(uint32_t flags) const;
  bool isReachableViaWWAN() const;
  bool isReachableViaWiFi() const;
  bool connectionRequired() const;
  /// Forwards to connectionRequired().
  bool isConnectionRequired() const;
  bool isConnectionOnDemand() const;
  bool isInterventionRequired() const;
  /// From one reading of the flags: None when not reachable, else WiFi when not over
  /// cellular, else WWAN.
  TavloReachabilityStatus currentReachabilityStatus() const;
  /// The current flags, or 0.
  uint32_t reachabilityFlags() const;
  /// "Cellular" when the status equals reachableOnWWAN read as a number (1 or 0); else
  /// "WiFi" for status 2 and "No Connection" otherwise. Comparing the status with
  /// reachableOnWWAN is deliberate and kept: with reachableOnWWAN false, an unreachable
  /// network (a cellular one included, as it does not count then) reads "Cellular", and
  /// a status of 1 would read "No Connection". There is no string table on Linux, so the
  /// word is answered as it is.
  std::string currentReachabilityString() const;
  /// The current flags as "WR ctiCDld", a letter for each bit set and '-' for each clear.
  std::string currentReachabilityFlags() const;
  /// "<TavloReachability: 0x...>" with the monitor's address cut to 32 bits.
  std::string description() const;

  /// The flags text for `flags`, as currentReachabilityFlags() writes it.
  static std::string flagsText(uint32_t flags);

  // Properties.

  bool reachableOnWWAN() const { return reachableOnWWAN_.load(); }
  void setReachableOnWWAN(bool reachable) { reachableOnWWAN_.store(reachable); }
  Block reachableBlock() const;
  void setReachableBlock(Block block);
  Block unreachableBlock() const;
  void setUnreachableBlock(Block block);
  /// The watched target.
  const std::shared_ptr<TavloReachabilityHandle>& reachabilityRef() const { return reachabilityRef_; }

  /// Whether the monitor holds itself, i.e. is notifying (for tests).
  bool TEST_isNotifying() const;

 private:
  static std::shared_ptr<TavloReachability> withAddress(in_addr_t address, std::shared_ptr<TavloReachabilitySource> source,
                                                        std::shared_ptr<TavloMainQueue> mainQueue,
                                                        std::shared_ptr<TavloNotificationCenter> center);
  // The flags now, or nothing when they cannot be read.
  std::optional<uint32_t> readFlags() const;
  // Whether every bit of `required` is set in the current flags (false when unreadable).
  bool currentFlagsHave(uint32_t required) const;

  const std::shared_ptr<TavloReachabilityHandle> reachabilityRef_;
  const std::shared_ptr<TavloMainQueue> mainQueue_;
  const std::shared_ptr<TavloNotificationCenter> center_;
  std::atomic<bool> reachableOnWWAN_{true};

  mutable std::mutex blocksProtector;
  Block reachableBlock_;    // guarded by blocksProtector
  Block unreachableBlock_;  // guarded by blocksProtector

  mutable std::mutex notifierProtector;  // never held while calling the source
  std::shared_ptr<TavloReachability> reachabilityObject_;  // guarded by notifierProtector; set while notifying
};
