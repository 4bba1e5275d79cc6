// An HTTP server inside the process, on 127.0.0.1: tavlo-demo's collection and
// authorisation server (embedded, or as the local collector of --serve) and the
// integration tests' stand-in for both.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tavlo/TavloTypes.h"
#include "tavlo/platform/TavloHttpClient.h"

namespace httplib {
class Server;
}

/// One request as the server received it.
struct TavloLocalServerRequest {
  std::string method;
  /// The request target exactly as it was on the request line: path and query, still
  /// percent-encoded ("/m/web/?s=1&l=a%20b"), or the whole URL when sent to a proxy.
  std::string target;
  /// `target` up to its first "?".
  std::string path;
  /// `target` after its first "?"; empty when there is none.
  std::string query;
  /// Header names as sent, in cpp-httplib's order (sorted by name, without case).
  /// cpp-httplib 0.11 drops a header whose value is empty.
  TavloHttpHeaders headers;
  std::string body;

  /// The first header of that name, compared without regard to case.
  std::optional<std::string> header(const std::string& name) const;
};

/// What a handler answers.
struct TavloLocalServerResponse {
  int status = 200;
  std::string body;  // sent as text/plain
  /// Sent as they are, after the ones cpp-httplib writes itself.
  TavloHttpHeaders headers;
  /// Adds a "Date" header naming this moment (cpp-httplib sends none of its own), as RFC 1123
  /// writes it in GMT, to the second; a date not finite or out of the years 1..9999 gives the epoch.
  std::optional<TavloDate> date;

  /// A plain answer; the other fields keep their defaults.
  static TavloLocalServerResponse with(int status, std::string body = {});
};

/// A real HTTP/1.1 server (cpp-httplib) on 127.0.0.1 and a port the kernel chose, for
/// integration tests and the demo: the library's real client talks to it, and the test
/// asserts on the requests as they arrived.
///
///   TavloLocalServer server;
///   server.handle("/m/web/", [](const TavloLocalServerRequest& r) { return TavloLocalServerResponse::with(200, "ok"); });
///   platform.endpoints = TavloEndpoints::allAt(server.baseURL());
///   ...
///   ASSERT_TRUE(server.waitForRequests(1));
///   EXPECT_EQ("s=123", server.requests()[0].query);
///
/// Every request is recorded before its handler runs, so a handler that blocks does not
/// hide the request from waitForRequests. The handler whose path prefix is the longest
/// one matching the request's raw path answers; with none, the answer is 404 and the
/// body "no handler for <path>". A handler that throws answers 500.
///
/// The constructor returns once the server accepts connections; the destructor stops
/// it and waits for its threads. Handlers run on the server's threads, several at once;
/// every member is callable from any thread (`stateProtector` guards the state).
class TavloLocalServer {
 public:
  using Handler = std::function<TavloLocalServerResponse(const TavloLocalServerRequest&)>;

  struct Options {
    /// Off by default: every answer closes its connection, so stopping never waits for
    /// an idle client. On: up to 100 requests per connection, idle for at most a
    /// second; stopping then waits up to a second for a client that still holds one
    /// open (destroying the client first closes its connections at once).
    bool keepAlive = false;
    /// The port to listen on; 0 lets the kernel choose a free one.
    int port = 0;
  };

  /// Starts the server. Throws std::runtime_error when it cannot listen.
  TavloLocalServer();
  explicit TavloLocalServer(Options options);
  ~TavloLocalServer();
  TavloLocalServer(const TavloLocalServer&) = delete;
  TavloLocalServer& operator=(const TavloLocalServer&) = delete;

  /// "http://127.0.0.1:PORT", without a trailing slash.
  const std::string& baseURL() const { return base; }

  /// Answers requests whose raw path starts with `pathPrefix` ("" answers every path);
  /// replaces an earlier handler of the same prefix.
  void handle(const std::string& pathPrefix, Handler handler);
  /// The same fixed answer for every matching request.
  void respond(const std::string& pathPrefix, int status, std::string body = {}, TavloHttpHeaders headers = {});

  /// Every request received so far, in the order they arrived.
  std::vector<TavloLocalServerRequest> requests() const;
  std::size_t requestCount() const;
  /// Waits until at least `count` requests have arrived; false if the time ran out.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

  /// Stops listening and waits for the handlers in progress. Idempotent.
  void stop();

 private:
  void start(const Options& options);
  void serve(const TavloLocalServerRequest& request, TavloLocalServerResponse& response) const;

  std::unique_ptr<httplib::Server> server;
  std::thread listener;
  std::atomic<bool> listenerEnded{false};
  std::string base;

  mutable std::mutex stateProtector;
  mutable std::condition_variable requestArrived;           // notified under stateProtector
  std::vector<TavloLocalServerRequest> received;             // guarded by stateProtector
  std::vector<std::pair<std::string, Handler>> handlers;    // guarded by stateProtector
};
