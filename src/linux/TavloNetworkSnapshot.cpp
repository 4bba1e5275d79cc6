#include "linux/TavloNetworkSnapshot.h"

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

#include "tavlo/platform/TavloReachabilitySource.h"

namespace {

constexpr size_t kAttributeAlign = 4;
constexpr uint32_t kDeadPath = RTNH_F_DEAD | RTNH_F_LINKDOWN;

size_t alignedAttribute(size_t length) { return (length + kAttributeAlign - 1) & ~(kAttributeAlign - 1); }

// Calls `onAttribute(type, payload, length)` for each attribute of a netlink attribute
// stream, with the nesting and byte-order bits cleared from the type. Answers false
// when an attribute header is truncated or claims more than is there; what came before
// was still handed on.
template <typename OnAttribute>
bool forEachAttribute(const uint8_t* data, size_t length, OnAttribute&& onAttribute) {
  size_t offset = 0;
  while (offset < length) {
    const size_t remaining = length - offset;
    if (remaining < sizeof(rtattr)) return false;
    rtattr header;
    std::memcpy(&header, data + offset, sizeof header);
    if (header.rta_len < sizeof(rtattr) || header.rta_len > remaining) return false;
    onAttribute(static_cast<uint16_t>(header.rta_type & NLA_TYPE_MASK), data + offset + sizeof(rtattr),
                header.rta_len - sizeof(rtattr));
    offset += alignedAttribute(header.rta_len);
  }
  return true;
}

std::optional<uint32_t> readU32(const uint8_t* payload, size_t length) {
  if (length < sizeof(uint32_t)) return std::nullopt;
  uint32_t value;
  std::memcpy(&value, payload, sizeof value);
  return value;
}

// A link name is text up to its first NUL, at most IFNAMSIZ - 1 characters.
std::string readName(const uint8_t* payload, size_t length) {
  size_t end = 0;
  while (end < length && end < IFNAMSIZ - 1 && payload[end] != 0) ++end;
  return std::string(reinterpret_cast<const char*>(payload), end);
}

bool isIpv6LinkLocal(const uint8_t* address) { return address[0] == 0xfe && (address[1] & 0xc0) == 0x80; }

// The kinds of route that carry traffic somewhere (as opposed to refusing it).
bool carriesTraffic(uint8_t type) {
  return type == RTN_UNICAST || type == RTN_BROADCAST || type == RTN_MULTICAST || type == RTN_ANYCAST;
}

}  // namespace

bool TavloNetworkSnapshot::add(uint16_t type, const uint8_t* payload, size_t length) {
  switch (type) {
    case RTM_NEWLINK:
      return addLink(payload, length);
    case RTM_NEWADDR:
      return addAddress(payload, length);
    case RTM_NEWROUTE:
      return addRoute(payload, length);
    default:
      return true;
  }
}

bool TavloNetworkSnapshot::addLink(const uint8_t* payload, size_t length) {
  if (length < sizeof(ifinfomsg)) return false;
  ifinfomsg info;
  std::memcpy(&info, payload, sizeof info);
  if (info.ifi_index <= 0) return false;
  Link link;
  link.index = info.ifi_index;
  link.flags = info.ifi_flags;
  const size_t skip = NLMSG_ALIGN(sizeof(ifinfomsg));
  if (length > skip) {
    const bool whole = forEachAttribute(payload + skip, length - skip, [&](uint16_t kind, const uint8_t* data, size_t size) {
      if (kind == IFLA_IFNAME) link.name = readName(data, size);
    });
    if (!whole) return false;
  }
  if (links_.size() >= kMaxEntries && links_.count(link.index) == 0) return true;  // keep what we have
  links_[link.index] = std::move(link);
  return true;
}

