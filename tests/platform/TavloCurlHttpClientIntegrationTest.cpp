#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "linux/TavloCurlHttpClient.h"
#include "linux/TavloHttpLimits.h"
#include "support/TavloScopedEnvironmentVariable.h"
#include "support/TavloTestServer.h"

namespace {

// A TCP socket bound to 127.0.0.1 and a port the kernel picked. Closed when destroyed.
struct LocalSocket {
  LocalSocket() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "no local socket: errno " << errno;
    }
    port = ntohs(address.sin_port);
  }
  ~LocalSocket() { close(); }
  void close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
  std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port); }

  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port = 0;
};

// Answers every connection with the same bytes, written as they are, then closes it:
// for answers no well-behaved server library would send, and for the request's bytes
// exactly as they came (cpp-httplib drops some headers, those with an empty value).
class RawHttpServer {
 public:
  explicit RawHttpServer(std::string answer) : answer(std::move(answer)) {
    ::listen(socket.fd, 16);
    server = std::thread([this] { serve(); });
  }
  ~RawHttpServer() {
    ::shutdown(socket.fd, SHUT_RDWR);  // wakes accept(), which then fails and ends the thread
    server.join();
  }
  std::string baseURL() const { return socket.baseURL(); }
  int port() const { return socket.port; }
  /// Each request's line and headers, up to and including the blank line.
  std::vector<std::string> requestHeads() {
    std::lock_guard<std::mutex> lock(headsProtector);
    return heads;
  }

 private:
  void serve() {
    for (int connection; (connection = ::accept(socket.fd, nullptr, nullptr)) >= 0 || errno == EINTR;) {
      if (connection < 0) continue;
      timeval patience{10, 0};
      ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
      std::string head;
      char buffer[4096];
      for (ssize_t got; head.find("\r\n\r\n") == std::string::npos &&
                        (got = ::recv(connection, buffer, sizeof buffer, 0)) > 0;) {
        head.append(buffer, static_cast<size_t>(got));
      }
      {
        std::lock_guard<std::mutex> lock(headsProtector);
        heads.push_back(std::move(head));
      }
      for (size_t written = 0; written < answer.size();) {
        const ssize_t now = ::send(connection, answer.data() + written, answer.size() - written, MSG_NOSIGNAL);
        if (now <= 0) break;
        written += static_cast<size_t>(now);
      }
      ::close(connection);
    }
  }

  const std::string answer;
  LocalSocket socket;
  std::mutex headsProtector;
  std::vector<std::string> heads;  // guarded by headsProtector
  std::thread server;
};

TavloHttpRequest requestFor(const std::string& url, double timeoutSeconds = 10) {
  TavloHttpRequest request;
  request.url = url;
  request.timeoutSeconds = timeoutSeconds;
  return request;
}

std::string everyByteValue(size_t length) {
  std::string body(length, '\0');
  for (size_t i = 0; i < length; ++i) body[i] = static_cast<char>(i * 7 % 256);
  return body;
}

// The server is declared first so it outlives the client, whose destructor closes any
// connection the server would otherwise wait on when it stops.
class TavloCurlHttpClient_ : public ::testing::Test {
 protected:
  TavloTestServer server;
  TavloCurlHttpClient client;
};

TEST_F(TavloCurlHttpClient_, AnswersEveryStatusWithItsHeadersAndBodyAndFollowsNoRedirect) {
  struct Case {
    int status;
    std::string body;
    TavloHttpHeaders headers;
  };
  const std::vector<Case> cases = {
      {200, "access=\"full\"|host=\"http://h/m/web/\"|cmsVI=\"42\"", {{"X-Tavlo-Check", "value"}}},
      {404, "not here", {}},
      {500, "broken", {}},
      {503, "", {{"Retry-After", "120"}}},
      {302, "elsewhere", {{"Location", "/moved"}}},
      {204, "", {}},
  };
  server.respond("/moved", 200, "followed");
  for (const Case& c : cases) {
    const std::string path = "/status/" + std::to_string(c.status);
    server.respond(path, c.status, c.body, c.headers);
    const size_t before = server.requestCount();
    const TavloHttpResponse response = client.get(requestFor(server.baseURL() + path));
    EXPECT_EQ(std::optional<long>(c.status), response.status) << path << ": " << response.error;
    EXPECT_EQ("", response.error) << path;
    EXPECT_EQ(c.body, response.body) << path;
    for (const auto& [name, value] : c.headers) {
      EXPECT_EQ(std::optional<std::string>(value), response.header(name)) << path << " " << name;
    }
    EXPECT_EQ(before + 1, server.requestCount()) << path << ": only the one request may reach the server";
  }
}

