// The libcurl client on a real socket: the bytes it writes, what it makes of the bytes it
// gets, and the line between "no answer" (retried later) and "cannot be sent" (dropped).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <limits>
#include <thread>
#include <tuple>

#include "linux/TavloCurlHttpClient.h"
#include "linux/TavloHttpLimits.h"
#include "support/TavloLoggingFixture.h"
#include "support/TavloScopedEnvironmentVariable.h"

namespace {

// Listens on 127.0.0.1 and answers every connection with the same bytes, as they are, then
// closes it: for answers no server library would send, and to see the request's bytes as
// they came (cpp-httplib drops headers with an empty value). A silent one never accepts:
// the kernel completes the handshake and nobody reads.
class RawHttpServer {
 public:
  explicit RawHttpServer(std::string answer, bool silent = false) : answer(std::move(answer)) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    EXPECT_FALSE(::bind(fd, reinterpret_cast<sockaddr*>(&address), length) || ::listen(fd, 16) ||
                 ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
    host = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    if (!silent) server = std::thread([this] { serve(); });
  }
  ~RawHttpServer() { stop(), ::close(fd); }
  std::string url(const std::string& target = "/") const { return "http://" + host + target; }
  // Stops serving (shutdown wakes accept(), which then fails and ends the thread) and answers
  // each request's line and headers, as they came; read only once the thread is joined.
  std::vector<std::string> stop() {
    ::shutdown(fd, SHUT_RDWR);
    if (server.joinable()) server.join();
    return heads;
  }
  std::string host;

 private:
  void serve() {
    for (int connection; (connection = ::accept(fd, nullptr, nullptr)) >= 0; ::close(connection)) {
      std::string& head = heads.emplace_back();
      char buffer[4096];
      for (ssize_t got; head.find("\r\n\r\n") == std::string::npos && (got = ::recv(connection, buffer, sizeof buffer, 0)) > 0;) {
        head.append(buffer, static_cast<size_t>(got));
      }
      (void)::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
    }
  }

