// An HTTP client that answers from a script.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tavlo/platform/TavloHttpClient.h"

/// Stands in for the network in unit tests. Every request is recorded, in the order the
/// calls began, before it is answered. The answer is, in this order of preference:
///  1. the next scripted response in the queue (each is used once);
///  2. what the handler returns, if one is set;
///  3. no response, with the error "no scripted answer".
///
///   test.http->enqueue(TavloScriptedHttpClient::answer(200, "access=full|host=...|cmsVI=1"));
///   test.http->enqueue(TavloScriptedHttpClient::noResponse("timed out"));
///   test.http->enqueue(TavloScriptedHttpClient::invalidRequest());
///   test.http->setHandler([](const TavloHttpRequest&) { return TavloScriptedHttpClient::answer(500); });
///
/// Callable from any thread; `scriptProtector` guards the state. The handler runs
/// without the lock held, so it may block (to hold a sending thread in place) or call
/// back into this client.
class TavloScriptedHttpClient : public TavloHttpClient {
 public:
  using Handler = std::function<TavloHttpResponse(const TavloHttpRequest&)>;

  /// The error of a call nothing in the script answered.
  static constexpr const char* unscriptedError = "no scripted answer";

  TavloScriptedHttpClient() = default;
  TavloScriptedHttpClient(const TavloScriptedHttpClient&) = delete;
  TavloScriptedHttpClient& operator=(const TavloScriptedHttpClient&) = delete;

  TavloHttpResponse get(const TavloHttpRequest& request) override;

  /// Adds an answer after those already queued.
  void enqueue(TavloHttpResponse response);
  /// Answers every call the queue does not; an empty function removes the handler.
  void setHandler(Handler handler);

  /// Every request received so far, oldest first.
  std::vector<TavloHttpRequest> requests() const;
  std::size_t requestCount() const;
  /// The most recent request; an empty one when none has arrived.
  TavloHttpRequest lastRequest() const;
  /// Waits until at least `count` requests have arrived; false if the time ran out.
  /// Only for a test whose code under test sends from a real thread of its own.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  /// How many queued answers are still unused.
  std::size_t pendingAnswers() const;

  /// A response that arrived, with that status, body and headers.
  static TavloHttpResponse answer(long status, std::string body = {}, TavloHttpHeaders headers = {});
  /// No response at all, as when the server is unreachable or too slow.
  static TavloHttpResponse noResponse(std::string error = "Couldn't connect to server");
  /// A request the client refused to send because it cannot be formed (`requestInvalid`).
  static TavloHttpResponse invalidRequest(std::string error = "URL using bad/illegal format or missing URL");

 private:
  mutable std::mutex scriptProtector;
  mutable std::condition_variable requestArrived;   // notified under scriptProtector
  std::vector<TavloHttpRequest> received;           // guarded by scriptProtector
  std::deque<TavloHttpResponse> queued;             // guarded by scriptProtector
  Handler handler;                                  // guarded by scriptProtector
};