bool TavloNetworkSnapshot::addAddress(const uint8_t* payload, size_t length) {
  if (length < sizeof(ifaddrmsg)) return false;
  ifaddrmsg info;
  std::memcpy(&info, payload, sizeof info);
  if (info.ifa_index == 0 || info.ifa_index > static_cast<uint32_t>(INT32_MAX)) return false;
  uint32_t flags = info.ifa_flags;
  bool linkLocal = false;
  bool hasAddress = false;
  const size_t skip = NLMSG_ALIGN(sizeof(ifaddrmsg));
  if (length > skip) {
    const bool whole = forEachAttribute(payload + skip, length - skip, [&](uint16_t kind, const uint8_t* data, size_t size) {
      if (kind == IFA_FLAGS) {
        if (auto extended = readU32(data, size)) flags = *extended;
      } else if (kind == IFA_ADDRESS || kind == IFA_LOCAL) {
        if (info.ifa_family == AF_INET && size >= 4) hasAddress = true;
        if (info.ifa_family == AF_INET6 && size >= 16) {
          hasAddress = true;
          linkLocal = linkLocal || isIpv6LinkLocal(data);
        }
      }
    });
    if (!whole) return false;
  }
  if (!hasAddress) return false;
  const int index = static_cast<int>(info.ifa_index);
  if (addresses_.size() >= kMaxEntries && addresses_.count(index) == 0) return true;
  LinkAddresses& known = addresses_[index];
  if (info.ifa_family == AF_INET) known.ipv4 = true;
  // An address still checking for duplicates, or found to be one, cannot be used yet.
  if (info.ifa_family == AF_INET6 && linkLocal && (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0) {
    known.ipv6LinkLocal = true;
  }
  return true;
}

std::optional<TavloNetworkSnapshot::Route> TavloNetworkSnapshot::parseRoute(const uint8_t* payload, size_t length) {
  if (length < sizeof(rtmsg)) return std::nullopt;
  rtmsg info;
  std::memcpy(&info, payload, sizeof info);
  Route route;
  route.family = info.rtm_family;
  route.destinationLength = info.rtm_dst_len;
  route.type = info.rtm_type;
  route.table = info.rtm_table;
  route.flags = info.rtm_flags;
  bool nextHopsWhole = true;
  const size_t skip = NLMSG_ALIGN(sizeof(rtmsg));
  if (length > skip) {
    const bool whole = forEachAttribute(payload + skip, length - skip, [&](uint16_t kind, const uint8_t* data, size_t size) {
      switch (kind) {
        case RTA_OIF:
          if (auto index = readU32(data, size); index && *index <= static_cast<uint32_t>(INT32_MAX)) {
            route.outputInterface = static_cast<int>(*index);
          }
          break;
        case RTA_GATEWAY:
        case RTA_VIA:
          route.viaGateway = size > 0;
          break;
        case RTA_PRIORITY:
          if (auto priority = readU32(data, size)) route.priority = *priority;
          break;
        case RTA_TABLE:
          if (auto table = readU32(data, size)) route.table = *table;
          break;
        case RTA_NH_ID:
          route.viaNexthopObject = size >= sizeof(uint32_t);
          break;
        case RTA_MULTIPATH: {
          size_t offset = 0;
          while (offset < size && route.nextHops.size() < kMaxEntries) {
            if (size - offset < sizeof(rtnexthop)) {
              nextHopsWhole = false;
              break;
            }
            rtnexthop hop;
            std::memcpy(&hop, data + offset, sizeof hop);
            if (hop.rtnh_len < sizeof(rtnexthop) || hop.rtnh_len > size - offset) {
              nextHopsWhole = false;
              break;
            }
            NextHop next;
            next.interfaceIndex = hop.rtnh_ifindex;
            next.flags = hop.rtnh_flags;
            const size_t inner = RTNH_ALIGN(sizeof(rtnexthop));
            if (hop.rtnh_len > inner) {
              nextHopsWhole = forEachAttribute(data + offset + inner, hop.rtnh_len - inner,
                                               [&](uint16_t hopKind, const uint8_t*, size_t hopSize) {
                                                 if (hopKind == RTA_GATEWAY || hopKind == RTA_VIA) {
                                                   next.viaGateway = hopSize > 0;
                                                 }
                                               }) &&
                              nextHopsWhole;
            }
            route.nextHops.push_back(next);
            offset += RTNH_ALIGN(hop.rtnh_len);
          }
          break;
        }
        default:
          break;
      }
    });
    if (!whole || !nextHopsWhole) return std::nullopt;
  }
  return route;
}

bool TavloNetworkSnapshot::addRoute(const uint8_t* payload, size_t length) {
  auto route = parseRoute(payload, length);
  if (!route) return false;
  // Only default routes decide anything here; a full table is not worth keeping.
  if (route->destinationLength != 0) return true;
  if (defaultRoutes_.size() >= kMaxEntries) return true;
  defaultRoutes_.push_back(std::move(*route));
  return true;
}

const TavloNetworkSnapshot::Link* TavloNetworkSnapshot::countingLink(int index, bool loopbackCounts) const {
  auto found = links_.find(index);
  if (found == links_.end()) return nullptr;
  const uint32_t flags = found->second.flags;
  if ((flags & IFF_UP) == 0 || (flags & IFF_RUNNING) == 0) return nullptr;
  if (!loopbackCounts && (flags & IFF_LOOPBACK) != 0) return nullptr;
  return &found->second;
}

bool TavloNetworkSnapshot::anyCountingLinkBesidesLoopback() const {
  for (const auto& [index, link] : links_) {
    if (countingLink(index, false) != nullptr) return true;
  }
  return false;
}

std::optional<TavloNetworkSnapshot::Path> TavloNetworkSnapshot::usablePath(const Route& route,
                                                                           bool loopbackCounts) const {
  if (!route.nextHops.empty()) {
    for (const NextHop& hop : route.nextHops) {
      if ((hop.flags & kDeadPath) != 0) continue;
      if (const Link* link = countingLink(hop.interfaceIndex, loopbackCounts)) return Path{link, hop.viaGateway};
    }
    return std::nullopt;
  }
  if ((route.flags & kDeadPath) != 0) return std::nullopt;
  if (route.outputInterface > 0) {
    if (const Link* link = countingLink(route.outputInterface, loopbackCounts)) return Path{link, route.viaGateway};
    return std::nullopt;
  }
  if (route.viaNexthopObject && anyCountingLinkBesidesLoopback()) return Path{nullptr, route.viaGateway};
  return std::nullopt;
}

uint32_t TavloNetworkSnapshot::flagsForAnyAddress(const CellularTest& isCellular) const {
  const Route* best = nullptr;
  std::optional<Path> bestPath;
  for (const Route& route : defaultRoutes_) {
    if (route.type != RTN_UNICAST || route.table == RT_TABLE_LOCAL) continue;
    if (route.family != AF_INET && route.family != AF_INET6) continue;
    auto path = usablePath(route, false);
    if (!path) continue;
    if (best == nullptr || route.priority < best->priority) {
      best = &route;
      bestPath = path;
    }
  }
  if (!bestPath) return 0;
  uint32_t flags = TavloReachabilityFlagReachable;
  if (bestPath->link != nullptr && isCellular && isCellular(bestPath->link->name)) flags |= TavloReachabilityFlagIsWWAN;
  return flags;
}

uint32_t TavloNetworkSnapshot::flagsForLinkLocal() const {
  for (const auto& [index, known] : addresses_) {
    if (!known.ipv4 && !known.ipv6LinkLocal) continue;
    if (countingLink(index, false) != nullptr) {
      return TavloReachabilityFlagReachable | TavloReachabilityFlagIsLocalAddress | TavloReachabilityFlagIsDirect;
    }
  }
  return 0;
}

uint32_t TavloNetworkSnapshot::flagsForLookup(const Route& answer, const CellularTest& isCellular) const {
  if (answer.type != RTN_LOCAL && !carriesTraffic(answer.type)) return 0;
  // Loopback keeps its local routes while it is down, yet nothing gets through then:
  // the box's own addresses need their link to count, like any other route.
  auto path = usablePath(answer, true);
  if (!path) return 0;
  if (answer.type == RTN_LOCAL) {
    return TavloReachabilityFlagReachable | TavloReachabilityFlagIsLocalAddress | TavloReachabilityFlagIsDirect;
  }
  uint32_t flags = TavloReachabilityFlagReachable;
  if (!path->viaGateway) flags |= TavloReachabilityFlagIsDirect;
  if (path->link != nullptr && isCellular && isCellular(path->link->name)) flags |= TavloReachabilityFlagIsWWAN;
  return flags;
}
