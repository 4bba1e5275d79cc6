#include "linux/TavloNetlinkSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <vector>

namespace {

// Dumps come in datagrams of up to 32 KiB; anything bigger arrives truncated and is
// refused rather than half-read.
constexpr size_t kDatagramCapacity = 64 * 1024;

size_t aligned(size_t length) { return (length + NLMSG_ALIGNTO - 1) & ~static_cast<size_t>(NLMSG_ALIGNTO - 1); }

using SteadyClock = std::chrono::steady_clock;

std::atomic<uint64_t> requestsSent{0};

}  // namespace

TavloNetlinkSocket::TavloNetlinkSocket(uint32_t groups) {
  const int opened = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (opened < 0) return;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = groups;
  if (::bind(opened, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    ::close(opened);
    return;
  }
  descriptor = opened;
}

TavloNetlinkSocket::~TavloNetlinkSocket() {
  if (descriptor >= 0) ::close(descriptor);
}

bool TavloNetlinkSocket::forEachMessage(const uint8_t* data, size_t length, const MessageHandler& onMessage) {
  size_t offset = 0;
  while (offset < length) {
    const size_t remaining = length - offset;
    if (remaining < sizeof(nlmsghdr)) return false;
    nlmsghdr header;
    std::memcpy(&header, data + offset, sizeof header);  // the buffer need not be aligned
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > remaining) return false;
    onMessage(header, data + offset + sizeof(nlmsghdr), header.nlmsg_len - sizeof(nlmsghdr));
    // The padding after the last message may be missing; that ends the walk cleanly.
    offset += aligned(header.nlmsg_len);
  }
  return true;
}

int TavloNetlinkSocket::request(uint16_t type, uint16_t flags, const void* payload, size_t length,
                                std::chrono::milliseconds timeout, const MessageHandler& onMessage) {
  if (descriptor < 0 || length > kDatagramCapacity) return -1;
  const uint32_t sequence = ++lastSequence;
  std::vector<uint8_t> out(aligned(sizeof(nlmsghdr)) + length);
  nlmsghdr header{};
  header.nlmsg_len = static_cast<uint32_t>(out.size());
  header.nlmsg_type = type;
  header.nlmsg_flags = static_cast<uint16_t>(flags | NLM_F_REQUEST);
  header.nlmsg_seq = sequence;
  std::memcpy(out.data(), &header, sizeof header);
  if (length > 0) std::memcpy(out.data() + aligned(sizeof(nlmsghdr)), payload, length);

  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  ssize_t sent;
  do {
    sent = ::sendto(descriptor, out.data(), out.size(), 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
  } while (sent < 0 && errno == EINTR);
  if (sent != static_cast<ssize_t>(out.size())) return -1;
  requestsSent.fetch_add(1, std::memory_order_relaxed);

  const bool dump = (flags & NLM_F_DUMP) == NLM_F_DUMP;
  const auto deadline = SteadyClock::now() + timeout;
  bool interruptedDump = false;
  std::vector<uint8_t> in(kDatagramCapacity);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
    if (left.count() <= 0) return -1;
    pollfd ready{descriptor, POLLIN, 0};
    const int polled = ::poll(&ready, 1, static_cast<int>(left.count()));
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return -1;

    sockaddr_nl from{};
    iovec buffer{in.data(), in.size()};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &buffer;
    message.msg_iovlen = 1;
    const ssize_t received = ::recvmsg(descriptor, &message, MSG_DONTWAIT);
    if (received < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return -1;
    }
    if ((message.msg_flags & MSG_TRUNC) != 0) return -1;
    if (from.nl_pid != 0) continue;  // only the kernel answers requests

    bool finished = false;
    int error = 0;
    const bool whole = forEachMessage(in.data(), static_cast<size_t>(received),
                                      [&](const nlmsghdr& answer, const uint8_t* body, size_t bodyLength) {
                                        if (finished || answer.nlmsg_seq != sequence) return;
                                        if ((answer.nlmsg_flags & NLM_F_DUMP_INTR) != 0) interruptedDump = true;
                                        if (answer.nlmsg_type == NLMSG_DONE) {
                                          finished = true;
                                        } else if (answer.nlmsg_type == NLMSG_ERROR) {
                                          finished = true;
                                          int code = 0;
                                          if (bodyLength < sizeof code) {
                                            error = -1;  // an error answer too short to say which
                                            return;
                                          }
                                          std::memcpy(&code, body, sizeof code);
                                          // 0 is an acknowledgement; a negative errno a refusal.
                                          error = code < 0 && code != std::numeric_limits<int>::min() ? -code : 0;
                                        } else if (answer.nlmsg_type == NLMSG_NOOP ||
                                                   answer.nlmsg_type == NLMSG_OVERRUN) {
                                          // nothing to hand on
                                        } else {
                                          onMessage(answer, body, bodyLength);
                                          if (!dump) finished = true;
                                        }
                                      });
    if (!whole) return -1;
    // An interrupted dump is read to its end all the same, so the socket is clean for
    // the next request.
    if (finished) {
      if (error != 0) return error;
      return interruptedDump ? -1 : 0;
    }
  }
}

uint64_t TavloNetlinkSocket::TEST_requestCount() { return requestsSent.load(std::memory_order_relaxed); }

bool TavloNetlinkSocket::drain() {
  if (descriptor < 0) return false;
  std::vector<uint8_t> in(kDatagramCapacity);
  for (;;) {
    const ssize_t received = ::recv(descriptor, in.data(), in.size(), MSG_DONTWAIT);
    if (received >= 0) continue;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
    if (errno == ENOBUFS) continue;  // announcements lost: the caller re-reads everything
    return false;
  }
}
