// Feeds arbitrary bytes to the rtnetlink reading as one datagram from the kernel: the walk
// over its messages, the snapshot they fill (links, addresses, default routes) and the
// route of a lookup's answer. A reply is trusted no more than any other input: it must
// neither crash the watcher nor yield flags the rules cannot give.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "linux/TavloNetlinkSocket.h"
#include "linux/TavloNetworkSnapshot.h"
#include "tavlo/platform/TavloReachabilitySource.h"

namespace {

constexpr uint32_t kLocalFlags =
    TavloReachabilityFlagReachable | TavloReachabilityFlagIsLocalAddress | TavloReachabilityFlagIsDirect;

// Flags are nothing, or reachable with what the rules add to it.
bool possible(uint32_t flags) {
  return flags == 0 ||
         ((flags & TavloReachabilityFlagReachable) != 0 && (flags & ~(kLocalFlags | TavloReachabilityFlagIsWWAN)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  TavloNetworkSnapshot snapshot;
  std::optional<TavloNetworkSnapshot::Route> lookupAnswer;
  size_t expected = 0;  // where the next message must start
  const bool whole = TavloNetlinkSocket::forEachMessage(
      data, size, [&](const nlmsghdr& header, const uint8_t* payload, size_t length) {
        // Messages come in order, back to back, each inside the datagram.
        if (payload != data + expected + sizeof(nlmsghdr) || header.nlmsg_len != sizeof(nlmsghdr) + length ||
            expected + header.nlmsg_len > size) {
          __builtin_trap();
        }
        expected += NLMSG_ALIGN(header.nlmsg_len);
        const bool added = snapshot.add(header.nlmsg_type, payload, length);
        if (header.nlmsg_type == RTM_NEWROUTE) {
          lookupAnswer = TavloNetworkSnapshot::parseRoute(payload, length);
          if (added != lookupAnswer.has_value()) __builtin_trap();
        }
      });
  if (whole && (expected < size || expected - size >= NLMSG_ALIGNTO)) __builtin_trap();

  if (snapshot.links().size() > TavloNetworkSnapshot::kMaxEntries ||
      snapshot.defaultRoutes().size() > TavloNetworkSnapshot::kMaxEntries) {
    __builtin_trap();
  }
  for (const auto& [index, link] : snapshot.links()) {
    if (index <= 0 || link.index != index || link.name.size() >= IFNAMSIZ ||
        link.name.find('\0') != std::string::npos) {
      __builtin_trap();
    }
  }
  for (const auto& route : snapshot.defaultRoutes()) {
    if (route.destinationLength != 0) __builtin_trap();
  }

  // Whether a link is cellular may add IsWWAN, and nothing else.
  const auto everyLinkCellular = [](const std::string&) { return true; };
  const auto noLinkCellular = [](const std::string&) { return false; };
  const uint32_t anyAddress = snapshot.flagsForAnyAddress(everyLinkCellular);
  if (!possible(anyAddress) || (anyAddress & ~(TavloReachabilityFlagReachable | TavloReachabilityFlagIsWWAN)) != 0 ||
      snapshot.flagsForAnyAddress(noLinkCellular) != (anyAddress & ~TavloReachabilityFlagIsWWAN) ||
      snapshot.flagsForAnyAddress(nullptr) != (anyAddress & ~TavloReachabilityFlagIsWWAN)) {
    __builtin_trap();
  }
  const uint32_t linkLocal = snapshot.flagsForLinkLocal();
  if (linkLocal != 0 && linkLocal != kLocalFlags) __builtin_trap();
  if (lookupAnswer) {
    const uint32_t lookup = snapshot.flagsForLookup(*lookupAnswer, everyLinkCellular);
    if (!possible(lookup) || (lookupAnswer->type == RTN_LOCAL && lookup != 0 && lookup != kLocalFlags) ||
        snapshot.flagsForLookup(*lookupAnswer, noLinkCellular) != (lookup & ~TavloReachabilityFlagIsWWAN)) {
      __builtin_trap();
    }
  }
  return 0;
}