TEST(TavloCurlHttpClient, WritesTheRequestHeadByteForByte) {
  RawHttpServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
  TavloCurlHttpClient client;
  TavloHttpRequest request = requestFor(server.baseURL() + "/m/web/?s=12%2034&l=a%7Cb|c&x=%C3%A9&e=");
  request.headers = {{"User-Agent", "Demo/1.0 (Linux; STB)"}, {"X-Empty", ""}, {"Accept", "text/plain"}};
  ASSERT_EQ(std::optional<long>(200), client.get(request).status);
  ASSERT_EQ(std::optional<long>(200), client.get(requestFor(server.baseURL() + "/")).status);
  const std::vector<std::string> expected = {
      "GET /m/web/?s=12%2034&l=a%7Cb|c&x=%C3%A9&e= HTTP/1.1\r\n" + host +
          "User-Agent: Demo/1.0 (Linux; STB)\r\nX-Empty:\r\nAccept: text/plain\r\n\r\n",
      "GET / HTTP/1.1\r\n" + host + "Accept: */*\r\n\r\n",
  };
  EXPECT_EQ(expected, server.requestHeads()) << "the caller's headers in order, and nothing beyond Host and Accept";
}

TEST_F(TavloCurlHttpClient_, RefusesRequestsThatCannotBeFormedWithoutSendingAnything) {
  struct Case {
    const char* what;
    TavloHttpRequest request;
    const char* errorFragment;
  };
  const std::string base = server.baseURL();
  const std::string longest = base + "/" + std::string(TavloMaxUrlBytes - base.size() - 1, 'a');
  const std::vector<Case> cases = {
      {"empty URL", requestFor(""), "empty URL"},
      {"NUL in URL", requestFor(base + std::string("/a\0/b", 5)), "NUL"},
      {"file scheme", requestFor("file:///etc/passwd"), "protocol"},
      {"malformed URL", requestFor("http://[::1/"), "URL"},
      {"line break in the URL", requestFor(base + "/a\r\nX-Injected: 1"), "URL"},
      {"URL one byte too long", requestFor(longest + "a"), "longer than"},
      {"head over 1 MiB", {longest, {{"User-Agent", std::string(100 << 10, 'u')}}, 10}, "exceed"},
      {"bare LF in a value", {base + "/", {{"User-Agent", "a\nX-Injected: 1"}}, 10}, "line break"},
      {"NUL in a value", {base + "/", {{"User-Agent", std::string("a\0b", 3)}}, 10}, "NUL"},
      {"empty name", {base + "/", {{"", "value"}}, 10}, "header name"},
      {"colon in a name", {base + "/", {{"X-A: b", "value"}}, 10}, "header name"},
      {"space in a name", {base + "/", {{"X A", "value"}}, 10}, "header name"},
  };
  for (const Case& c : cases) {
    const TavloHttpResponse response = client.get(c.request);
    EXPECT_EQ(std::nullopt, response.status) << c.what;
    EXPECT_TRUE(response.requestInvalid) << c.what << ": reported as no answer, so it would be retried for ever";
    EXPECT_NE(std::string::npos, response.error.find(c.errorFragment)) << c.what << ": " << response.error.substr(0, 200);
    EXPECT_TRUE(response.headers.empty() && response.body.empty()) << c.what;
  }
  EXPECT_EQ(0u, server.requestCount()) << "a refused request reached the server";
}

TEST(TavloCurlHttpClient, SendsTheLongestURLTheLibraryAllows) {
  RawHttpServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  const std::string base = server.baseURL() + "/m/web/?x=";
  TavloHttpRequest request = requestFor(base + std::string(TavloMaxUrlBytes - base.size(), 'a'));
  request.headers = {{"User-Agent", std::string(4096, 'u')}};
  const TavloHttpResponse response = TavloCurlHttpClient().get(request);
  EXPECT_EQ(std::optional<long>(200), response.status) << response.error;
  EXPECT_FALSE(response.requestInvalid);
}

