#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/TavloNetworkSnapshot.h"
#include "tavlo/platform/TavloReachabilitySource.h"

// The rules that turn the kernel's routing state into reachability flags, fed with
// hand-made rtnetlink messages: every case here is a box's network in a few lines.

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr uint32_t W = TavloReachabilityFlagIsWWAN;
constexpr uint32_t LOCAL = TavloReachabilityFlagReachable | TavloReachabilityFlagIsLocalAddress | TavloReachabilityFlagIsDirect;
constexpr uint32_t DIRECT = TavloReachabilityFlagIsDirect;

constexpr unsigned kUpAndRunning = IFF_UP | IFF_RUNNING;

// One message payload: a fixed header followed by attributes.
class Payload {
 public:
  template <typename Header>
  explicit Payload(const Header& header) {
    append(&header, sizeof header);
    pad();
  }
  Payload& attribute(uint16_t type, const void* data, size_t length) {
    rtattr header{static_cast<unsigned short>(sizeof(rtattr) + length), type};
    append(&header, sizeof header);
    append(data, length);
    pad();
    return *this;
  }
  Payload& u32(uint16_t type, uint32_t value) { return attribute(type, &value, sizeof value); }
  Payload& text(uint16_t type, const std::string& value) { return attribute(type, value.c_str(), value.size() + 1); }
  Payload& raw(const std::vector<uint8_t>& extra) {
    bytes.insert(bytes.end(), extra.begin(), extra.end());
    return *this;
  }
  const uint8_t* data() const { return bytes.data(); }
  size_t size() const { return bytes.size(); }
  std::vector<uint8_t> bytes;

 private:
  void append(const void* data, size_t length) {
    const auto* from = static_cast<const uint8_t*>(data);
    bytes.insert(bytes.end(), from, from + length);
  }
  void pad() {
    while (bytes.size() % 4 != 0) bytes.push_back(0);
  }
};

struct Message {
  uint16_t type;
  Payload payload;
};

Message link(int index, unsigned flags, const std::string& name) {
  ifinfomsg info{};
  info.ifi_family = AF_UNSPEC;
  info.ifi_index = index;
  info.ifi_flags = flags;
  return {RTM_NEWLINK, Payload(info).text(IFLA_IFNAME, name)};
}

Message lo() { return link(1, kUpAndRunning | IFF_LOOPBACK, "lo"); }
Message eth0(unsigned flags = kUpAndRunning) { return link(2, flags, "eth0"); }
Message wwan0() { return link(3, kUpAndRunning, "wwan0"); }
Message wlan0() { return link(4, kUpAndRunning, "wlan0"); }

rtmsg routeHeader(uint8_t family, uint8_t destinationLength, uint8_t type = RTN_UNICAST, uint8_t table = RT_TABLE_MAIN) {
  rtmsg info{};
  info.rtm_family = family;
  info.rtm_dst_len = destinationLength;
  info.rtm_table = table;
  info.rtm_type = type;
  return info;
}

// "default via <gateway> dev <index> metric <metric>" (no gateway when `gateway` is false).
Message defaultRoute(int index, uint32_t metric = 0, bool gateway = true, uint8_t family = AF_INET,
                     uint8_t type = RTN_UNICAST) {
  Payload payload(routeHeader(family, 0, type));
  if (gateway) {
    if (family == AF_INET) payload.u32(RTA_GATEWAY, htonl(0xC0A80101));
    else {
      uint8_t v6[16] = {0xfe, 0x80};
      v6[15] = 1;
      payload.attribute(RTA_GATEWAY, v6, sizeof v6);
    }
  }
  payload.u32(RTA_OIF, static_cast<uint32_t>(index));
  if (metric != 0) payload.u32(RTA_PRIORITY, metric);
  return {RTM_NEWROUTE, payload};
}

std::vector<uint8_t> nextHop(int index, uint8_t flags, bool gateway) {
  std::vector<uint8_t> hop(sizeof(rtnexthop));
  rtnexthop header{};
  header.rtnh_len = static_cast<unsigned short>(sizeof(rtnexthop) + (gateway ? RTA_LENGTH(4) : 0));
  header.rtnh_flags = flags;
  header.rtnh_ifindex = index;
  std::memcpy(hop.data(), &header, sizeof header);
  if (gateway) {
    rtattr attribute{static_cast<unsigned short>(RTA_LENGTH(4)), RTA_GATEWAY};
    const uint32_t address = htonl(0x0A000001);
    const auto* a = reinterpret_cast<const uint8_t*>(&attribute);
    hop.insert(hop.end(), a, a + sizeof attribute);
    const auto* b = reinterpret_cast<const uint8_t*>(&address);
    hop.insert(hop.end(), b, b + sizeof address);
  }
  return hop;
}

