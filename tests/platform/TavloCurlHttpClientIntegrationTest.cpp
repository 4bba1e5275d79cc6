#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/TavloCurlHttpClient.h"
#include "support/TavloScopedEnvironmentVariable.h"
#include "support/TavloTestServer.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A TCP socket on 127.0.0.1 and a port the kernel picked. Closed when destroyed.
class LocalSocket {
 public:
  LocalSocket() : descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (descriptor < 0 || ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "no local socket: errno " << errno;
      return;
    }
    boundPort = ntohs(address.sin_port);
  }
  ~LocalSocket() { close(); }
  LocalSocket(const LocalSocket&) = delete;
  LocalSocket& operator=(const LocalSocket&) = delete;

  void listen() {
    if (::listen(descriptor, 16) != 0) ADD_FAILURE() << "listen failed: errno " << errno;
  }
  void close() {
    if (descriptor >= 0) ::close(descriptor);
    descriptor = -1;
  }
  int fd() const { return descriptor; }
  int port() const { return boundPort; }
  std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(boundPort); }

 private:
  int descriptor;
  int boundPort = 0;
};

// Answers every connection with the same bytes, written as they are, then closes it:
// for answers no well-behaved server library would send, and for the request's bytes
// exactly as they came (cpp-httplib drops some headers, those with an empty value).
class RawHttpServer {
 public:
  explicit RawHttpServer(std::string answer) : answer(std::move(answer)) {
    socket.listen();
    server = std::thread([this] { serve(); });
  }
  ~RawHttpServer() {
    // Wakes the accept() below, which then fails and ends the thread.
    ::shutdown(socket.fd(), SHUT_RDWR);
    server.join();
  }
  std::string baseURL() const { return socket.baseURL(); }
  int port() const { return socket.port(); }
  /// Each request's line and headers, up to and including the blank line.
  std::vector<std::string> requestHeads() {
    std::lock_guard<std::mutex> lock(headsProtector);
    return heads;
  }

 private:
  void serve() {
    while (true) {
      const int connection = ::accept(socket.fd(), nullptr, nullptr);
      if (connection < 0) {
        if (errno == EINTR) continue;
        return;
      }
      std::string head = readRequestHead(connection);
      {
        std::lock_guard<std::mutex> lock(headsProtector);
        heads.push_back(std::move(head));
      }
      size_t written = 0;
      while (written < answer.size()) {
        const ssize_t now = ::send(connection, answer.data() + written, answer.size() - written, MSG_NOSIGNAL);
        if (now <= 0) break;
        written += static_cast<size_t>(now);
      }
      ::close(connection);
    }
  }