TEST(TavloCurlHttpClient, KeepsBinaryBodiesUpToItsBoundAndAbandonsLargerOnesAlone) {
  const size_t standard = TavloCurlHttpClient::defaultMaxBodyBytes;
  struct Case {
    size_t bound;
    size_t size;
    bool chunked;  // chunked bodies declare no length, so only the running count stops them
  };
  const Case cases[] = {
      {1000, 0, false},       {1000, 1000, false},   {1000, 1001, false},          {1000, 50000, false},
      {1000, 1000, true},     {1000, 1001, true},    {1000, 50000, true},
      {standard, 1 << 20, false}, {standard, 1 << 20, true}, {standard, standard + 1, true},
  };
  TavloTestServer server;
  server.respond("/small", 200, "small");
  TavloCurlHttpClient small(1000);
  TavloCurlHttpClient usual;
  for (const Case& c : cases) {
    server.handle("/", [&](const TavloTestServerRequest&) {
      TavloTestServerResponse answer;
      answer.body = everyByteValue(c.size);
      answer.contentType = "application/octet-stream";
      answer.chunked = c.chunked;
      return answer;
    });
    TavloCurlHttpClient& client = c.bound == 1000 ? small : usual;
    const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/"));
    const std::string label = std::to_string(c.size) + (c.chunked ? " chunked" : " declared");
    if (c.size <= c.bound) {
      EXPECT_EQ(std::optional<long>(200), response.status) << label << ": " << response.error;
      EXPECT_TRUE(everyByteValue(c.size) == response.body) << label << ": the body changed on the way";
    } else {
      EXPECT_EQ(std::nullopt, response.status) << label;
      EXPECT_NE(std::string::npos, response.error.find("larger than " + std::to_string(c.bound) + " bytes"))
          << label << ": " << response.error;
      EXPECT_TRUE(response.body.empty() && response.headers.empty()) << label << ": a partial answer leaked";
    }
    EXPECT_EQ("small", client.get(requestFor(server.baseURL() + "/small")).body) << label << ": the next call failed";
  }
}

TEST(TavloCurlHttpClient, ReadsOnlyTheFinalResponsesHeadersAndRefusesBrokenAnswers) {
  struct Case {
    const char* what;
    std::string answer;
    std::optional<long> status;
    TavloHttpHeaders expectedHeaders;  // in order, exactly
    std::string body;
    const char* errorFragment;  // for no status
  };
  std::string tooManyHeaders = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 400; ++i) tooManyHeaders += "X-Filler-" + std::to_string(i) + ": " + std::string(1000, 'f') + "\r\n";
  tooManyHeaders += "Content-Length: 0\r\n\r\n";
  const std::vector<Case> cases = {
      {"interim responses come first",
       "HTTP/1.1 100 Continue\r\nX-Interim: 1\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n"
       "HTTP/1.1 200 OK\r\nX-Final: yes\r\nContent-Length: 2\r\n\r\nok",
       200, {{"X-Final", "yes"}, {"Content-Length", "2"}}, "ok", nullptr},
      {"padding, folding, repeats, empty values",
       "HTTP/1.1 200 OK\r\nX-Pad: \t padded value \t\r\nX-Folded: first\r\n  second\r\nSet-Cookie: a=1\r\n"
       "Set-Cookie: b=2\r\nX-Empty:\r\nContent-Length: 0\r\n\r\n",
       200,
       {{"X-Pad", "padded value"}, {"X-Folded", "first second"}, {"Set-Cookie", "a=1"}, {"Set-Cookie", "b=2"},
        {"X-Empty", ""}, {"Content-Length", "0"}},
       "", nullptr},
      {"unusual status, body up to the close", "HTTP/1.1 299 Odd\r\nConnection: close\r\n\r\nrest of it", 299,
       {{"Connection", "close"}}, "rest of it", nullptr},
      {"HTTP/1.0", "HTTP/1.0 404 Not Found\r\nContent-Length: 3\r\n\r\nnah", 404, {{"Content-Length", "3"}}, "nah",
       nullptr},
      {"truncated body", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfour", std::nullopt, {}, "", "transfer closed"},
      {"nothing at all", "", std::nullopt, {}, "", "nothing"},
      {"not HTTP", "hello there\r\n\r\n", std::nullopt, {}, "", ""},
      {"status line cut short", "HTTP/1.1 2", std::nullopt, {}, "", ""},
      {"header block too large", tooManyHeaders, std::nullopt, {}, "", "headers larger than"},
  };
  TavloCurlHttpClient client;
  for (const Case& c : cases) {
    RawHttpServer server(c.answer);
    const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/"));
    EXPECT_EQ(c.status, response.status) << c.what << ": " << response.error;
    EXPECT_EQ(c.expectedHeaders, response.headers) << c.what;
    EXPECT_EQ(c.body, response.body) << c.what;
    EXPECT_EQ(c.status.has_value(), response.error.empty()) << c.what << ": " << response.error;
    EXPECT_FALSE(response.requestInvalid) << c.what << ": the server's fault, not the request's";
    EXPECT_NE(std::string::npos, response.error.find(c.errorFragment ? c.errorFragment : "")) << c.what;
  }
}

