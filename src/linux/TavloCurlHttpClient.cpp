#include "linux/TavloCurlHttpClient.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "linux/TavloHttpLimits.h"
#include "platform/TavloLogger.h"
#include "util/TavloLogSafe.h"

namespace {

// curl_global_init is not safe to race with anything else libcurl does, so it runs once
// for the process, on the first exchange rather than at start-up: an application that
// never sends does not pay for initialising TLS.
CURLcode globalInitialisation() {
  static std::once_flag once;
  static CURLcode outcome = CURLE_OK;
  std::call_once(once, [] { outcome = curl_global_init(CURL_GLOBAL_DEFAULT); });
  return outcome;
}

constexpr long defaultTimeoutMilliseconds = 60 * 1000;
constexpr long longestTimeoutMilliseconds = 24L * 60 * 60 * 1000;

// libcurl reads 0 as "wait forever", which a caller asking for no time at all surely did
// not mean, so every value becomes a real bound: not a number gives the usual minute,
// anything not positive the shortest wait, anything longer than a day a day.
long timeoutMilliseconds(double seconds) {
  if (std::isnan(seconds)) return defaultTimeoutMilliseconds;
  const double milliseconds = std::ceil(seconds * 1000);
  if (milliseconds < 1) return 1;
  if (milliseconds > static_cast<double>(longestTimeoutMilliseconds)) return longestTimeoutMilliseconds;
  return static_cast<long>(milliseconds);
}

bool isTokenCharacter(unsigned char c) {
  if (c >= '0' && c <= '9') return true;
  if ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') return true;
  return std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
}

bool isHeaderName(const std::string& name) {
  if (name.empty()) return false;
  for (unsigned char c : name) {
    if (!isTokenCharacter(c)) return false;
  }
  return true;
}

// A line break would end the header and start one the caller never wrote.
bool isHeaderValue(const std::string& value) { return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos; }

// libcurl writes the request line and every header into one buffer of this size and
// answers "Out of memory" for a request that does not fit.
constexpr std::size_t curlRequestHeadLimit = 1024 * 1024;

// The bytes of the request head libcurl will write, from above: the target (at most the
// whole URL, as sent to a proxy), "Host" (the URL's authority), the caller's headers,
// and a margin for the method, version, "Accept", a proxy's keep-alive header and the
// line ends.
std::size_t requestHeadBytes(const TavloHttpRequest& request) {
  const std::string_view url = request.url;
  const std::size_t schemeEnd = url.find("://");
  const std::size_t authorityStart = schemeEnd == std::string_view::npos ? 0 : schemeEnd + 3;
  const std::size_t authorityEnd = std::min(url.size(), url.find_first_of("/?#", authorityStart));
  std::size_t bytes = url.size() + (authorityEnd - authorityStart) + 128;
  for (const auto& [name, value] : request.headers) bytes += name.size() + value.size() + 4;
  return bytes;
}

// The scheme before "://", lower-cased; empty when the URL does not start with one.
std::string schemeOf(std::string_view url) {
  const std::size_t end = url.find("://");
  if (end == std::string_view::npos || end == 0) return {};
  std::string scheme;
  for (char c : url.substr(0, end)) {
    const bool letter = (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
    if (!letter && (scheme.empty() || std::string_view("0123456789+-.").find(c) == std::string_view::npos)) return {};
    scheme += letter ? static_cast<char>(c | 0x20) : c;
  }
  return scheme;
}

// Why `request` cannot be sent as it is; empty when it can.
std::string refusalOf(const TavloHttpRequest& request) {
  if (request.url.empty()) return "empty URL; request not sent";
  // Checked here rather than left to libcurl: it gives the same code for a scheme it
  // will not speak and for a server that answers without an HTTP status line.
  if (const std::string scheme = schemeOf(request.url); !scheme.empty() && scheme != "http" && scheme != "https") {
    return "unsupported protocol (only http and https are sent); request not sent";
  }
  if (request.url.find('\0') != std::string::npos) return "URL holds a NUL byte; request not sent";
  if (request.url.size() > TavloMaxUrlBytes) {
    return "URL of " + std::to_string(request.url.size()) + " bytes is longer than the " +
           std::to_string(TavloMaxUrlBytes) + " the library sends; request not sent";
  }
  for (const auto& [name, value] : request.headers) {
    if (!isHeaderName(name)) return "unusable request header name \"" + TavloLogSafe(name) + "\"; request not sent";
    if (!isHeaderValue(value)) return "request header \"" + name + "\" holds a line break or NUL; request not sent";
  }
  if (requestHeadBytes(request) >= curlRequestHeadLimit) {
    return "request line and headers exceed " + std::to_string(curlRequestHeadLimit) + " bytes; request not sent";
  }
  return {};
}

struct HeaderListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListDeleter>;

// "Name: value" as libcurl wants it. An empty value needs "Name;": libcurl reads
// "Name:" as "remove this header", so it would never reach the server.
std::string headerLine(const std::string& name, const std::string& value) {
  if (value.empty()) return name + ";";
  return name + ": " + value;
}

// Null when libcurl cannot allocate the list.
HeaderList headerListOf(const TavloHttpHeaders& headers, bool& complete) {
  HeaderList list;
  complete = true;
  for (const auto& [name, value] : headers) {
    curl_slist* longer = curl_slist_append(list.get(), headerLine(name, value).c_str());
    if (longer == nullptr) {
      complete = false;
      return list;
    }
    list.release();
    list.reset(longer);
  }
  return list;
}

// What the callbacks collect during one perform.
struct Exchange {
  std::size_t maxBodyBytes = 0;
  std::string body;
  TavloHttpHeaders headers;
  std::size_t headerBytes = 0;
  bool bodyTooLarge = false;
  bool headersTooLarge = false;
  bool outOfMemory = false;
};

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}

void takeHeaderLine(Exchange& exchange, std::string_view line) {
  // Each status line starts a response: interim ones (100 Continue, 103 Early Hints)
  // and a proxy's answer to CONNECT come first, and only the last one counts.
  if (line.starts_with("HTTP/")) {
    exchange.headers.clear();
    return;
  }
  // An obsolete folded line continues the previous header's value.
  if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
    const std::string_view continuation = trimmed(line);
    if (!exchange.headers.empty() && !continuation.empty()) {
      std::string& value = exchange.headers.back().second;
      if (!value.empty()) value += ' ';
      value += continuation;
    }
    return;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return;  // the blank line that ends the block, or noise
  const std::string_view name = trimmed(line.substr(0, colon));
  if (name.empty()) return;
  exchange.headers.emplace_back(std::string(name), std::string(trimmed(line.substr(colon + 1))));
}

// libcurl calls C functions; no exception may cross them, so each callback catches.
size_t receiveHeader(char* buffer, size_t size, size_t count, void* context) {
  auto& exchange = *static_cast<Exchange*>(context);
  const size_t bytes = size * count;
  exchange.headerBytes += bytes;
  if (exchange.headerBytes > TavloCurlHttpClient::maxHeaderBytes) {
    exchange.headersTooLarge = true;
    return 0;
  }
  try {
    takeHeaderLine(exchange, std::string_view(buffer, bytes));
  } catch (const std::bad_alloc&) {
    exchange.outOfMemory = true;
    return 0;
  }
  return bytes;
}

size_t receiveBody(char* buffer, size_t size, size_t count, void* context) {
  auto& exchange = *static_cast<Exchange*>(context);
  const size_t bytes = size * count;
  if (bytes > exchange.maxBodyBytes - exchange.body.size()) {
    exchange.bodyTooLarge = true;
    return 0;
  }
  try {
    exchange.body.append(buffer, bytes);
  } catch (const std::bad_alloc&) {
    exchange.outOfMemory = true;
    return 0;
  }
  return bytes;
}

TavloHttpResponse noResponse(std::string error) {
  TavloHttpResponse response;
  response.error = std::move(error);
  return response;
}

TavloHttpResponse invalidRequest(std::string error) {
  TavloHttpResponse response = noResponse(std::move(error));
  response.requestInvalid = true;
  return response;
}

// Whether libcurl refused the request itself, before sending anything, for what the
// request is rather than for the state of the network or the machine: the same request
// would be refused again.
bool isLocalRefusal(CURLcode code, const Exchange& exchange, const TavloHttpRequest& request) {
  switch (code) {
    case CURLE_URL_MALFORMAT:
    case CURLE_BAD_FUNCTION_ARGUMENT:
    case CURLE_NOT_BUILT_IN:
      return true;
    case CURLE_OUT_OF_MEMORY:
      // Before any answer, on a request this large, it is the request head that did not
      // fit libcurl's buffer, not a shortage of memory.
      return exchange.headerBytes == 0 && !exchange.outOfMemory && requestHeadBytes(request) > TavloMaxUrlBytes;
    default:
      return false;
  }
}

// The failures that come from certificates (the server's, ours, or the CA certificates
// they are checked against) rather than from the network.
bool isCertificateFailure(CURLcode code) {
  switch (code) {
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return true;
    default:
      return false;
  }
}

// The URL's scheme and authority: the server, without the hit's parameters.
std::string serverOf(const std::string& url) {
  const std::size_t schemeEnd = url.find("://");
  const std::size_t start = schemeEnd == std::string::npos ? 0 : schemeEnd + 3;
  return url.substr(0, std::min(url.size(), url.find_first_of("/?#", start)));
}

// A variable of the environment, or "" when unset.
std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string transportError(CURLcode code, const Exchange& exchange, const char* details) {
  if (exchange.bodyTooLarge || code == CURLE_FILESIZE_EXCEEDED) {
    return "response body larger than " + std::to_string(exchange.maxBodyBytes) + " bytes; transfer abandoned";
  }
  if (exchange.headersTooLarge) {
    return "response headers larger than " + std::to_string(TavloCurlHttpClient::maxHeaderBytes) +
           " bytes; transfer abandoned";
  }
  if (exchange.outOfMemory) return "out of memory while receiving the response; transfer abandoned";
  std::string error = curl_easy_strerror(code);
  if (details[0] != '\0' && error != details) {
    error += ": ";
    error += details;
  }
  return error;
}

}  // namespace