  static std::string readRequestHead(int connection) {
    timeval patience{10, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string head;
    char buffer[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
      const ssize_t got = ::recv(connection, buffer, sizeof buffer, 0);
      if (got <= 0) return head;
      head.append(buffer, static_cast<size_t>(got));
    }
    return head;
  }

  const std::string answer;
  LocalSocket socket;
  std::mutex headsProtector;
  std::vector<std::string> heads;  // guarded by headsProtector
  std::thread server;
};

// Holds a handler until the test lets it go, without any sleeping.
class Gate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(protector);
    opened.wait_for(lock, 30s, [this] { return open; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(protector);
    open = true;
    opened.notify_all();
  }

 private:
  std::mutex protector;
  std::condition_variable opened;
  bool open = false;
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

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// The server is declared first so it outlives the client, whose destructor closes any
// connection the server would otherwise wait on when it stops.
class TavloCurlHttpClient_ : public ::testing::Test {
 protected:
  TavloTestServer server;
  TavloCurlHttpClient client;
};

TEST_F(TavloCurlHttpClient_, AnswersTheStatusTheHeadersAndTheBody) {
  server.handle("/auth/", [](const TavloTestServerRequest&) {
    TavloTestServerResponse answer;
    answer.body = "access=\"full\"|host=\"http://h/m/web/\"|cmsVI=\"42\"";
    answer.headers = {{"X-Tavlo-Check", "  padded  "}};
    answer.date = 1700000000;
    return answer;
  });
  const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/auth/123"));
  ASSERT_EQ(std::optional<long>(200), response.status) << response.error;
  EXPECT_EQ("", response.error);
  EXPECT_EQ("access=\"full\"|host=\"http://h/m/web/\"|cmsVI=\"42\"", response.body);
  EXPECT_EQ(std::optional<std::string>("padded"), response.header("X-Tavlo-Check"));
  EXPECT_EQ(std::optional<std::string>("Tue, 14 Nov 2023 22:13:20 GMT"), response.header("Date"));
  EXPECT_EQ(std::optional<std::string>("text/plain"), response.header("Content-Type"));
}

TEST_F(TavloCurlHttpClient_, LooksUpResponseHeadersWithoutRegardToCase) {
  server.respond("/", 200, "ok", {{"X-Mixed-Case", "value"}});
  const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/"));
  ASSERT_EQ(std::optional<long>(200), response.status) << response.error;
  for (const char* spelling : {"X-Mixed-Case", "x-mixed-case", "X-MIXED-CASE", "x-MiXeD-cAsE"}) {
    EXPECT_EQ(std::optional<std::string>("value"), response.header(spelling)) << spelling;
  }
  for (const char* absent : {"X-Mixed", "X-Mixed-Case-", "", "X_Mixed_Case"}) {
    EXPECT_EQ(std::nullopt, response.header(absent)) << absent;
  }
}

TEST_F(TavloCurlHttpClient_, AnswersErrorStatusesAsAnswersAndFollowsNoRedirect) {
  struct Case {
    int status;
    std::string body;
    TavloHttpHeaders headers;
  };
  const std::vector<Case> cases = {
      {404, "not here", {}},
      {500, "broken", {}},
      {503, "", {{"Retry-After", "120"}}},
      {302, "elsewhere", {{"Location", "/moved"}}},
      {204, "", {}},
  };
  for (const Case& c : cases) {
    const std::string path = "/status/" + std::to_string(c.status);
    server.respond(path, c.status, c.body, c.headers);
    server.respond("/moved", 200, "followed");
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

TEST_F(TavloCurlHttpClient_, SendsTheTargetAndTheHeadersExactlyAsGiven) {
  server.respond("/m/web/", 200);
  TavloHttpRequest request = requestFor(server.baseURL() + "/m/web/?s=12%2034&l=a%7Cb&x=%C3%A9&e=");
  request.headers = {{"User-Agent", "TavloDemo/1.0 (Linux; STB) Tavlo/5.4.5"}, {"X-Second", "two"}};
  const TavloHttpResponse response = client.get(request);
  ASSERT_EQ(std::optional<long>(200), response.status) << response.error;

  ASSERT_EQ(1u, server.requestCount());
  const TavloTestServerRequest received = server.requests()[0];
  EXPECT_EQ("GET", received.method);
  EXPECT_EQ("/m/web/?s=12%2034&l=a%7Cb&x=%C3%A9&e=", received.target);
  EXPECT_EQ("/m/web/", received.path);
  EXPECT_EQ("s=12%2034&l=a%7Cb&x=%C3%A9&e=", received.query);
  EXPECT_EQ(std::optional<std::string>("TavloDemo/1.0 (Linux; STB) Tavlo/5.4.5"), received.header("user-agent"));
  EXPECT_EQ(std::optional<std::string>("two"), received.header("X-Second"));
  EXPECT_EQ("", received.body);

  std::set<std::string> names;
  for (const auto& header : received.headers) names.insert(header.first);
  const std::set<std::string> expected = {"Accept", "Host", "User-Agent", "X-Second"};
  EXPECT_EQ(expected, names) << "no header beyond the caller's, Host and Accept may go out";
}

TEST(TavloCurlHttpClient, WritesTheRequestHeadByteForByte) {
  RawHttpServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  TavloCurlHttpClient client;
  TavloHttpRequest request = requestFor(server.baseURL() + "/7?a=%20b|c");
  request.headers = {{"User-Agent", "Demo/1.0"}, {"X-Empty", ""}, {"Accept", "text/plain"}};
  ASSERT_EQ(std::optional<long>(200), client.get(request).status);
  const std::string expected = "GET /7?a=%20b|c HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                               "\r\nUser-Agent: Demo/1.0\r\nX-Empty:\r\nAccept: text/plain\r\n\r\n";
  EXPECT_EQ(std::vector<std::string>{expected}, server.requestHeads());
}

TEST_F(TavloCurlHttpClient_, RefusesUnusableRequestsWithoutSendingAnything) {
  struct Case {
    const char* what;
    TavloHttpRequest request;
    const char* errorFragment;
  };
  const std::string base = server.baseURL();
  const std::vector<Case> cases = {
      {"empty URL", requestFor(""), "empty URL"},
      {"NUL in URL", requestFor(base + std::string("/a\0/b", 5)), "NUL"},
      {"file scheme", requestFor("file:///etc/passwd"), "protocol"},
      {"ftp scheme", requestFor("ftp://127.0.0.1:1/"), "protocol"},
      {"malformed URL", requestFor("http://[::1/"), "URL"},
      {"line break in a value", {base + "/", {{"User-Agent", "a\r\nX-Injected: 1"}}, 10}, "line break"},
      {"bare LF in a value", {base + "/", {{"User-Agent", "a\nX-Injected: 1"}}, 10}, "line break"},
      {"NUL in a value", {base + "/", {{"User-Agent", std::string("a\0b", 3)}}, 10}, "NUL"},
      {"empty name", {base + "/", {{"", "value"}}, 10}, "header name"},
      {"colon in a name", {base + "/", {{"X-A: b", "value"}}, 10}, "header name"},
      {"space in a name", {base + "/", {{"X A", "value"}}, 10}, "header name"},
  };
  for (const Case& c : cases) {
    const TavloHttpResponse response = client.get(c.request);
    EXPECT_EQ(std::nullopt, response.status) << c.what;
    EXPECT_NE(std::string::npos, response.error.find(c.errorFragment)) << c.what << ": " << response.error;
    EXPECT_TRUE(response.headers.empty() && response.body.empty()) << c.what;
  }
  EXPECT_EQ(0u, server.requestCount()) << "a refused request reached the server";
}

TEST_F(TavloCurlHttpClient_, KeepsBinaryBodiesAsRawBytes) {
  const std::string notText = std::string("\xff\xfe\x00\x80\xc3(\xed\xa0\x80 end", 12);
  const std::string oneMebibyte = everyByteValue(1024 * 1024);
  for (const std::string* body : {&notText, &oneMebibyte}) {
    for (bool chunked : {false, true}) {
      server.handle("/", [&](const TavloTestServerRequest&) {
        TavloTestServerResponse answer;
        answer.body = *body;
        answer.contentType = "application/octet-stream";
        answer.chunked = chunked;
        return answer;
      });
      const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/"));
      ASSERT_EQ(std::optional<long>(200), response.status) << response.error;
      EXPECT_EQ(body->size(), response.body.size()) << "chunked " << chunked;
      EXPECT_TRUE(*body == response.body) << "the body of " << body->size() << " bytes changed, chunked " << chunked;
    }
  }
}

TEST(TavloCurlHttpClient, KeepsBodiesUpToItsBoundAndAbandonsLargerOnes) {
  struct Case {
    size_t size;
    bool chunked;  // chunked bodies declare no length, so only the running count stops them
    bool kept;
  };
  const Case cases[] = {
      {0, false, true},     {999, false, true},  {1000, false, true}, {1001, false, false}, {50000, false, false},
      {1000, true, true},   {1001, true, false}, {50000, true, false},
  };
  TavloTestServer server;
  TavloCurlHttpClient client(1000);
  for (const Case& c : cases) {
    server.handle("/", [&](const TavloTestServerRequest&) {
      TavloTestServerResponse answer;
      answer.body = everyByteValue(c.size);
      answer.chunked = c.chunked;
      return answer;
    });
    const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/"));
    const std::string label = std::to_string(c.size) + (c.chunked ? " chunked" : " declared");
    if (c.kept) {
      EXPECT_EQ(std::optional<long>(200), response.status) << label << ": " << response.error;
      EXPECT_TRUE(everyByteValue(c.size) == response.body) << label;
    } else {
      EXPECT_EQ(std::nullopt, response.status) << label;
      EXPECT_NE(std::string::npos, response.error.find("larger than 1000 bytes")) << label << ": " << response.error;
      EXPECT_TRUE(response.body.empty() && response.headers.empty()) << label << ": a partial answer leaked";
    }
  }
}

TEST_F(TavloCurlHttpClient_, AbandonsABodyOverTheDefaultBoundAndServesTheNextCall) {
  server.handle("/huge", [](const TavloTestServerRequest&) {
    TavloTestServerResponse answer;
    answer.body = std::string(TavloCurlHttpClient::defaultMaxBodyBytes + 1, 'x');
    answer.chunked = true;
    return answer;
  });
  server.respond("/small", 200, "small");
  const TavloHttpResponse huge = client.get(requestFor(server.baseURL() + "/huge"));
  EXPECT_EQ(std::nullopt, huge.status);
  EXPECT_NE(std::string::npos, huge.error.find("larger than 4194304 bytes")) << huge.error;
  EXPECT_TRUE(huge.body.empty());

  const TavloHttpResponse small = client.get(requestFor(server.baseURL() + "/small"));
  EXPECT_EQ(std::optional<long>(200), small.status) << small.error;
  EXPECT_EQ("small", small.body);
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
  const std::string tooManyHeaders = [] {
    std::string block = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 400; ++i) block += "X-Filler-" + std::to_string(i) + ": " + std::string(1000, 'f') + "\r\n";
    return block + "Content-Length: 0\r\n\r\n";
  }();
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
    if (c.status) {
      EXPECT_EQ(c.expectedHeaders, response.headers) << c.what;
      EXPECT_EQ(c.body, response.body) << c.what;
      EXPECT_EQ("", response.error) << c.what;
    } else {
      EXPECT_FALSE(response.error.empty()) << c.what;
      EXPECT_NE(std::string::npos, response.error.find(c.errorFragment)) << c.what << ": " << response.error;
      EXPECT_TRUE(response.headers.empty() && response.body.empty()) << c.what;
    }
  }
}

TEST(TavloCurlHttpClient, ReportsARefusedConnectionAsNoResponse) {
  LocalSocket nothingListens;
  const std::string url = nothingListens.baseURL() + "/";
  nothingListens.close();
  TavloCurlHttpClient client;
  const TavloHttpResponse response = client.get(requestFor(url));
  EXPECT_EQ(std::nullopt, response.status);
  EXPECT_NE(std::string::npos, response.error.find("Couldn't connect")) << response.error;
}

TEST(TavloCurlHttpClient, GivesUpWhenNoAnswerComesInTime) {
  // The kernel completes the handshake on the listener's behalf, and nobody ever reads
  // the request: a server that went quiet.
  LocalSocket silent;
  silent.listen();
  TavloCurlHttpClient client;
  const auto start = Clock::now();
  const TavloHttpResponse response = client.get(requestFor(silent.baseURL() + "/", 0.3));
  const double elapsed = secondsSince(start);
  EXPECT_EQ(std::nullopt, response.status);
  EXPECT_NE(std::string::npos, response.error.find("Timeout")) << response.error;
  EXPECT_GE(elapsed, 0.25);
  EXPECT_LT(elapsed, 5.0);
}

TEST_F(TavloCurlHttpClient_, GivesUpOnAHandlerThatAnswersTooLate) {
  Gate gate;
  server.handle("/slow", [&](const TavloTestServerRequest&) {
    gate.wait();
    return TavloTestServerResponse::with(200, "too late");
  });
  const auto start = Clock::now();
  const TavloHttpResponse response = client.get(requestFor(server.baseURL() + "/slow", 0.3));
  const double elapsed = secondsSince(start);
  gate.release();
  EXPECT_EQ(std::nullopt, response.status);
  EXPECT_EQ("", response.body);
  EXPECT_NE(std::string::npos, response.error.find("Timeout")) << response.error;
  EXPECT_LT(elapsed, 5.0);
  EXPECT_EQ(1u, server.requestCount());
}

TEST(TavloCurlHttpClient, TurnsEveryTimeoutIntoARealBound) {
  // libcurl reads 0 as "never give up": none of these may wait on a silent server.
  LocalSocket silent;
  silent.listen();
  TavloCurlHttpClient client;
  for (double timeout : {0.0, -1.0, -std::numeric_limits<double>::infinity(), 1e-9}) {
    const auto start = Clock::now();
    const TavloHttpResponse response = client.get(requestFor(silent.baseURL() + "/", timeout));
    EXPECT_EQ(std::nullopt, response.status) << timeout;
    EXPECT_LT(secondsSince(start), 5.0) << timeout;
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
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(std::optional<long>(200), client.get(requestFor(server.baseURL() + "/")).status) << i;
    }
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
  EXPECT_EQ(static_cast<size_t>(threads * callsEach), server.requestCount());
}

TEST_F(TavloCurlHttpClient_, GoesThroughTheProxyTheEnvironmentNames) {
  // The test server plays the proxy: a proxied request carries the whole URL as target.
  TavloScopedEnvironmentVariable proxy("http_proxy", server.baseURL());
  TavloScopedEnvironmentVariable noProxy("no_proxy", std::nullopt);
  TavloScopedEnvironmentVariable noProxyUpper("NO_PROXY", std::nullopt);
  server.respond("", 200, "via proxy");
  TavloCurlHttpClient fresh;
  const TavloHttpResponse response = fresh.get(requestFor("http://collect.tavlo.invalid/m/web/?s=1"));
  EXPECT_EQ(std::optional<long>(200), response.status) << response.error;
  EXPECT_EQ("via proxy", response.body);
  ASSERT_EQ(1u, server.requestCount());
  EXPECT_EQ("http://collect.tavlo.invalid/m/web/?s=1", server.requests()[0].target);
}

}  // namespace
