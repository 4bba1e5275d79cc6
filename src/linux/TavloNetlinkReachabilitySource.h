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
/// Why a watcher: the send loop asks the agent's monitor on every hit, and a fresh read
/// costs a new socket, two dumps and a uevent file per question. So the kernel's state is
/// kept once for the whole process and questions are answered from memory.
///
/// The watcher (one per process, shared by every handle of every source instance):
///  - One thread, "TavloReachable", started by the first startWatching() of any handle
///    and kept for the life of the process (it sleeps in poll() between changes). Ten
///    watching monitors cost one thread, not ten.
///  - It subscribes to link, address and route announcements first and dumps the state
///    second, so no change between the two goes unseen. The first dump runs on the
///    thread that starts watching, so the state is there when startWatching() returns.
///  - On every announcement (after reading all that are waiting, so a burst costs one
///    read) it re-dumps links, addresses and routes instead of applying the message:
///    when a link goes down the kernel drops its IPv4 routes without saying so.
///  - What it keeps: the flags of the any-route and link-local targets, worked out from
///    each dump, and whether each interface (by index and name) is cellular, read from
///    sysfs once when the interface first appears.
///  - Staleness: an answer lags the kernel by the time the thread takes to wake and
///    re-dump (one wake-up and three dumps). Announcements lost to a full socket buffer
///    (ENOBUFS) still wake it, and it re-dumps everything.
///
/// Queries: currentFlags() of an any-route, link-local or host-name handle answers from
/// the watcher's state with no system call whenever the watcher has one, whether or not
/// that handle watches. Before the watcher's first state, after a dump failed (it tries
/// again every second) or after the watcher failed, it falls back to a fresh read: one
/// exchange with the kernel over a new socket (a link dump plus a route or an address
/// dump), each request bounded by a one-second deadline and retried when the tables
/// changed mid-dump; a failed exchange answers nothing ("unreadable"). An answer is
/// thus never wrong for lack of a watcher. An arbitrary address always asks the
/// kernel's route lookup afresh: its answer depends on the whole routing table, which
/// is not kept.
///
/// Watching: startWatching() registers the handle's callback with the watcher. After
/// each re-dump the thread works out each registered target's flags (a route lookup for
/// an arbitrary address) and calls onChange only for the handles whose flags differ
/// from the last ones they saw; an unreadable state is skipped, not reported. All calls
/// come from the one thread, so a handle never sees two at once. stopWatching()
/// unregisters, and waits only for a call of its own handle that is running on another
/// thread. If the announcement socket fails, the watcher logs "Stopped watching network
/// changes: ..." once, drops its state (queries fall back to fresh reads) and ends its
/// thread; the next startWatching() of any handle starts a new one, which reports to
/// every handle still registered.
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
  /// The flags of `target` read afresh from the kernel, whatever the watcher knows;
  /// nothing when the kernel could not be asked.
  static std::optional<uint32_t> readFlags(const Target& target);
  /// Whether the interface named so is a cellular modem.
  static bool isCellularInterface(const std::string& name);
};
