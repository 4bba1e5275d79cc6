#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "linux/TavloNetworkSnapshot.h"
#include "tavlo/platform/TavloReachabilitySource.h"

// The rules that turn the kernel's routing state into reachability flags, fed with
// hand-made rtnetlink messages: every case here is a box's network in a few lines.

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr uint32_t W = TavloReachabilityFlagIsWWAN;
constexpr uint32_t DIRECT = TavloReachabilityFlagIsDirect;
constexpr uint32_t LOCAL = R | TavloReachabilityFlagIsLocalAddress | DIRECT;
constexpr unsigned kUpAndRunning = IFF_UP | IFF_RUNNING;

// One message: a fixed header, then attributes, each padded to four bytes.
struct Message {
  uint16_t type;
  std::vector<uint8_t> bytes;

  Message& raw(const void* data, size_t length) {
    bytes.insert(bytes.end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + length);
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return *this;
  }
  Message& attribute(uint16_t kind, const void* data, size_t length) {
    const rtattr head{static_cast<unsigned short>(RTA_LENGTH(length)), kind};
    return raw(&head, sizeof head).raw(data, length);
  }
  Message& u32(uint16_t kind, uint32_t value) { return attribute(kind, &value, sizeof value); }
};
template <typename Header>
Message message(uint16_t type, const Header& header) {
  return Message{type, {}}.raw(&header, sizeof header);
}

ifinfomsg linkHeader(int index, unsigned flags = 0) {
  ifinfomsg header{};
  header.ifi_index = index;
  header.ifi_flags = flags;
  return header;
}
Message link(int index, unsigned flags, const std::string& name) {
  return message(RTM_NEWLINK, linkHeader(index, flags)).attribute(IFLA_IFNAME, name.c_str(), name.size() + 1);
}
Message lo() { return link(1, kUpAndRunning | IFF_LOOPBACK, "lo"); }
Message eth0(unsigned flags = kUpAndRunning) { return link(2, flags, "eth0"); }
Message wwan0() { return link(3, kUpAndRunning, "wwan0"); }
Message wlan0() { return link(4, kUpAndRunning, "wlan0"); }

Message route(uint8_t family, uint8_t destinationLength, uint8_t type = RTN_UNICAST, unsigned flags = 0) {
  const rtmsg header{family, destinationLength, 0, 0, RT_TABLE_MAIN, 0, 0, type, flags};
  return message(RTM_NEWROUTE, header);
}
// "default via 192.168.1.1 dev <index> metric <metric>"
Message via(int index, uint32_t metric = 0) {
  Message m = route(AF_INET, 0).u32(RTA_GATEWAY, htonl(0xC0A80101)).u32(RTA_OIF, static_cast<uint32_t>(index));
  return metric == 0 ? m : m.u32(RTA_PRIORITY, metric);
}
// "default dev <index>", of the given family and type
Message direct(int index, uint8_t family = AF_INET, uint8_t type = RTN_UNICAST) {
  return route(family, 0, type).u32(RTA_OIF, static_cast<uint32_t>(index));
}

std::vector<uint8_t> hop(int index, uint8_t flags, bool gateway) {
  const rtnexthop placeholder{};
  Message hop{0, {}};
  hop.raw(&placeholder, sizeof placeholder);
  if (gateway) hop.u32(RTA_GATEWAY, htonl(0x0A000001));
  const rtnexthop header{static_cast<unsigned short>(hop.bytes.size()), flags, 0, index};
  std::copy_n(reinterpret_cast<const uint8_t*>(&header), sizeof header, hop.bytes.begin());
  return hop.bytes;
}
Message multipath(const std::vector<std::vector<uint8_t>>& hops) {
  std::vector<uint8_t> all;
  for (const auto& one : hops) all.insert(all.end(), one.begin(), one.end());
  return route(AF_INET, 0).attribute(RTA_MULTIPATH, all.data(), all.size());
}

