#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "linux/TavloNetlinkSocket.h"

// The walk over a datagram is the first thing that touches bytes from the kernel: it
// must hand on exactly the whole messages and stop at the first lie about a length.

namespace {

// Appends one message of `type` with `body`, its length field set to `claimed` (or the
// true length when 0), padded to 4 bytes unless `pad` is false.
void appendMessage(std::vector<uint8_t>& datagram, uint16_t type, const std::string& body, uint32_t claimed = 0,
                   bool pad = true) {
  nlmsghdr header{};
  header.nlmsg_len = claimed != 0 ? claimed : static_cast<uint32_t>(sizeof(nlmsghdr) + body.size());
  header.nlmsg_type = type;
  const auto* raw = reinterpret_cast<const uint8_t*>(&header);
  datagram.insert(datagram.end(), raw, raw + sizeof header);
  datagram.insert(datagram.end(), body.begin(), body.end());
  while (pad && datagram.size() % 4 != 0) datagram.push_back(0);
}

struct Walk {
  bool whole;
  std::vector<std::string> bodies;
};

Walk walk(const std::vector<uint8_t>& datagram, size_t length) {
  Walk result;
  result.whole = TavloNetlinkSocket::forEachMessage(datagram.data(), length,
                                                    [&](const nlmsghdr&, const uint8_t* payload, size_t size) {
                                                      result.bodies.emplace_back(reinterpret_cast<const char*>(payload), size);
                                                    });
  return result;
}

TEST(TavloNetlinkSocketTest, ForEachMessageHandsOnWholeMessagesAndStopsAtTheFirstLie) {
  struct Case {
    const char* what;
    std::vector<uint8_t> datagram;
    size_t cut;  // how many bytes of it arrived (0: all)
    bool whole;
    std::vector<std::string> bodies;
  };
  std::vector<uint8_t> two, unpaddedLast, oddThenEven, shortClaim, longClaim, secondTruncated, halfHeader, emptyBody;
  appendMessage(two, 16, "abcd");
  appendMessage(two, 16, "efgh");
  appendMessage(unpaddedLast, 16, "abcd");
  appendMessage(unpaddedLast, 16, "xyz", 0, false);
  appendMessage(oddThenEven, 16, "a");
  appendMessage(oddThenEven, 16, "bcde");
  appendMessage(shortClaim, 16, "abcd", 8);
  appendMessage(longClaim, 16, "abcd", 4096);
  appendMessage(secondTruncated, 16, "abcd");
  appendMessage(secondTruncated, 16, "efgh");
  appendMessage(halfHeader, 16, "abcd");
  appendMessage(emptyBody, 3, "");

  const std::vector<Case> cases = {
      {"nothing", {}, 0, true, {}},
      {"two messages", two, 0, true, {"abcd", "efgh"}},
      {"last message without padding", unpaddedLast, 0, true, {"abcd", "xyz"}},
      {"odd length then padding", oddThenEven, 0, true, {"a", "bcde"}},
      {"header-only message", emptyBody, 0, true, {""}},
      {"length below a header", shortClaim, 0, false, {}},
      {"length beyond the datagram", longClaim, 0, false, {}},
      {"second message cut short", secondTruncated, secondTruncated.size() - 2, false, {"abcd"}},
      {"one message", halfHeader, 0, true, {"abcd"}},
  };
  for (const Case& c : cases) {
    const Walk result = walk(c.datagram, c.cut != 0 ? c.cut : c.datagram.size());
    EXPECT_EQ(c.whole, result.whole) << c.what;
    EXPECT_EQ(c.bodies, result.bodies) << c.what;
  }

  std::vector<uint8_t> trailing = halfHeader;
  trailing.insert(trailing.end(), {9, 9, 9, 9, 9, 9, 9, 9});
  const Walk result = walk(trailing, trailing.size());
  EXPECT_FALSE(result.whole) << "eight stray bytes are not a header";
  EXPECT_EQ(std::vector<std::string>{"abcd"}, result.bodies);
}

}  // namespace
