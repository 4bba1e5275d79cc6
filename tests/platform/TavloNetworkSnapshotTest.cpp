// The rule that tells whether the internet can be reached (the agent's only question), fed
// with hand-made rtnetlink messages: every row is a box's network in a line. Malformed
// datagrams and messages are the rtnetlink fuzz target's job.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <tuple>

#include "linux/TavloNetlinkReachabilitySource.h"
#include "linux/TavloNetworkSnapshot.h"

namespace {

constexpr uint32_t R = TavloReachabilityFlagReachable;
constexpr uint32_t W = TavloReachabilityFlagIsWWAN;
constexpr unsigned kUp = IFF_UP | IFF_RUNNING;

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
Message link(int index, unsigned flags, const std::string& name) {
  const ifinfomsg header{AF_UNSPEC, 0, 0, index, flags, 0};
  return Message{RTM_NEWLINK, {}}.raw(&header, sizeof header).attribute(IFLA_IFNAME, name.c_str(), name.size() + 1);
}
Message lo() { return link(1, kUp | IFF_LOOPBACK, "lo"); }
Message eth0(unsigned flags = kUp) { return link(2, flags, "eth0"); }
Message wwan0() { return link(3, kUp, "wwan0"); }
Message wlan0() { return link(4, kUp, "wlan0"); }
Message route(uint8_t destinationLength, uint8_t type = RTN_UNICAST, unsigned flags = 0, uint8_t family = AF_INET) {
  const rtmsg header{family, destinationLength, 0, 0, RT_TABLE_MAIN, 0, 0, type, flags};
  return Message{RTM_NEWROUTE, {}}.raw(&header, sizeof header);
}
// "default via 192.168.1.1 dev <index> metric <metric>"
Message via(uint32_t index, uint32_t metric = 0) { return route(0).u32(RTA_GATEWAY, 1).u32(RTA_OIF, index).u32(RTA_PRIORITY, metric); }
Message multipath(std::vector<rtnexthop> hops) { return route(0).attribute(RTA_MULTIPATH, hops.data(), hops.size() * sizeof(rtnexthop)); }

TavloNetworkSnapshot snapshotOf(const std::vector<Message>& messages) {
  TavloNetworkSnapshot snapshot;
  for (const Message& m : messages) EXPECT_TRUE(snapshot.add(m.type, m.bytes.data(), m.bytes.size())) << m.type;
  return snapshot;
}
bool cellularByName(const std::string& name) { return name.starts_with("wwan"); }

TEST(TavloNetworkSnapshotTest, AnyAddressNeedsADefaultRouteThroughACountingLinkAndTheBestDecidesWWAN) {
  const rtnexthop dead{sizeof(rtnexthop), RTNH_F_DEAD, 0, 2}, linkDown{sizeof(rtnexthop), RTNH_F_LINKDOWN, 0, 4};
  const rtnexthop alive{sizeof(rtnexthop), 0, 0, 4};
  const std::tuple<const char*, std::vector<Message>, uint32_t> cases[] = {
      {"default via a gateway on ethernet", {lo(), eth0(), via(2)}, R},
      {"ethernet up but no carrier", {eth0(IFF_UP), via(2)}, 0},
      {"default route, link announced after it", {via(2), eth0()}, R},
      {"cellular modem", {wwan0(), via(3)}, R | W},
      {"IPv6 default only", {eth0(), route(0, RTN_UNICAST, 0, AF_INET6).u32(RTA_OIF, 2)}, R},
      {"ethernet preferred over cellular", {eth0(), wwan0(), via(3, 700), via(2, 100)}, R},
      {"preferred route's link is down: the other decides", {eth0(IFF_UP), wwan0(), via(2, 10), via(3, 90)}, R | W},
      {"multipath with one dead hop", {eth0(), wlan0(), multipath({dead, alive})}, R},
      {"multipath, every hop down", {eth0(), wlan0(), multipath({dead, linkDown})}, 0},
      {"route marked link-down", {eth0(), route(0, RTN_UNICAST, RTNH_F_LINKDOWN).u32(RTA_OIF, 2)}, 0},
      {"nexthop object, a counting link", {lo(), eth0(), route(0).u32(RTA_NH_ID, 7)}, R},
      {"a prefix route is no default route", {eth0(), route(8).u32(RTA_OIF, 2)}, 0},
  };
  for (const auto& [network, messages, flags] : cases) EXPECT_EQ(flags, snapshotOf(messages).flagsForAnyAddress(cellularByName)) << network;
}

TEST(TavloNetworkSnapshotTest, ABadMessageIsRefusedWithoutLosingWhatIsHeld) {
  const uint8_t overlongAttribute[] = {200, 0, IFLA_IFNAME, 0, 'e', 't', 'h', 0};
  TavloNetworkSnapshot snapshot = snapshotOf({eth0(), via(2)});
  const Message bad = link(6, kUp, "eth6").raw(overlongAttribute, sizeof overlongAttribute);
  EXPECT_FALSE(snapshot.add(bad.type, bad.bytes.data(), bad.bytes.size()));
  EXPECT_EQ(1u, snapshot.links().size());
  EXPECT_EQ(R, snapshot.flagsForAnyAddress(cellularByName));
}

// A link's name becomes a path under /sys/class/net: nothing may lead out of it.
TEST(TavloNetworkSnapshotTest, CellularModemsAreToldByNameOrDeviceTypeAndNoNameLeadsOutOfSysfs) {
  for (const char* name : {"wwan0", "wwan"}) EXPECT_TRUE(TavloNetlinkReachabilitySource::isCellularInterface(name)) << name;
  for (const char* name : {"lo", "", ".", "..", "../../../../etc", "eth0wwan"}) {
    EXPECT_FALSE(TavloNetlinkReachabilitySource::isCellularInterface(name)) << name;
  }
}

}  // namespace