Message address(int index, uint8_t family, std::vector<uint8_t> bytes, uint8_t flags = 0) {
  const ifaddrmsg header{family, static_cast<uint8_t>(family == AF_INET ? 24 : 64), flags, 0, static_cast<uint32_t>(index)};
  return message(RTM_NEWADDR, header).attribute(IFA_ADDRESS, bytes.data(), bytes.size());
}
Message ipv4Address(int index) { return address(index, AF_INET, {192, 168, 1, 20}); }
Message ipv6LinkLocal(int index, uint8_t flags = 0) {
  return address(index, AF_INET6, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}, flags);
}

TavloNetworkSnapshot snapshotOf(const std::vector<Message>& messages) {
  TavloNetworkSnapshot snapshot;
  for (const Message& m : messages) {
    EXPECT_TRUE(snapshot.add(m.type, m.bytes.data(), m.bytes.size())) << "a well-formed message of type " << m.type;
  }
  return snapshot;
}

bool cellularByName(const std::string& name) { return name.rfind("wwan", 0) == 0; }

struct Network {
  const char* network;
  std::vector<Message> messages;
  uint32_t flags;
};

TEST(TavloNetworkSnapshotTest, AnyAddressNeedsADefaultRouteThroughACountingLink) {
  const uint8_t v6Gateway[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const std::vector<Network> cases = {
      {"nothing at all", {}, 0},
      {"links but no route", {lo(), eth0()}, 0},
      {"default via a gateway on ethernet", {lo(), eth0(), via(2)}, R},
      {"direct default route", {eth0(), direct(2)}, R},
      {"ethernet up but no carrier", {eth0(IFF_UP), via(2)}, 0},
      {"ethernet running but administratively down", {eth0(IFF_RUNNING), via(2)}, 0},
      {"default route through loopback", {lo(), via(1)}, 0},
      {"default route through an unknown link", {eth0(), via(9)}, 0},
      {"default route, link announced after it", {via(2), eth0()}, R},
      {"cellular modem", {wwan0(), via(3)}, R | W},
      {"IPv6 only", {eth0(), route(AF_INET6, 0).attribute(RTA_GATEWAY, v6Gateway, 16).u32(RTA_OIF, 2)}, R},
      {"IPv6 unreachable default on loopback", {lo(), eth0(), direct(1, AF_INET6, RTN_UNREACHABLE)}, 0},
      {"blackhole default", {eth0(), direct(2, AF_INET, RTN_BLACKHOLE)}, 0},
      {"ethernet preferred over cellular", {eth0(), wwan0(), via(3, 700), via(2, 100)}, R},
      {"cellular preferred over WiFi", {wlan0(), wwan0(), via(4, 600), via(3, 50)}, R | W},
      {"preferred route's link is down: the other decides", {eth0(IFF_UP), wwan0(), via(2, 10), via(3, 90)}, R | W},
      {"multipath with one dead hop", {eth0(), wlan0(), multipath({hop(2, RTNH_F_DEAD, true), hop(4, 0, true)})}, R},
      {"multipath, every hop down",
       {eth0(), wlan0(), multipath({hop(2, RTNH_F_LINKDOWN, true), hop(4, RTNH_F_DEAD, false)})}, 0},
      {"multipath through a cellular hop", {wwan0(), multipath({hop(3, 0, true)})}, R | W},
      {"route marked link-down", {eth0(), route(AF_INET, 0, RTN_UNICAST, RTNH_F_LINKDOWN).u32(RTA_OIF, 2)}, 0},
      {"table attribute says local", {eth0(), direct(2).u32(RTA_TABLE, RT_TABLE_LOCAL)}, 0},
      {"nexthop object with a counting link", {lo(), eth0(), route(AF_INET, 0).u32(RTA_NH_ID, 7)}, R},
      {"nexthop object with loopback only", {lo(), route(AF_INET, 0).u32(RTA_NH_ID, 7)}, 0},
      {"a prefix route is not a default route", {eth0(), route(AF_INET, 8).u32(RTA_OIF, 2)}, 0},
  };
  for (const Network& c : cases) {
    EXPECT_EQ(c.flags, snapshotOf(c.messages).flagsForAnyAddress(cellularByName)) << c.network;
  }
  EXPECT_EQ(R, snapshotOf({wwan0(), via(3)}).flagsForAnyAddress(nullptr)) << "no cellular test: never WWAN";
}

TEST(TavloNetworkSnapshotTest, LinkLocalNeedsAnAddressOnACountingLink) {
  const std::vector<uint8_t> fe80 = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const std::vector<Network> cases = {
      {"nothing", {}, 0},
      {"IPv4 address on ethernet", {lo(), eth0(), ipv4Address(2)}, LOCAL},
      {"loopback's address only", {lo(), address(1, AF_INET, {127, 0, 0, 1})}, 0},
      {"IPv4 address on a link without carrier", {eth0(IFF_UP), ipv4Address(2)}, 0},
      {"IPv6 link-local address", {eth0(), ipv6LinkLocal(2)}, LOCAL},
      {"IPv6 link-local still tentative", {eth0(), ipv6LinkLocal(2, IFA_F_TENTATIVE)}, 0},
      {"duplicate address, in the extended flags", {eth0(), address(2, AF_INET6, fe80).u32(IFA_FLAGS, IFA_F_DADFAILED)}, 0},
      {"IPv6 global address only", {eth0(), address(2, AF_INET6, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9})}, 0},
      {"address on an unknown link", {eth0(), ipv4Address(7)}, 0},
      {"address before its link", {ipv4Address(4), wlan0()}, LOCAL},
      {"link without any address", {eth0()}, 0},
  };
  for (const Network& c : cases) EXPECT_EQ(c.flags, snapshotOf(c.messages).flagsForLinkLocal()) << c.network;
}

