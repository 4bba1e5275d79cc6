// A NETLINK_ROUTE socket: requests with deadlines, and kernel announcements.
#pragma once

#include <linux/netlink.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

/// One routing socket of the kernel's. Used two ways:
///  - request(): send one request (a dump of links, routes or addresses, or one route
///    lookup) and collect the answer, never waiting beyond a deadline;
///  - subscribed to multicast groups (RTMGRP_*): the kernel announces each change, and
///    drain() empties what arrived.
///
/// Everything read from the socket is checked before use: a datagram is walked with
/// forEachMessage, which trusts no length field. Owns its descriptor; not copyable. Not
/// thread-safe: one thread uses one socket.
class TavloNetlinkSocket {
 public:
  /// Called with each answer message: its header and its payload (the bytes after the
  /// header, within the message's own length).
  using MessageHandler = std::function<void(const nlmsghdr& header, const uint8_t* payload, size_t length)>;

  /// Opens a socket subscribed to `groups` (0: none). isOpen() tells whether that worked.
  explicit TavloNetlinkSocket(uint32_t groups = 0);
  ~TavloNetlinkSocket();
  TavloNetlinkSocket(const TavloNetlinkSocket&) = delete;
  TavloNetlinkSocket& operator=(const TavloNetlinkSocket&) = delete;

  bool isOpen() const { return descriptor >= 0; }
  /// For poll(); -1 when not open.
  int fd() const { return descriptor; }

  /// Sends a request of `type` with `flags` (NLM_F_REQUEST is added) and `payload`, and
  /// hands each answer message to `onMessage`: for a dump, every message up to
  /// NLMSG_DONE; otherwise the one answer. Answers 0 when the exchange completed, the
  /// kernel's (positive) errno when it answered with an error, and -1 when the exchange
  /// failed: socket error, deadline passed, truncated or malformed datagram, or an
  /// interrupted dump (NLM_F_DUMP_INTR: the tables changed under it; ask again).
  int request(uint16_t type, uint16_t flags, const void* payload, size_t length, std::chrono::milliseconds timeout,
              const MessageHandler& onMessage);

  /// Reads every datagram waiting, without blocking, and throws them away: a subscriber
  /// re-reads the whole state anyway. Answers false when the socket failed for good;
  /// an overrun (ENOBUFS, announcements lost) counts as read: the state is re-read.
  bool drain();

  /// Walks the messages of one datagram, calling `onMessage` for each whole one, and
  /// answers false at the first message whose header is truncated or whose length is
  /// below a header or beyond the datagram (what came before it was still handed on).
  static bool forEachMessage(const uint8_t* data, size_t length, const MessageHandler& onMessage);

  /// How many requests every socket of this process has sent to the kernel so far.
  static uint64_t TEST_requestCount();

 private:
  int descriptor = -1;
  uint32_t lastSequence = 0;
};
