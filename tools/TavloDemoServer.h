// The demo's own collection and authorisation server, on 127.0.0.1.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

/// A small HTTP server (cpp-httplib) on 127.0.0.1 and a port the kernel chose, standing
/// in for both ends the library talks to:
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

  /// Starts the server. Throws std::runtime_error when it cannot listen.
  explicit TavloDemoServer(Observer observer);
  ~TavloDemoServer();
  TavloDemoServer(const TavloDemoServer&) = delete;
  TavloDemoServer& operator=(const TavloDemoServer&) = delete;

  /// "http://127.0.0.1:PORT".
  const std::string& baseURL() const { return baseURL_; }

  /// The targets of every request received so far, in the order they arrived.
  std::vector<std::string> targets() const;

  /// Stops listening and waits for the requests in progress. Idempotent.
  void stop();

 private:
  const Observer observer_;
  std::unique_ptr<httplib::Server> server_;
  std::thread listener_;
  std::atomic<bool> listenerEnded_{false};
  std::string baseURL_;

  mutable std::mutex protector_;
  std::vector<std::string> targets_;  // guarded by protector_
  int visits_ = 0;                    // guarded by protector_
};