Message multipathDefault(const std::vector<std::vector<uint8_t>>& hops) {
  std::vector<uint8_t> all;
  for (const auto& hop : hops) all.insert(all.end(), hop.begin(), hop.end());
  return {RTM_NEWROUTE, Payload(routeHeader(AF_INET, 0)).attribute(RTA_MULTIPATH, all.data(), all.size())};
}

Message address(int index, uint8_t family, std::vector<uint8_t> bytes, uint8_t flags = 0) {
  ifaddrmsg info{};
  info.ifa_family = family;
  info.ifa_prefixlen = family == AF_INET ? 24 : 64;
  info.ifa_flags = flags;
  info.ifa_index = static_cast<uint32_t>(index);
  return {RTM_NEWADDR, Payload(info).attribute(IFA_ADDRESS, bytes.data(), bytes.size())};
}

Message ipv4Address(int index) { return address(index, AF_INET, {192, 168, 1, 20}); }
Message ipv6LinkLocal(int index, uint8_t flags = 0) {
  return address(index, AF_INET6, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}, flags);
}
Message ipv6Global(int index) {
  return address(index, AF_INET6, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9});
}

TavloNetworkSnapshot snapshotOf(const std::vector<Message>& messages) {
  TavloNetworkSnapshot snapshot;
  for (const Message& message : messages) {
    EXPECT_TRUE(snapshot.add(message.type, message.payload.data(), message.payload.size()))
        << "a well-formed message of type " << message.type << " was refused";
  }
  return snapshot;
}

bool cellularByName(const std::string& name) { return name.rfind("wwan", 0) == 0; }

TEST(TavloNetworkSnapshotTest, AnyAddressNeedsADefaultRouteThroughACountingLink) {
  struct Case {
    const char* network;
    std::vector<Message> messages;
    uint32_t flags;
  };
  const std::vector<Case> cases = {
      {"nothing at all", {}, 0},
      {"links but no route", {lo(), eth0()}, 0},
      {"default via a gateway on ethernet", {lo(), eth0(), defaultRoute(2)}, R},
      {"direct default route", {eth0(), defaultRoute(2, 0, false)}, R},
      {"ethernet up but no carrier", {eth0(IFF_UP), defaultRoute(2)}, 0},
      {"ethernet running but administratively down", {eth0(IFF_RUNNING), defaultRoute(2)}, 0},
      {"default route through loopback", {lo(), defaultRoute(1)}, 0},
      {"default route through an unknown link", {eth0(), defaultRoute(9)}, 0},
      {"default route, link announced after it", {defaultRoute(2), eth0()}, R},
      {"cellular modem", {wwan0(), defaultRoute(3)}, R | W},
      {"IPv6 only", {eth0(), defaultRoute(2, 0, true, AF_INET6)}, R},
      {"IPv6 unreachable default on loopback", {lo(), eth0(), defaultRoute(1, 0, false, AF_INET6, RTN_UNREACHABLE)}, 0},
      {"blackhole default", {eth0(), defaultRoute(2, 0, false, AF_INET, RTN_BLACKHOLE)}, 0},
      {"ethernet preferred over cellular", {eth0(), wwan0(), defaultRoute(3, 700), defaultRoute(2, 100)}, R},
      {"cellular preferred over WiFi", {wlan0(), wwan0(), defaultRoute(4, 600), defaultRoute(3, 50)}, R | W},
      {"preferred route's link is down: the other decides", {eth0(IFF_UP), wwan0(), defaultRoute(2, 10), defaultRoute(3, 90)}, R | W},
      {"multipath with one dead hop", {eth0(), wlan0(), multipathDefault({nextHop(2, RTNH_F_DEAD, true), nextHop(4, 0, true)})}, R},
      {"multipath, every hop down", {eth0(), wlan0(), multipathDefault({nextHop(2, RTNH_F_LINKDOWN, true), nextHop(4, RTNH_F_DEAD, false)})}, 0},
      {"multipath through a cellular hop", {wwan0(), multipathDefault({nextHop(3, 0, true)})}, R | W},
  };
  for (const Case& c : cases) {
    const TavloNetworkSnapshot snapshot = snapshotOf(c.messages);
    EXPECT_EQ(c.flags, snapshot.flagsForAnyAddress(cellularByName)) << c.network;
  }
}