// A handle taken from the pool for one exchange. On return, every option that points
// into the exchange (buffers, header list, callbacks' context) is cleared before they go
// out of scope; the options every exchange shares stay, set once when the handle was
// made, and so do the handle's connections.
class TavloCurlHttpClient::HandleLease {
 public:
  explicit HandleLease(TavloCurlHttpClient& client) : client(client), handle(client.takeHandle()) {}
  ~HandleLease() {
    if (handle == nullptr) return;
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, nullptr);
    client.giveBack(handle);
  }
  HandleLease(const HandleLease&) = delete;
  HandleLease& operator=(const HandleLease&) = delete;

  CURL* get() const { return handle; }

 private:
  TavloCurlHttpClient& client;
  CURL* const handle;
};

TavloCurlHttpClient::Settings TavloCurlHttpClient::Settings::from(const TavloLinuxOptions& options) {
  Settings settings;
  settings.proxy = options.proxy;
  if (!options.caBundleFile.empty() || !options.caBundleDirectory.empty()) {
    settings.caFile = options.caBundleFile;
    settings.caDirectory = options.caBundleDirectory;
    settings.caSource = "set by the application";
    return settings;
  }
  // curl's own tool reads the same variables; OpenSSL's alone would be bypassed by the
  // default bundle libcurl sets on every handle.
  const char* fileVariable = "CURL_CA_BUNDLE";
  settings.caFile = environment(fileVariable);
  if (settings.caFile.empty()) settings.caFile = environment(fileVariable = "SSL_CERT_FILE");
  settings.caDirectory = environment("SSL_CERT_DIR");
  if (!settings.caFile.empty()) settings.caSource = std::string("from ") + fileVariable;
  if (!settings.caDirectory.empty()) settings.caSource += settings.caSource.empty() ? "from SSL_CERT_DIR" : " and SSL_CERT_DIR";
  return settings;
}

