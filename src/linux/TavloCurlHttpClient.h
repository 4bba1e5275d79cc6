// The HTTP client on Linux: libcurl's easy interface.
#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

#include <curl/curl.h>

#include "tavlo/platform/TavloHttpClient.h"

/// Sends each GET synchronously on the calling thread with a libcurl easy handle.
///
/// Connections: an easy handle keeps its own connection cache, so handles are pooled
/// rather than made per call. A call takes an idle handle (the one most recently given
/// back, so a single sending thread always gets the same one and keeps its keep-alive
/// connection), uses it alone, resets its options and returns it; curl_easy_reset keeps
/// the cache. Calls from several threads at once each get their own handle. The pool
/// never holds more idle handles than `maxIdleHandles`; the destructor closes them all,
/// so the servers see their connections end.
///
/// What is sent: the request's URL and headers, nothing else the caller did not ask for
/// apart from libcurl's "Host" and "Accept". Redirects are not followed, only http and
/// https are spoken, and the proxy variables of the environment (http_proxy,
/// https_proxy, no_proxy) are honoured as libcurl does by default.
///
/// What is answered:
///  - a response arrived: its final status (error statuses included), the headers of
///    that final response only, and the body as raw bytes;
///  - a request that cannot be formed: `requestInvalid`, no status, and the reason in
///    `error`. Nothing is sent. That is a request that could only be sent by changing it
///    (a header holding a line break, which would inject headers of its own, or a URL
///    holding a NUL), a URL longer than TavloMaxUrlBytes or whose request head would not
///    fit libcurl's buffer, and whatever libcurl itself refuses to send (a malformed URL,
///    a scheme other than http and https);
///  - anything else (refused, timed out, reset, a body over the limit): no status, no
///    headers, no body, and the reason in `error`.
///
/// Callable from any thread. The destructor requires that no call is in progress.
class TavloCurlHttpClient : public TavloHttpClient {
 public:
  /// The default bound on a response body; a collection or authorisation answer is a
  /// few hundred bytes, so this only ever stops a hostile or broken server.
  static constexpr std::size_t defaultMaxBodyBytes = 4 * 1024 * 1024;
  /// The bound on all header bytes of one exchange, interim responses included.
  static constexpr std::size_t maxHeaderBytes = 256 * 1024;
  static constexpr std::size_t maxIdleHandles = 8;

  explicit TavloCurlHttpClient(std::size_t maxBodyBytes = defaultMaxBodyBytes);
  ~TavloCurlHttpClient() override;
  TavloCurlHttpClient(const TavloCurlHttpClient&) = delete;
  TavloCurlHttpClient& operator=(const TavloCurlHttpClient&) = delete;

  TavloHttpResponse get(const TavloHttpRequest& request) override;

 private:
  class HandleLease;

  /// An idle handle from the pool, or a new one; null when libcurl cannot make one.
  CURL* takeHandle();
  void giveBack(CURL* handle);

  const std::size_t maxBodyBytes;
  std::mutex handlesProtector;
  std::vector<CURL*> idleHandles;  // guarded by handlesProtector
};
