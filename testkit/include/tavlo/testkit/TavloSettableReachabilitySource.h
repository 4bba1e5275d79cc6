// A reachability source whose flags the test sets.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tavlo/platform/TavloReachabilitySource.h"

/// Every handle it makes answers the one flags value the test set (Reachable, 0x2, at
/// first: a test platform is online over WiFi unless the test says otherwise), and
/// setFlags() is a change: it calls every watching handle's callback at once, on the
/// caller's thread, in the order the handles started watching, even when the value is
/// the same as before (so a test can replay a change).
///
/// Switches for the failures a real source has: refuse every target (the factories
/// answer null), answer "unreadable" to currentFlags(), fail startWatching(). It also
/// remembers which targets were asked for.
///
/// A handle's stopWatching() waits for a call to it running on another thread, and
/// returns at once when called from inside its own callback, as the contract asks.
/// Handles may outlive the source. Every member is callable from any thread.
class TavloSettableReachabilitySource : public TavloReachabilitySource {
 public:
  TavloSettableReachabilitySource();
  ~TavloSettableReachabilitySource() override;
  TavloSettableReachabilitySource(const TavloSettableReachabilitySource&) = delete;
  TavloSettableReachabilitySource& operator=(const TavloSettableReachabilitySource&) = delete;

  std::shared_ptr<TavloReachabilityHandle> handleForAddress(const sockaddr_in& address) override;
  std::shared_ptr<TavloReachabilityHandle> handleForHostName(const std::string& hostName) override;

  /// Sets the flags every handle answers and reports them to every watching handle.
  void setFlags(uint32_t flags);
  uint32_t flags();

  void setRefusesTargets(bool refuses);
  void setFlagsUnreadable(bool unreadable);
  void setWatchingFails(bool fails);

  /// How many handles are watching now.
  size_t watchingCount();
  /// The targets asked for, refused ones included, in order; addresses in host order
  /// (0xA9FE0000 for 169.254.0.0).
  std::vector<uint32_t> addressesAsked();
  std::vector<std::string> hostNamesAsked();

 private:
  struct State;
  class Handle;
  std::shared_ptr<State> state;
};
