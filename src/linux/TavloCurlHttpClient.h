// The HTTP client on Linux: libcurl's easy interface.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include <curl/curl.h>

#include "tavlo/platform/TavloHttpClient.h"
#include "tavlo/platform/TavloLinuxOptions.h"

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
/// https_proxy, no_proxy) are honoured as libcurl does by default, unless the
/// `Settings` name a proxy. HTTPS servers are verified against the CA certificates the
/// `Settings` name, else libcurl's built-in ones.
///
/// A certificate that cannot be verified (or CA certificates that cannot be loaded) is
/// no network outage: it will not mend by itself. The answer is still "no answer", so
/// the hit stays queued, but the client also logs one ERROR line saying so, naming the
/// server and where the CA certificates came from; once per run of such failures, so a
/// retried hit does not repeat it, and again after any answer came.
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

  /// What the deployment chose for every exchange. Empty strings leave libcurl's own
  /// behaviour.
  struct Settings {
    std::string caFile;       ///< CURLOPT_CAINFO
    std::string caDirectory;  ///< CURLOPT_CAPATH
    /// Where caFile and caDirectory came from, for the log ("set by the application",
    /// "from CURL_CA_BUNDLE", ...); empty when both are.
    std::string caSource;
    std::string proxy;  ///< CURLOPT_PROXY

    /// The options' choices; the environment's CA certificates (CURL_CA_BUNDLE, else
    /// SSL_CERT_FILE, and SSL_CERT_DIR) when the options name none.
    static Settings from(const TavloLinuxOptions& options);
  };

  explicit TavloCurlHttpClient(std::size_t maxBodyBytes = defaultMaxBodyBytes, Settings settings = {});
  ~TavloCurlHttpClient() override;
  TavloCurlHttpClient(const TavloCurlHttpClient&) = delete;
  TavloCurlHttpClient& operator=(const TavloCurlHttpClient&) = delete;

  TavloHttpResponse get(const TavloHttpRequest& request) override;

 private:
  class HandleLease;

  /// An idle handle from the pool, or a new one; null when libcurl cannot make one.
  CURL* takeHandle();
  /// Sets the options every exchange shares on a new handle.
  void configure(CURL* handle) const;
  void giveBack(CURL* handle);

  void reportCertificateFailure(const TavloHttpRequest& request, const std::string& error);

  const std::size_t maxBodyBytes;
  const Settings settings;
  /// Set once a certificate failure was logged; cleared by any answer.
  std::atomic<bool> certificateFailureReported{false};
  std::mutex handlesProtector;
  std::vector<CURL*> idleHandles;  // guarded by handlesProtector
};
