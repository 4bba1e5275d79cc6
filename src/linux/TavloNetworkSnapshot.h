// What the kernel said about links, addresses and routes, and the flags it implies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// The parts of the kernel's routing state that decide reachability, filled from
/// rtnetlink dump messages (RTM_NEWLINK, RTM_NEWADDR, RTM_NEWROUTE), and the rules that
/// turn it into reachability flags. Pure data and rules, no system calls: the reading
/// lives in TavloNetlinkReachabilitySource, and the rules can be tested with made-up
/// messages.
///
/// The rules (the decisions a Linux box needs, as this library takes them):
///  - A link counts when it is up and running: IFF_UP and IFF_RUNNING. IFF_RUNNING is
///    the kernel's operational state (carrier present and, for WiFi, associated), so a
///    cable pulled or an access point lost makes the link not count even while it is
///    administratively up.
///  - Any route (0.0.0.0): Reachable when a default route (IPv4 or IPv6, via a gateway
///    or straight out of an interface, in any table but the local one) leaves through a
///    counting link other than loopback. Among several, the one with the lowest metric
///    decides IsWWAN. A default route whose next hop is a nexthop object (RTA_NH_ID)
///    names no interface here; it counts when any non-loopback link counts.
///  - Link-local network (169.254.0.0): Reachable|IsLocalAddress|IsDirect when a
///    counting link other than loopback has an IPv4 address, or an IPv6 link-local
///    (fe80::/10) address that has passed duplicate address detection: then something
///    on the local network can be talked to.
///  - One route lookup's answer (a specific address), through a counting link
///    (loopback included): a local route (the box's own address) is
///    Reachable|IsLocalAddress|IsDirect; a unicast, broadcast, multicast or anycast
///    route is Reachable, plus IsDirect when there is no gateway, plus IsWWAN over a
///    cellular link; anything else (unreachable, blackhole, prohibit), or a route
///    through a link that does not count, is 0. (Loopback keeps its local routes while
///    it is down, so the link test matters for 127.0.0.1 too.)
///
/// Input is untrusted: every length is checked, unknown attributes are skipped, and a
/// malformed message is ignored whole. Only what the rules need is kept (default routes,
/// not the whole table), and at most kMaxEntries of each kind.
class TavloNetworkSnapshot {
 public:
  static constexpr size_t kMaxEntries = 4096;

  struct Link {
    int index = 0;
    uint32_t flags = 0;  // IFF_*
    std::string name;
  };

  struct NextHop {
    int interfaceIndex = 0;
    uint8_t flags = 0;  // RTNH_F_*
    bool viaGateway = false;
  };

  struct Route {
    uint8_t family = 0;
    uint8_t destinationLength = 0;
    uint8_t type = 0;     // RTN_*
    uint32_t table = 0;   // RT_TABLE_*, or RTA_TABLE when present
    uint32_t flags = 0;   // rtm_flags (RTNH_F_* for a single path)
    int outputInterface = 0;
    bool viaGateway = false;
    bool viaNexthopObject = false;
    uint32_t priority = 0;
    std::vector<NextHop> nextHops;  // from RTA_MULTIPATH
  };

  /// Whether the link named so is a cellular modem.
  using CellularTest = std::function<bool(const std::string& interfaceName)>;

  /// Takes in one message of a dump. Other types are ignored. Answers false when the
  /// message was of a known type but malformed (it is then ignored).
  bool add(uint16_t type, const uint8_t* payload, size_t length);

  /// Reads an RTM_NEWROUTE payload; nothing when it is malformed.
  static std::optional<Route> parseRoute(const uint8_t* payload, size_t length);

  uint32_t flagsForAnyAddress(const CellularTest& isCellular) const;
  uint32_t flagsForLinkLocal() const;
  uint32_t flagsForLookup(const Route& answer, const CellularTest& isCellular) const;

  const std::map<int, Link>& links() const { return links_; }
  const std::vector<Route>& defaultRoutes() const { return defaultRoutes_; }

 private:
  struct LinkAddresses {
    bool ipv4 = false;
    bool ipv6LinkLocal = false;
  };
  // An interface a route may leave through, and whether it goes via a gateway.
  struct Path {
    const Link* link = nullptr;  // null: a nexthop object, interface unknown
    bool viaGateway = false;
  };

  bool addLink(const uint8_t* payload, size_t length);
  bool addAddress(const uint8_t* payload, size_t length);
  bool addRoute(const uint8_t* payload, size_t length);
  const Link* countingLink(int index, bool loopbackCounts) const;
  bool anyCountingLinkBesidesLoopback() const;
  std::optional<Path> usablePath(const Route& route, bool loopbackCounts) const;

  std::map<int, Link> links_;
  std::map<int, LinkAddresses> addresses_;
  std::vector<Route> defaultRoutes_;
};
