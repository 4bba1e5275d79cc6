// The demo's own collection and authorisation server, on 127.0.0.1.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TavloLocalServer.h"

/// The collection and authorisation server of the integration tests (TavloLocalServer,
/// cpp-httplib on 127.0.0.1 and a port the kernel chose), answering as both ends the
/// library talks to:
///  - "GET /<serial>" authorises the serial: it answers "access=full", sends hits back
///    to this server's "/m/web/", and opens visit 1, 2, 3 ... at each exchange;
///  - "GET /m/web/<serial>?..." collects a hit: it answers 200 "OK".
/// Any other request is answered 404.
///
/// Every request is handed to the observer (before it is answered, so by the time the
/// library learns a hit was sent, the observer has seen it) and kept for `targets`.
///
/// The constructor returns once the server accepts connections; the destructor stops it.
/// Handlers run on the server's threads; every member may be called from any thread.
class TavloDemoServer {
 public:
  /// Receives each request's target: its path and query as on the request line.
  using Observer = std::function<void(const std::string& target)>;

  /// Starts the server, on `port` or (0) one the kernel chose. Throws std::runtime_error
  /// when it cannot listen.
  explicit TavloDemoServer(Observer observer, int port = 0);
  TavloDemoServer(const TavloDemoServer&) = delete;
  TavloDemoServer& operator=(const TavloDemoServer&) = delete;

  /// "http://127.0.0.1:PORT".
  const std::string& baseURL() const { return server_.baseURL(); }

  /// The targets of every request received so far, in the order they arrived.
  std::vector<std::string> targets() const;

  /// Stops listening and waits for the requests in progress. Idempotent.
  void stop() { server_.stop(); }

 private:
  const Observer observer_;
  TavloLocalServer server_;  // made before the handlers are set, which use it
  std::mutex protector_;
  int visits_ = 0;  // guarded by protector_
};