TEST(TavloNetworkSnapshotTest, AnyAddressRouteDetailsThatMatter) {
  // A route the kernel marks link-down, in the local table, or via a nexthop object.
  Payload linkDown(routeHeader(AF_INET, 0));
  linkDown.u32(RTA_OIF, 2);
  rtmsg downHeader = routeHeader(AF_INET, 0);
  downHeader.rtm_flags = RTNH_F_LINKDOWN;
  Payload markedDown(downHeader);
  markedDown.u32(RTA_OIF, 2);
  Payload localTable(routeHeader(AF_INET, 0));
  localTable.u32(RTA_OIF, 2).u32(RTA_TABLE, RT_TABLE_LOCAL);
  Payload viaObject(routeHeader(AF_INET, 0));
  viaObject.u32(RTA_NH_ID, 7);
  Payload prefixRoute(routeHeader(AF_INET, 8));
  prefixRoute.u32(RTA_OIF, 2);

  struct Case {
    const char* network;
    std::vector<Message> messages;
    uint32_t flags;
  };
  const std::vector<Case> cases = {
      {"plain", {eth0(), {RTM_NEWROUTE, linkDown}}, R},
      {"marked link-down", {eth0(), {RTM_NEWROUTE, markedDown}}, 0},
      {"table attribute says local", {eth0(), {RTM_NEWROUTE, localTable}}, 0},
      {"nexthop object with a counting link", {lo(), eth0(), {RTM_NEWROUTE, viaObject}}, R},
      {"nexthop object with loopback only", {lo(), {RTM_NEWROUTE, viaObject}}, 0},
      {"a prefix route is not a default route", {eth0(), {RTM_NEWROUTE, prefixRoute}}, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.flags, snapshotOf(c.messages).flagsForAnyAddress(cellularByName)) << c.network;
  }
  EXPECT_EQ(R, snapshotOf({wwan0(), defaultRoute(3)}).flagsForAnyAddress(nullptr)) << "no cellular test: never WWAN";
}