TavloCurlHttpClient::TavloCurlHttpClient(std::size_t maxBodyBytes, Settings settings)
    : maxBodyBytes(maxBodyBytes), settings(std::move(settings)) {}

void TavloCurlHttpClient::reportCertificateFailure(const TavloHttpRequest& request, const std::string& error) {
  if (certificateFailureReported.exchange(true)) return;
  std::string trusted;
  if (settings.caSource.empty()) {
    trusted = "libcurl's default CA certificates";
  } else {
    if (!settings.caFile.empty()) trusted = "CA file " + settings.caFile;
    if (!settings.caDirectory.empty()) trusted += (trusted.empty() ? "" : ", ") + ("CA directory " + settings.caDirectory);
    trusted += " (" + settings.caSource + ")";
  }
  TavloLogger::log("TLS certificate check failed for " + TavloLogSafe(serverOf(request.url)) + " (" +
                       TavloLogSafe(error) + ") against " + TavloLogSafe(trusted) +
                       ": not a network outage; requests are kept and tried again, but none can be sent until "
                       "the certificate can be verified",
                   TavloLoggingModeError);
}

TavloCurlHttpClient::~TavloCurlHttpClient() {
  for (CURL* handle : idleHandles) curl_easy_cleanup(handle);
}

CURL* TavloCurlHttpClient::takeHandle() {
  {
    std::lock_guard<std::mutex> lock(handlesProtector);
    if (!idleHandles.empty()) {
      CURL* handle = idleHandles.back();
      idleHandles.pop_back();
      return handle;
    }
  }
  CURL* handle = curl_easy_init();
  if (handle != nullptr) configure(handle);
  return handle;
}