  const std::string answer;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::vector<std::string> heads;  // the server thread's alone until stop() joins it
  std::thread server;
};

const std::string kEmptyOk = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

TavloHttpRequest requestFor(const std::string& url, TavloHttpHeaders headers = {}, double timeoutSeconds = 10) {
  return TavloHttpRequest{url, std::move(headers), timeoutSeconds};
}

TEST(TavloCurlHttpClient, WritesTheRequestHeadByteForByte) {
  RawHttpServer server(kEmptyOk);
  TavloCurlHttpClient client;
  const TavloHttpHeaders headers = {{"User-Agent", "Demo/1.0 (Linux; STB)"}, {"X-Empty", ""}, {"Accept", "text/plain"}};
  ASSERT_EQ(200, client.get(requestFor(server.url("/m/web/?s=12%2034&l=a%7Cb|c&x=%C3%A9&e="), headers)).status);
  ASSERT_EQ(200, client.get(requestFor(server.url())).status);
  const std::vector<std::string> expected = {
      "GET /m/web/?s=12%2034&l=a%7Cb|c&x=%C3%A9&e= HTTP/1.1\r\nHost: " + server.host +
          "\r\nUser-Agent: Demo/1.0 (Linux; STB)\r\nX-Empty:\r\nAccept: text/plain\r\n\r\n",
      "GET / HTTP/1.1\r\nHost: " + server.host + "\r\nAccept: */*\r\n\r\n",
  };
  EXPECT_EQ(expected, server.stop()) << "the caller's headers in order, and nothing beyond Host and Accept";
}

TEST(TavloCurlHttpClient, RefusesRequestsThatCannotBeFormedWithoutSendingAnythingButSendsTheLongestThatCan) {
  RawHttpServer server(kEmptyOk);
  const std::string longest = server.url("/?x=") + std::string(TavloMaxUrlBytes - server.url("/?x=").size(), 'a');
  const std::pair<TavloHttpRequest, const char*> cases[] = {
      {requestFor(""), "empty URL"},
      {requestFor(server.url(std::string("/a\0/b", 5))), "NUL"},
      {requestFor("file:///etc/passwd"), "protocol"},
      {requestFor(server.url("/a\r\nX-Injected: 1")), "URL"},
      {requestFor(longest + "a"), "longer than"},
      {requestFor(longest, {{"User-Agent", std::string(100 << 10, 'u')}}), "exceed"},
      {requestFor(server.url(), {{"User-Agent", "a\nX-Injected: 1"}}), "line break"},  // would start a header of its own
      {requestFor(server.url(), {{"X-A: b", "value"}}), "header name"},
  };
  TavloCurlHttpClient client;
  for (const auto& [request, errorFragment] : cases) {
    const TavloHttpResponse response = client.get(request);
    EXPECT_TRUE(!response.status && response.requestInvalid) << errorFragment << ": taken as no answer, it would be retried for ever";
    EXPECT_NE(std::string::npos, response.error.find(errorFragment)) << response.error.substr(0, 200);
  }
  EXPECT_EQ(200, client.get(requestFor(longest, {{"User-Agent", std::string(4096, 'u')}})).status) << "the longest that can be sent";
  EXPECT_EQ(1u, server.stop().size()) << "a refused request reached the server";
}

TEST(TavloCurlHttpClient, AnswersAnyStatusWithTheFinalHeadersAndTellsBrokenAnswersFromAnswers) {
  std::string tooManyHeaders = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 400; ++i) tooManyHeaders += "X-Filler-" + std::to_string(i) + ": " + std::string(1000, 'f') + "\r\n";
  // The answer's bytes, then the status, the headers in order and the body; with no status, a piece of the error.
  const std::tuple<std::string, std::optional<long>, TavloHttpHeaders, std::string> cases[] = {
      {"HTTP/1.1 100 Continue\r\nX-Interim: 1\r\n\r\nHTTP/1.1 200 OK\r\nX-Final: yes\r\nContent-Length: 2\r\n\r\nok", 200,
       {{"X-Final", "yes"}, {"Content-Length", "2"}}, "ok"},
      {"HTTP/1.1 503 Busy\r\nX-Pad: \t padded \t\r\nX-Folded: first\r\n  second\r\nSet-Cookie: a=1\r\nSet-Cookie: b=2\r\n"
       "X-Empty:\r\nConnection: close\r\n\r\nup to the close", 503,
       {{"X-Pad", "padded"}, {"X-Folded", "first second"}, {"Set-Cookie", "a=1"}, {"Set-Cookie", "b=2"}, {"X-Empty", ""}, {"Connection", "close"}},
       "up to the close"},
      {"HTTP/1.1 302 Found\r\nLocation: /moved\r\nContent-Length: 3\r\n\r\nfar", 302, {{"Location", "/moved"}, {"Content-Length", "3"}}, "far"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfour", std::nullopt, {}, "transfer closed"},
      {"", std::nullopt, {}, "nothing"},
      {tooManyHeaders + "Content-Length: 0\r\n\r\n", std::nullopt, {}, "headers larger than"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 99999999\r\n\r\nthe start", std::nullopt, {}, "body larger than"},
  };
  TavloCurlHttpClient client;
  for (const auto& [answer, status, headers, bodyOrError] : cases) {
    RawHttpServer server(answer);
    const TavloHttpResponse response = client.get(requestFor(server.url()));
    const std::string label = answer.substr(0, 40) + " -> " + response.error;
    EXPECT_EQ(status, response.status) << label;
    EXPECT_TRUE(status ? headers == response.headers && bodyOrError == response.body && response.error.empty()
                       : response.headers.empty() && response.body.empty() && response.error.find(bodyOrError) != std::string::npos)
        << label;
    EXPECT_FALSE(response.requestInvalid) << label << ": the server's fault, not the request's";
    EXPECT_EQ(1u, server.stop().size()) << label << ": sent once, no redirect followed";
  }
}

TEST(TavloCurlHttpClient, NoAnswerIsReportedAsSuchAndEveryTimeoutIsARealBound) {
  TavloCurlHttpClient client;
  const std::string closed = RawHttpServer("", true).url();  // nothing listens there any more
  TavloHttpResponse response = client.get(requestFor(closed));
  EXPECT_NE(std::string::npos, response.error.find("Couldn't connect")) << response.error;
  EXPECT_FALSE(response.status || response.requestInvalid) << "the same request may succeed once the server is back";

  // libcurl reads 0 as "never give up": a server gone quiet would hold the sender for ever.
  RawHttpServer silent("", true);
  for (double timeout : {0.0, -1.0, -std::numeric_limits<double>::infinity(), 1e-9, 0.2}) {
    response = client.get(requestFor(silent.url(), {}, timeout));
    EXPECT_FALSE(response.status || response.requestInvalid) << timeout;
    EXPECT_NE(std::string::npos, response.error.find("Timeout")) << timeout << ": " << response.error;
  }
}

using TavloCurlHttpClientTlsTest = TavloLoggingTest;

// A CA file that cannot be loaded fails before any byte of TLS: no certificate server is
// needed to tell that failure from an outage. Each case: the options, the environment's
// CURL_CA_BUNDLE, whether the server is there, and what the ERROR line names (null: none).
TEST_F(TavloCurlHttpClientTlsTest, CertificateFailuresAreToldFromOutagesOncePerRunAndNameTheirCaSource) {
  TavloScopedEnvironmentVariable noDirectory("SSL_CERT_DIR", std::nullopt);
  RawHttpServer server(kEmptyOk);
  const std::string closed = "https://" + RawHttpServer("", true).host + "/";
  const std::tuple<std::string, const char*, bool, const char*> cases[] = {
      {"/nonexistent/option.pem", nullptr, true, "CA file /nonexistent/option.pem (set by the application)"},
      {"/nonexistent/option.pem", "/nonexistent/env.pem", true, "CA file /nonexistent/option.pem (set by the application)"},
      {"", "/nonexistent/env.pem", true, "CA file /nonexistent/env.pem (from CURL_CA_BUNDLE)"},
      {"/nonexistent/option.pem", nullptr, false, nullptr},  // an outage stays an outage
  };
  for (const auto& [file, environment, listening, named] : cases) {
    TavloScopedEnvironmentVariable bundle("CURL_CA_BUNDLE", environment ? std::optional<std::string>(environment) : std::nullopt);
    TavloLinuxOptions options;
    options.caBundleFile = file;
    TavloCurlHttpClient client(TavloCurlHttpClient::defaultMaxBodyBytes, TavloCurlHttpClient::Settings::from(options));
    test.logSink->clear();
    const std::string url = listening ? "https://" + server.host + "/m/web/s?uid=secret" : closed;
    for (int attempt = 0; attempt < 2; ++attempt) {
      const TavloHttpResponse response = client.get(requestFor(url));
      EXPECT_FALSE(response.status || response.requestInvalid) << file << ": kept and tried again, like an outage";
    }
    if (!named) {
      EXPECT_EQ(test.logSink->count("TLS certificate"), 0u) << test.logSink->lines().size();
      continue;
    }
    ASSERT_EQ(test.logSink->count("(ERROR) : TLS certificate check failed for https://" + server.host + " ("), 1u)
        << file << ": once for two failures in a row";
    EXPECT_TRUE(test.logSink->contains(named)) << named;
    EXPECT_FALSE(test.logSink->contains("secret")) << "the hit's parameters stay out of the line";
    EXPECT_EQ(client.get(requestFor(server.url())).status, 200) << "plain HTTP needs no certificate";
    (void)client.get(requestFor(url));
    EXPECT_EQ(test.logSink->count("TLS certificate check failed"), 2u) << "an answer in between starts a new run";
  }
}

// libcurl sends an HTTP proxy the whole URL as the request target, whatever the environment says.
TEST(TavloCurlHttpClient, AProxyOptionRoutesEveryRequestThroughIt) {
  RawHttpServer proxy(kEmptyOk);
  TavloScopedEnvironmentVariable environmentProxy("http_proxy", std::string("http://127.0.0.1:1"));
  TavloLinuxOptions options;
  options.proxy = "http://" + proxy.host;
  TavloCurlHttpClient client(TavloCurlHttpClient::defaultMaxBodyBytes, TavloCurlHttpClient::Settings::from(options));
  EXPECT_EQ(client.get(requestFor("http://collect.tavlo.test/m/web/s?c=home")).status, 200);
  const std::vector<std::string> heads = proxy.stop();
  ASSERT_EQ(heads.size(), 1u);
  EXPECT_TRUE(heads[0].starts_with("GET http://collect.tavlo.test/m/web/s?c=home HTTP/1.1\r\n")) << heads[0];
}

}  // namespace