TEST(TavloNetworkSnapshotTest, LookupAnswersFollowTheRouteTheKernelChose) {
  const auto answer = [](uint8_t type, int index, bool gateway) {
    Message m = route(AF_INET, 32, type);
    if (gateway) m.u32(RTA_GATEWAY, htonl(0x0A000001));
    if (index != 0) m.u32(RTA_OIF, static_cast<uint32_t>(index));
    auto parsed = TavloNetworkSnapshot::parseRoute(m.bytes.data(), m.bytes.size());
    EXPECT_TRUE(parsed.has_value());
    return parsed.value_or(TavloNetworkSnapshot::Route{});
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
  for (const Case& c : cases) EXPECT_EQ(c.flags, snapshot.flagsForLookup(c.route, cellularByName)) << c.answer;
}

TEST(TavloNetworkSnapshotTest, BadMessagesAreRefusedWithoutLosingWhatIsHeld) {
  const uint8_t zeroLengthAttribute[] = {0, 0, IFLA_IFNAME, 0};
  const uint8_t shortAttribute[] = {2, 0, IFLA_IFNAME, 0};
  const uint8_t overlongAttribute[] = {200, 0, IFLA_IFNAME, 0, 'e', 't', 'h', 0};
  const uint8_t halfAttributeHeader[] = {8, 0};
  const uint8_t fourBytes[4] = {1, 2, 3, 4};
  const ifinfomsg goodLink = linkHeader(6);
  const rtnexthop zeroHop{};
  const rtnexthop overlongHop{64, 0, 0, 2};
  const std::vector<std::pair<const char*, Message>> cases = {
      {"truncated link header", {RTM_NEWLINK, std::vector<uint8_t>(sizeof(ifinfomsg) - 1, 0)}},
      {"truncated route header", {RTM_NEWROUTE, std::vector<uint8_t>(sizeof(rtmsg) - 1, 0)}},
      {"truncated address header", {RTM_NEWADDR, std::vector<uint8_t>(sizeof(ifaddrmsg) - 1, 0)}},
      {"link index 0", message(RTM_NEWLINK, ifinfomsg{})},
      {"negative link index", message(RTM_NEWLINK, linkHeader(-4))},
      {"zero-length attribute", message(RTM_NEWLINK, goodLink).raw(zeroLengthAttribute, 4)},
      {"attribute shorter than its header", message(RTM_NEWLINK, goodLink).raw(shortAttribute, 4)},
      {"attribute longer than the message", message(RTM_NEWLINK, goodLink).raw(overlongAttribute, 8)},
      {"half an attribute header", message(RTM_NEWLINK, goodLink).raw(halfAttributeHeader, 2)},
      {"route with a broken attribute", route(AF_INET, 0).raw(zeroLengthAttribute, 4)},
      {"multipath hop of length 0", route(AF_INET, 0).attribute(RTA_MULTIPATH, &zeroHop, sizeof zeroHop)},
      {"multipath hop longer than its attribute",
       route(AF_INET, 0).attribute(RTA_MULTIPATH, &overlongHop, sizeof overlongHop)},
      {"multipath truncated mid-hop", route(AF_INET, 0).attribute(RTA_MULTIPATH, fourBytes, 4)},
      {"address message without an address", message(RTM_NEWADDR, ifaddrmsg{AF_INET, 24, 0, 0, 2})},
      {"IPv6 address of four bytes",
       message(RTM_NEWADDR, ifaddrmsg{AF_INET6, 64, 0, 0, 2}).attribute(IFA_ADDRESS, fourBytes, 4)},
      {"address on an impossible index",
       message(RTM_NEWADDR, ifaddrmsg{AF_INET, 24, 0, 0, 0x80000000u}).attribute(IFA_ADDRESS, fourBytes, 4)},
  };
  TavloNetworkSnapshot snapshot = snapshotOf({eth0(), via(2), ipv4Address(2)});
  for (const auto& [what, bad] : cases) {
    EXPECT_FALSE(snapshot.add(bad.type, bad.bytes.data(), bad.bytes.size())) << what;
    EXPECT_EQ(R, snapshot.flagsForAnyAddress(cellularByName)) << "lost the routes after: " << what;
    EXPECT_EQ(LOCAL, snapshot.flagsForLinkLocal()) << "lost the addresses after: " << what;
  }
  EXPECT_EQ(1u, snapshot.links().size());
  EXPECT_EQ(1u, snapshot.defaultRoutes().size());
  EXPECT_TRUE(snapshot.add(RTM_DELLINK, nullptr, 0)) << "other message types are ignored, not refused";
  EXPECT_TRUE(snapshot.add(0xFFFF, nullptr, 0));
}

TEST(TavloNetworkSnapshotTest, OddButReadableValuesAreTamedAndEachKindIsBounded) {
  // A name far too long and without its NUL; output interfaces too short to hold one and beyond int range.
  const std::string longName(300, 'x');
  const uint16_t two = 2;
  const TavloNetworkSnapshot odd = snapshotOf({
      message(RTM_NEWLINK, linkHeader(8, kUpAndRunning))
          .attribute(IFLA_IFNAME, longName.data(), longName.size()),
      route(AF_INET, 0).attribute(RTA_OIF, &two, sizeof two),
      direct(-1),
  });
  EXPECT_EQ(std::string(IFNAMSIZ - 1, 'x'), odd.links().at(8).name);
  EXPECT_EQ(0, odd.defaultRoutes().at(0).outputInterface);
  EXPECT_EQ(0, odd.defaultRoutes().at(1).outputInterface);
  EXPECT_EQ(0u, odd.flagsForAnyAddress(cellularByName)) << "routes that name no usable link reach nothing";

  std::vector<Message> many;
  for (size_t i = 1; i <= TavloNetworkSnapshot::kMaxEntries + 100; ++i) {
    many.push_back(link(static_cast<int>(i), kUpAndRunning, "dummy" + std::to_string(i)));
    many.push_back(via(static_cast<int>(i)));
  }
  const TavloNetworkSnapshot full = snapshotOf(many);
  EXPECT_EQ(TavloNetworkSnapshot::kMaxEntries, full.links().size());
  EXPECT_EQ(TavloNetworkSnapshot::kMaxEntries, full.defaultRoutes().size());
  EXPECT_EQ(R, full.flagsForAnyAddress(cellularByName));
}

}  // namespace