void TavloCurlHttpClient::configure(CURL* handle) const {
  // Signals would be unsafe in a library thread (libcurl's resolver time-out uses
  // SIGALRM otherwise).
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // A declared length over the bound is refused before any of the body is read.
  curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxBodyBytes));
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, receiveHeader);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, receiveBody);
  // Exactly what the deployment named: a file alone must not be completed by libcurl's
  // default directory, nor a directory by its default file, which a box may not have.
  if (!settings.caSource.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, settings.caFile.empty() ? nullptr : settings.caFile.c_str());
    curl_easy_setopt(handle, CURLOPT_CAPATH, settings.caDirectory.empty() ? nullptr : settings.caDirectory.c_str());
  }
  if (!settings.proxy.empty()) curl_easy_setopt(handle, CURLOPT_PROXY, settings.proxy.c_str());
}

void TavloCurlHttpClient::giveBack(CURL* handle) {
  {
    std::lock_guard<std::mutex> lock(handlesProtector);
    if (idleHandles.size() < maxIdleHandles) {
      try {
        idleHandles.push_back(handle);
        return;
      } catch (const std::bad_alloc&) {
        // Falls through: the handle is closed rather than lost.
      }
    }
  }
  curl_easy_cleanup(handle);
}

TavloHttpResponse TavloCurlHttpClient::get(const TavloHttpRequest& request) {
  if (const CURLcode initialised = globalInitialisation(); initialised != CURLE_OK) {
    return noResponse(std::string("libcurl could not be initialised: ") + curl_easy_strerror(initialised));
  }
  if (std::string refusal = refusalOf(request); !refusal.empty()) return invalidRequest(std::move(refusal));

  bool headersComplete = false;
  const HeaderList headers = headerListOf(request.headers, headersComplete);
  if (!headersComplete) return noResponse("out of memory while preparing the request headers; request not sent");

  HandleLease lease(*this);
  CURL* handle = lease.get();
  if (handle == nullptr) return noResponse("libcurl could not make a transfer handle; request not sent");

  Exchange exchange;
  exchange.maxBodyBytes = maxBodyBytes;
  char details[CURL_ERROR_SIZE] = {};
  const long timeout = timeoutMilliseconds(request.timeoutSeconds);

  // A connection must never outlast the whole exchange.
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, details);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, timeout);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, timeout);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &exchange);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);
  if (const CURLcode accepted = curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str()); accepted != CURLE_OK) {
    std::string error = std::string("unusable URL (") + curl_easy_strerror(accepted) + "); request not sent";
    return accepted == CURLE_OUT_OF_MEMORY ? noResponse(std::move(error)) : invalidRequest(std::move(error));
  }

  const CURLcode outcome = curl_easy_perform(handle);
  if (outcome != CURLE_OK) {
    std::string error = transportError(outcome, exchange, details);
    if (isLocalRefusal(outcome, exchange, request)) return invalidRequest(error + "; request not sent");
    if (isCertificateFailure(outcome)) reportCertificateFailure(request, error);
    return noResponse(std::move(error));
  }
  certificateFailureReported.store(false);

  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (status == 0) return noResponse("the server's answer held no HTTP status");

  TavloHttpResponse response;
  response.status = status;
  response.headers = std::move(exchange.headers);
  response.body = std::move(exchange.body);
  return response;
}
