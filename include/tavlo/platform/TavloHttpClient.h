// Platform seam: one synchronous HTTP GET.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavlo/TavloExport.h"

/// Header names and values, in the order sent or received.
using TavloHttpHeaders = std::vector<std::pair<std::string, std::string>>;

/// One GET request.
struct TAVLO_EXPORT TavloHttpRequest {
  std::string url;           ///< absolute http or https URL, query included
  TavloHttpHeaders headers;  ///< sent as given
  /// Seconds for the whole exchange, connection included.
  double timeoutSeconds = 60;
};

/// What came back for one request, or why nothing did.
struct TAVLO_EXPORT TavloHttpResponse {
  /// The HTTP status, or nothing when no response arrived (refused, timed out, reset)
  /// or the request could not be sent at all (see `requestInvalid`).
  std::optional<long> status;
  /// What went wrong at the transport level; empty when a response arrived.
  std::string error;
  TavloHttpHeaders headers;  ///< the response's headers
  std::string body;          ///< the response's body
  /// The request was refused before anything was sent: it cannot be formed (a malformed
  /// or oversized URL, a scheme other than http or https, a header with CR, LF or NUL,
  /// ...). Sending it again cannot help. `status` is then empty and `error` says what
  /// was wrong; every other failure leaves this false.
  bool requestInvalid = false;

  /// The first header of that name, compared without regard to case.
  std::optional<std::string> header(const std::string& name) const;
};

/// Sends GET requests and waits for the answer. The library calls it only from its own
/// background threads, never from the application's. Implementations must be callable
/// from several threads at once.
class TAVLO_EXPORT TavloHttpClient {
 public:
  virtual ~TavloHttpClient() = default;
  /// Sends `request` and returns once the answer is in, the time-out passed or the
  /// request failed; never throws for a transport failure (the library takes an exception
  /// as no answer).
  virtual TavloHttpResponse get(const TavloHttpRequest& request) = 0;
};
