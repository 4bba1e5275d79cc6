#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "linux/TavloNetlinkReachabilitySource.h"

// What the Linux source makes of a target, before it ever talks to the kernel. The
// kernel side is in TavloNetlinkReachabilityIntegrationTest.

namespace {

using Kind = TavloNetlinkReachabilitySource::TargetKind;

sockaddr_in ipv4(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  EXPECT_EQ(1, inet_pton(AF_INET, text, &address.sin_addr)) << text;
  return address;
}

TEST(TavloNetlinkReachabilitySourceTest, AddressesAreSortedIntoTargetKinds) {
  struct Case {
    const char* address;
    Kind kind;
  };
  const Case cases[] = {
      {"0.0.0.0", Kind::AnyAddress},          {"169.254.0.0", Kind::LinkLocal},
      {"169.254.10.20", Kind::LinkLocal},     {"169.254.255.255", Kind::LinkLocal},
      {"169.253.255.255", Kind::Address},     {"169.255.0.0", Kind::Address},
      {"10.0.0.1", Kind::Address},            {"127.0.0.1", Kind::Address},
      {"255.255.255.255", Kind::Address},
  };
  for (const Case& c : cases) {
    const sockaddr_in address = ipv4(c.address);
    const auto target = TavloNetlinkReachabilitySource::targetFor(address);
    EXPECT_EQ(c.kind, target.kind) << c.address;
    if (c.kind == Kind::Address) {
      EXPECT_EQ(address.sin_addr.s_addr, target.address) << c.address;
    }
  }
}

TEST(TavloNetlinkReachabilitySourceTest, RefusesWhatItCannotWatch) {
  TavloNetlinkReachabilitySource source;
  sockaddr_in notIpv4 = ipv4("10.0.0.1");
  notIpv4.sin_family = AF_INET6;
  EXPECT_EQ(nullptr, source.handleForAddress(notIpv4));
  sockaddr_in unspecified{};
  EXPECT_EQ(nullptr, source.handleForAddress(unspecified)) << "a zeroed address has no family";
  EXPECT_EQ(nullptr, source.handleForHostName(""));
  EXPECT_EQ(nullptr, source.handleForHostName(std::string(256, 'a')));

  EXPECT_NE(nullptr, source.handleForAddress(ipv4("0.0.0.0")));
  EXPECT_NE(nullptr, source.handleForHostName("tv.example"));
  EXPECT_NE(nullptr, source.handleForHostName(std::string(255, 'a')));
}

TEST(TavloNetlinkReachabilitySourceTest, CellularModemsAreToldByNameOrDeviceType) {
  struct Case {
    std::string name;
    bool cellular;
  };
  const Case cases[] = {
      {"wwan0", true},
      {"wwan", true},
      {"lo", false},               // /sys/class/net/lo/uevent has no DEVTYPE
      {"", false},
      {"..", false},
      {".", false},
      {"../../../../etc", false},  // never a path out of /sys/class/net
      {"no-such-interface", false},
      {"eth0wwan", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.cellular, TavloNetlinkReachabilitySource::isCellularInterface(c.name)) << "'" << c.name << "'";
  }
}

}  // namespace