TEST(TavloNetworkSnapshotTest, LinkLocalNeedsAnAddressOnACountingLink) {
  struct Case {
    const char* network;
    std::vector<Message> messages;
    uint32_t flags;
  };
  const std::vector<Case> cases = {
      {"nothing", {}, 0},
      {"IPv4 address on ethernet", {lo(), eth0(), ipv4Address(2)}, LOCAL},
      {"loopback's address only", {lo(), address(1, AF_INET, {127, 0, 0, 1})}, 0},
      {"IPv4 address on a link without carrier", {eth0(IFF_UP), ipv4Address(2)}, 0},
      {"IPv6 link-local address", {eth0(), ipv6LinkLocal(2)}, LOCAL},
      {"IPv6 link-local still tentative", {eth0(), ipv6LinkLocal(2, IFA_F_TENTATIVE)}, 0},
      {"IPv6 global address only", {eth0(), ipv6Global(2)}, 0},
      {"address on an unknown link", {eth0(), ipv4Address(7)}, 0},
      {"address before its link", {ipv4Address(4), wlan0()}, LOCAL},
      {"link without any address", {eth0()}, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.flags, snapshotOf(c.messages).flagsForLinkLocal()) << c.network;
  }

  // The extended flags attribute overrides the 8-bit field.
  ifaddrmsg info{};
  info.ifa_family = AF_INET6;
  info.ifa_index = 2;
  const uint8_t fe80[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  Payload failed(info);
  failed.attribute(IFA_ADDRESS, fe80, sizeof fe80).u32(IFA_FLAGS, IFA_F_DADFAILED);
  EXPECT_EQ(0u, snapshotOf({eth0(), {RTM_NEWADDR, failed}}).flagsForLinkLocal()) << "duplicate address";
}

TEST(TavloNetworkSnapshotTest, LookupAnswersFollowTheRouteTheKernelChose) {
  auto answer = [](uint8_t type, int index, bool gateway) {
    Payload payload(routeHeader(AF_INET, 32, type));
    if (gateway) payload.u32(RTA_GATEWAY, htonl(0x0A000001));
    if (index != 0) payload.u32(RTA_OIF, static_cast<uint32_t>(index));
    auto route = TavloNetworkSnapshot::parseRoute(payload.data(), payload.size());
    EXPECT_TRUE(route.has_value());
    return route.value_or(TavloNetworkSnapshot::Route{});
  };
  struct Case {
    const char* answer;
    TavloNetworkSnapshot::Route route;
    uint32_t flags;
  };
  const std::vector<Case> cases = {
      {"the box's own address", answer(RTN_LOCAL, 1, false), LOCAL},
      {"an own address on a link without carrier", answer(RTN_LOCAL, 5, false), 0},
      {"an own address on an unknown link", answer(RTN_LOCAL, 9, false), 0},
      {"on the local network", answer(RTN_UNICAST, 2, false), R | DIRECT},
      {"via a gateway", answer(RTN_UNICAST, 2, true), R},
      {"via a cellular gateway", answer(RTN_UNICAST, 3, true), R | W},
      {"through a link without carrier", answer(RTN_UNICAST, 5, false), 0},
      {"through loopback", answer(RTN_UNICAST, 1, false), R | DIRECT},
      {"broadcast", answer(RTN_BROADCAST, 2, false), R | DIRECT},
      {"unreachable", answer(RTN_UNREACHABLE, 0, false), 0},
      {"blackhole", answer(RTN_BLACKHOLE, 0, false), 0},
      {"prohibited", answer(RTN_PROHIBIT, 0, false), 0},
      {"unicast with no interface", answer(RTN_UNICAST, 0, false), 0},
  };
  const TavloNetworkSnapshot snapshot = snapshotOf({lo(), eth0(), wwan0(), link(5, IFF_UP, "eth1")});
  for (const Case& c : cases) {
    EXPECT_EQ(c.flags, snapshot.flagsForLookup(c.route, cellularByName)) << c.answer;
  }
}

TEST(TavloNetworkSnapshotTest, BadMessagesAreRefusedWithoutLosingWhatIsHeld) {
  const std::vector<uint8_t> zeroLengthAttribute = {0, 0, IFLA_IFNAME, 0};
  const std::vector<uint8_t> shortAttribute = {2, 0, IFLA_IFNAME, 0};
  const std::vector<uint8_t> overlongAttribute = {200, 0, IFLA_IFNAME, 0, 'e', 't', 'h', 0};
  const std::vector<uint8_t> halfAttributeHeader = {8, 0};
  ifinfomsg goodLink{};
  goodLink.ifi_index = 6;
  ifinfomsg zeroIndex{};
  ifinfomsg negativeIndex{};
  negativeIndex.ifi_index = -4;
  ifaddrmsg noAddress{};
  noAddress.ifa_family = AF_INET;
  noAddress.ifa_index = 2;
  ifaddrmsg shortV6{};
  shortV6.ifa_family = AF_INET6;
  shortV6.ifa_index = 2;
  const uint8_t fourBytes[4] = {1, 2, 3, 4};
  ifaddrmsg hugeIndex{};
  hugeIndex.ifa_family = AF_INET;
  hugeIndex.ifa_index = 0x80000000u;

  rtnexthop zeroHop{};
  rtnexthop overlongHop{};
  overlongHop.rtnh_len = 64;
  overlongHop.rtnh_ifindex = 2;

  struct Case {
    const char* what;
    uint16_t type;
    std::vector<uint8_t> bytes;
  };
  const std::vector<Case> cases = {
      {"empty link", RTM_NEWLINK, {}},
      {"truncated link header", RTM_NEWLINK, std::vector<uint8_t>(sizeof(ifinfomsg) - 1, 0)},
      {"link index 0", RTM_NEWLINK, Payload(zeroIndex).bytes},
      {"negative link index", RTM_NEWLINK, Payload(negativeIndex).bytes},
      {"zero-length attribute", RTM_NEWLINK, Payload(goodLink).raw(zeroLengthAttribute).bytes},
      {"attribute shorter than its header", RTM_NEWLINK, Payload(goodLink).raw(shortAttribute).bytes},
      {"attribute longer than the message", RTM_NEWLINK, Payload(goodLink).raw(overlongAttribute).bytes},
      {"half an attribute header", RTM_NEWLINK, Payload(goodLink).raw(halfAttributeHeader).bytes},
      {"empty route", RTM_NEWROUTE, {}},
      {"truncated route header", RTM_NEWROUTE, std::vector<uint8_t>(sizeof(rtmsg) - 1, 0)},
      {"route with a broken attribute", RTM_NEWROUTE, Payload(routeHeader(AF_INET, 0)).raw(zeroLengthAttribute).bytes},
      {"multipath hop of length 0", RTM_NEWROUTE,
       Payload(routeHeader(AF_INET, 0)).attribute(RTA_MULTIPATH, &zeroHop, sizeof zeroHop).bytes},
      {"multipath hop longer than its attribute", RTM_NEWROUTE,
       Payload(routeHeader(AF_INET, 0)).attribute(RTA_MULTIPATH, &overlongHop, sizeof overlongHop).bytes},
      {"multipath truncated mid-hop", RTM_NEWROUTE,
       Payload(routeHeader(AF_INET, 0)).attribute(RTA_MULTIPATH, fourBytes, sizeof fourBytes).bytes},
      {"empty address", RTM_NEWADDR, {}},
      {"address message without an address", RTM_NEWADDR, Payload(noAddress).bytes},
      {"IPv6 address of four bytes", RTM_NEWADDR, Payload(shortV6).attribute(IFA_ADDRESS, fourBytes, 4).bytes},
      {"address on an impossible index", RTM_NEWADDR, Payload(hugeIndex).attribute(IFA_ADDRESS, fourBytes, 4).bytes},
  };

  TavloNetworkSnapshot snapshot = snapshotOf({eth0(), defaultRoute(2), ipv4Address(2)});
  for (const Case& c : cases) {
    EXPECT_FALSE(snapshot.add(c.type, c.bytes.data(), c.bytes.size())) << c.what;
    EXPECT_EQ(R, snapshot.flagsForAnyAddress(cellularByName)) << "lost the routes after: " << c.what;
    EXPECT_EQ(LOCAL, snapshot.flagsForLinkLocal()) << "lost the addresses after: " << c.what;
  }
  EXPECT_EQ(1u, snapshot.links().size());
  EXPECT_EQ(1u, snapshot.defaultRoutes().size());
  EXPECT_TRUE(snapshot.add(RTM_DELLINK, nullptr, 0)) << "other message types are ignored, not refused";
  EXPECT_TRUE(snapshot.add(0xFFFF, nullptr, 0));
}

TEST(TavloNetworkSnapshotTest, OddButReadableValuesAreTamed) {
  // A name with no terminating NUL and far too long: cut to what a link name can be.
  ifinfomsg info{};
  info.ifi_index = 8;
  info.ifi_flags = kUpAndRunning;
  const std::string longName(300, 'x');
  Payload named(info);
  named.attribute(IFLA_IFNAME, longName.data(), longName.size());
  // An output interface attribute too short to hold one, and one beyond int range.
  Payload shortOif(routeHeader(AF_INET, 0));
  const uint16_t two = 2;
  shortOif.attribute(RTA_OIF, &two, sizeof two);
  Payload hugeOif(routeHeader(AF_INET, 0));
  hugeOif.u32(RTA_OIF, 0xFFFFFFFFu);

  TavloNetworkSnapshot snapshot;
  ASSERT_TRUE(snapshot.add(RTM_NEWLINK, named.data(), named.size()));
  ASSERT_TRUE(snapshot.add(RTM_NEWROUTE, shortOif.data(), shortOif.size()));
  ASSERT_TRUE(snapshot.add(RTM_NEWROUTE, hugeOif.data(), hugeOif.size()));
  EXPECT_EQ(std::string(IFNAMSIZ - 1, 'x'), snapshot.links().at(8).name);
  EXPECT_EQ(0, snapshot.defaultRoutes().at(0).outputInterface);
  EXPECT_EQ(0, snapshot.defaultRoutes().at(1).outputInterface);
  EXPECT_EQ(0u, snapshot.flagsForAnyAddress(cellularByName)) << "routes that name no usable link reach nothing";
}

TEST(TavloNetworkSnapshotTest, KeepsAtMostTheLimitOfEachKind) {
  TavloNetworkSnapshot snapshot;
  const size_t offered = TavloNetworkSnapshot::kMaxEntries + 100;
  for (size_t i = 1; i <= offered; ++i) {
    const Message message = link(static_cast<int>(i), kUpAndRunning, "dummy" + std::to_string(i));
    ASSERT_TRUE(snapshot.add(message.type, message.payload.data(), message.payload.size()));
    const Message route = defaultRoute(static_cast<int>(i));
    ASSERT_TRUE(snapshot.add(route.type, route.payload.data(), route.payload.size()));
  }
  EXPECT_EQ(TavloNetworkSnapshot::kMaxEntries, snapshot.links().size());
  EXPECT_EQ(TavloNetworkSnapshot::kMaxEntries, snapshot.defaultRoutes().size());
  EXPECT_EQ(R, snapshot.flagsForAnyAddress(cellularByName));
}

}  // namespace
