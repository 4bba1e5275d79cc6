// The Linux reachability source: the kernel's links, addresses and routes.
#pragma once

#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tavlo/platform/TavloReachabilitySource.h"

/// Answers reachability from rtnetlink, the kernel's routing socket, following the
/// rules of TavloNetworkSnapshot (a link counts when IFF_UP and IFF_RUNNING; the
/// internet is reachable while a default route leaves through a counting link; the
/// link-local network while a counting link has an address on it).
///
/// Targets:
///  - 0.0.0.0 (any route): the default-route rule; IsWWAN over a cellular modem.
///  - 169.254.0.0/16 (the link-local network): the link-local rule.
///  - any other IPv4 address: the kernel's own route lookup for that address.
///  - a host name: read as the any-route target. Resolving names here would mean a
///    DNS query on every question, on a thread that must not block; the library only
///    asks "can anything be reached", which the default route answers.
/// Refused: an address that is not AF_INET, an empty host name or one beyond 255
/// characters.
///
/// Reading: every currentFlags() is one fresh exchange with the kernel over a new
/// socket (a link dump plus a route dump, an address dump or one lookup), each request
/// bounded by a one-second deadline and retried when the tables changed mid-dump; a
/// failed exchange answers nothing ("unreadable"). Nothing is cached, so an answer is
/// never stale, and nothing starts a thread until a handle watches.
///
/// Watching: each watching handle has a thread of its own ("TavloReachable") on a
/// socket subscribed to link, address and route announcements, plus an eventfd that
/// stopWatching() uses to wake it. On every announcement (after reading all that are
/// waiting, so a burst costs one read) it re-reads the whole state instead of applying
/// the message: when a link goes down the kernel drops its IPv4 routes without saying
/// so. onChange is called only when the flags differ from the last ones seen; an
/// unreadable state is skipped, not reported.
///
/// Interfaces are told cellular by their uevent (DEVTYPE=wwan in
/// /sys/class/net/<name>/uevent) or by a name starting with "wwan".
///
/// Callable from any thread; handles may outlive the source.
class TavloNetlinkReachabilitySource : public TavloReachabilitySource {
 public:
  /// The announcements a watcher listens to.
  static constexpr uint32_t kWatchedGroups =
      RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;

  enum class TargetKind { AnyAddress, LinkLocal, Address };

  struct Target {
    TargetKind kind = TargetKind::AnyAddress;
    in_addr_t address = 0;  // network byte order; meaningful for Address
  };

  std::shared_ptr<TavloReachabilityHandle> handleForAddress(const sockaddr_in& address) override;
  std::shared_ptr<TavloReachabilityHandle> handleForHostName(const std::string& hostName) override;

  /// Which kind of target an IPv4 address is.
  static Target targetFor(const sockaddr_in& address);
  /// The flags of `target` now; nothing when the kernel could not be asked.
  static std::optional<uint32_t> readFlags(const Target& target);
  /// Whether the interface named so is a cellular modem.
  static bool isCellularInterface(const std::string& name);
};