TEST(TavloCurlHttpClient, ReportsARefusedConnectionAsNoResponse) {
  LocalSocket nothingListens;
  nothingListens.close();
  const TavloHttpResponse response = TavloCurlHttpClient().get(requestFor(nothingListens.baseURL() + "/"));
  EXPECT_EQ(std::nullopt, response.status);
  EXPECT_FALSE(response.requestInvalid) << "the same request may succeed once the server is back";
  EXPECT_NE(std::string::npos, response.error.find("Couldn't connect")) << response.error;
}

TEST(TavloCurlHttpClient, GivesUpOnASilentServerWithinARealBoundWhateverTheTimeout) {
  // The kernel completes the handshake on the listener's behalf, and nobody ever reads
  // the request: a server that went quiet. libcurl reads 0 as "never give up".
  LocalSocket silent;
  ::listen(silent.fd, 16);
  TavloCurlHttpClient client;
  for (double timeout : {0.3, 0.0, -1.0, -std::numeric_limits<double>::infinity(), 1e-9}) {
    const auto start = std::chrono::steady_clock::now();
    const TavloHttpResponse response = client.get(requestFor(silent.baseURL() + "/", timeout));
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(std::nullopt, response.status) << timeout;
    EXPECT_NE(std::string::npos, response.error.find("Timeout")) << timeout << ": " << response.error;
    EXPECT_LT(elapsed, 5.0) << timeout;
    EXPECT_TRUE(timeout != 0.3 || elapsed >= 0.25) << "gave up after " << elapsed << " s, before the time asked for";
  }
  // And these still leave a working bound for a server that answers.
  TavloTestServer server;
  server.respond("/", 200, "ok");
  for (double timeout : {std::nan(""), std::numeric_limits<double>::infinity(), 1e300, 86400.0 * 365}) {
    const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/", timeout));
    EXPECT_EQ(std::optional<long>(200), response.status) << timeout << ": " << response.error;
  }
}

TEST(TavloCurlHttpClient, ReusesOneConnectionForTheCallsOfOneThread) {
  TavloTestServer server(TavloTestServer::Options{.keepAlive = true});
  server.respond("/", 200, "ok");
  {
    TavloCurlHttpClient client;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(std::optional<long>(200), client.get(requestFor(server.baseURL() + "/")).status);
  }
  const auto requests = server.requests();
  ASSERT_EQ(3u, requests.size());
  EXPECT_EQ(requests[0].remotePort, requests[1].remotePort) << "the second call opened a new connection";
  EXPECT_EQ(requests[0].remotePort, requests[2].remotePort) << "the third call opened a new connection";
}

TEST_F(TavloCurlHttpClient_, AnswersCallsFromSeveralThreadsAtOnce) {
  server.handle("/echo", [](const TavloTestServerRequest& request) { return TavloTestServerResponse::with(200, request.query); });
  constexpr int threads = 4;
  constexpr int callsEach = 8;
  std::atomic<int> answeredRight{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < threads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < callsEach; ++i) {
        const std::string query = "t=" + std::to_string(t) + "&i=" + std::to_string(i);
        const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/echo?" + query));
        if (response.status == 200 && response.body == query) ++answeredRight;
      }
    });
  }
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(threads * callsEach, answeredRight.load());
}

TEST_F(TavloCurlHttpClient_, GoesThroughTheProxyTheEnvironmentNames) {
  // The test server plays the proxy: a proxied request carries the whole URL as target.
  TavloScopedEnvironmentVariable proxy("http_proxy", server.baseURL());
  TavloScopedEnvironmentVariable noProxy("no_proxy", std::nullopt);
  TavloScopedEnvironmentVariable noProxyUpper("NO_PROXY", std::nullopt);
  server.respond("", 200, "via proxy");
  const TavloHttpResponse response = TavloCurlHttpClient().get(requestFor("http://collect.tavlo.invalid/m/web/?s=1"));
  EXPECT_EQ(std::optional<long>(200), response.status) << response.error;
  EXPECT_EQ("via proxy", response.body);
  ASSERT_EQ(1u, server.requestCount());
  EXPECT_EQ("http://collect.tavlo.invalid/m/web/?s=1", server.requests()[0].target);
}

}  // namespace
