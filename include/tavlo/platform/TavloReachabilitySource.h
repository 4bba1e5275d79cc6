// Platform seam: whether and how the network can be reached.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <netinet/in.h>

#include "tavlo/TavloExport.h"

/// Reachability flag bits, with the values the rest of the library expects.
enum TavloReachabilityFlags : uint32_t {
  TavloReachabilityFlagTransientConnection = 0x1,
  TavloReachabilityFlagReachable = 0x2,
  TavloReachabilityFlagConnectionRequired = 0x4,
  TavloReachabilityFlagConnectionOnTraffic = 0x8,
  TavloReachabilityFlagInterventionRequired = 0x10,
  TavloReachabilityFlagConnectionOnDemand = 0x20,
  TavloReachabilityFlagIsLocalAddress = 0x10000,
  TavloReachabilityFlagIsDirect = 0x20000,
  TavloReachabilityFlagIsWWAN = 0x40000,
};

/// One watched target (an address or a host name).
class TAVLO_EXPORT TavloReachabilityHandle {
 public:
  virtual ~TavloReachabilityHandle() = default;
  /// The flags now, or nothing when they cannot be read.
  virtual std::optional<uint32_t> currentFlags() = 0;
  /// Calls `onChange` with the new flags on each change, from a thread of the source's
  /// own, one call at a time. Answers false if watching could not start. Starting again
  /// replaces the callback.
  virtual bool startWatching(std::function<void(uint32_t flags)> onChange) = 0;
  /// Stops the calls; when it returns, no call is running or will start. Called from
  /// inside onChange (directly, or by destroying the handle's last owner there), it
  /// cannot wait for that very call: it returns at once, and no later call starts.
  /// Harmless when not watching. A handle's destructor stops watching.
  virtual void stopWatching() = 0;
};

/// Makes handles. Callable from any thread.
class TAVLO_EXPORT TavloReachabilitySource {
 public:
  virtual ~TavloReachabilitySource() = default;
  /// A handle watching whether `address` (or `hostName`) can be reached; nothing when
  /// the source refuses the target.
  ///@{
  virtual std::shared_ptr<TavloReachabilityHandle> handleForAddress(const sockaddr_in& address) = 0;
  virtual std::shared_ptr<TavloReachabilityHandle> handleForHostName(const std::string& hostName) = 0;
  ///@}
};
