// Audience measurement from end to end: the public tagger API, the agent's real threads,
// libcurl, and an in-process server whose received bytes are what the tests assert on.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "linux/TavloCurlHttpClient.h"
#include "archive/TavloKeyedArchiver.h"
#include "support/TavloAgentFixture.h"
#include "support/TavloTestServer.h"
#include "tavlo/TavloAudienceTagger.h"
#include "tavlo/TavloVersion.h"
#include "tagging/TavloAudienceTaggerImpl.h"

namespace {

// A collection endpoint that can be made to hang up without answering, as a server
// behind a broken network does: with `answering` false it closes each connection as
// soon as the request has arrived; otherwise it answers 200.
class TavloHangingUpCollector {
 public:
  TavloHangingUpCollector() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener_, 16);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~TavloHangingUpCollector() {
    ::shutdown(listener_, SHUT_RDWR);
    ::close(listener_);
    thread_.join();
  }
  std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::atomic<bool> answering{false};
  std::atomic<int> connections{0};

 private:
  void serve() {
    for (;;) {
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) return;
      std::string received;
      char buffer[4096];
      while (received.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        received.append(buffer, static_cast<size_t>(n));
      }
      if (answering) {
        const char reply[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        (void)::send(client, reply, sizeof reply - 1, MSG_NOSIGNAL);
      }
      ++connections;
      ::close(client);
    }
  }
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

class TavloAudienceIntegrationTest : public TavloAgentTest {
 protected:
  void SetUp() override {
    test.platform.httpClient = std::make_shared<TavloCurlHttpClient>();
    test.platform.endpoints = TavloEndpoints::allAt(server.baseURL());
    server.handle("/", [this](const TavloTestServerRequest& request) {
      const std::string serial = request.path.substr(1);
      if (serial == "restricted" || serial == "denied") {
        return TavloTestServerResponse::with(200, "access=" + serial + "|host=" + server.baseURL() + "/m/web/|cmsVI=9");
      }
      return TavloTestServerResponse::with(200, "access=full|host=" + collectionBase + "/m/web/|cmsVI=9");
    });
    server.respond("/m/web/", 200, "OK");
    collectionBase = server.baseURL();
    TavloAgentTest::SetUp();
  }

  std::shared_ptr<TavloAudienceTagger> tagger(const std::string& serial, TavloString customerData = std::nullopt) {
    return TavloAudienceTaggerOnAgent(agent, serial, std::move(customerData));
  }

  std::vector<TavloTestServerRequest> hits() {
    std::vector<TavloTestServerRequest> found;
    for (const auto& request : server.requests()) {
      if (request.path.rfind("/m/web/", 0) == 0) found.push_back(request);
    }
    return found;
  }

  TavloTestServer server;
  std::string collectionBase;
};

TEST_F(TavloAudienceIntegrationTest, AHitArrivesWithEveryParameterByteForByte) {
  auto t = tagger("123", "42");
  t->setNewLevel1("x/y");
  t->sendHitWithLevel1("home", "page 2", std::nullopt, "\xC3\xA9");
  ASSERT_TRUE(server.waitForRequests(2));
  settle();
  const auto received = hits();
  ASSERT_EQ(1u, received.size());
  EXPECT_EQ("GET", received[0].method);
  EXPECT_EQ(
      "/m/web/123?c=home&crmid=42&ds=16.7&l4=%C3%A9&m_fw=1.0&m_ntwk=Wifi&m_os=TestModel&ml1=x%2Fy&n=1&p=page%202"
      "&sch=1080&scp=32&scw=1920&tag_type=apps&tn=tvOS&uid=00000000-0000-4000-8000-000000000001&v=" TAVLO_VERSION_STRING,
      received[0].target);
  EXPECT_EQ("TestApp/1.2.3 Tavlo SDK v" TAVLO_VERSION_STRING " apple tv", received[0].header("User-Agent"));
  EXPECT_EQ("/123", server.requests()[0].target) << "the authorisation comes first";
  EXPECT_TRUE(agent->TEST_queue().empty());
}

TEST_F(TavloAudienceIntegrationTest, RestrictedSerialsSendTheirFirstHitOnlyAndDeniedOnesNothing) {
  auto restricted = tagger("restricted");
  for (const char* screen : {"one", "two", "three"}) restricted->sendHitWithLevel1(screen);
  auto denied = tagger("denied");
  denied->sendHitWithLevel1("never");
  settle();
  const auto received = hits();
  ASSERT_EQ(1u, received.size());
  EXPECT_NE(std::string::npos, received[0].target.find("c=one&"));
  EXPECT_TRUE(test.logSink->contains("can't be sent because of access denied for its serial"));
  EXPECT_TRUE(test.logSink->contains("TavloAudienceTagger - Can't send hit anymore with this serial : restricted"));

  restricted->sendHitWithLevel1("four");
  denied->sendHitWithLevel1("again");
  settle();
  EXPECT_EQ(1u, hits().size()) << "the cached refusal now stops hits before they are queued";
}

TEST_F(TavloAudienceIntegrationTest, NotFoundDropsTheHitForGood) {
  server.respond("/m/web/", 404, "no");
  tagger("123")->sendHitWithLevel1("lost");
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty());
  test.clock->advance(120);
  agent->applicationWillEnterForeground();
  settle();
  EXPECT_EQ(1u, hits().size()) << "no retry after an answer, whatever its status";
}

TEST_F(TavloAudienceIntegrationTest, NoAnswerKeepsTheHitAndRetriesItSixtySecondsLater) {
  TavloHangingUpCollector collector;
  collectionBase = collector.baseURL();
  tagger("123")->sendHitWithLevel1("patient");
  settle();
  auto queue = agent->TEST_queue();
  ASSERT_EQ(1u, queue.size());
  EXPECT_EQ(1, queue[0]->numberOfFails());
  EXPECT_EQ(1, collector.connections.load());

  collector.answering = true;
  test.clock->advance(59);
  agent->applicationWillEnterForeground();
  settle();
  EXPECT_EQ(1, collector.connections.load()) << "too early to retry";
  test.clock->advance(1);
  agent->applicationWillEnterForeground();
  settle();
  EXPECT_EQ(2, collector.connections.load());
  EXPECT_TRUE(agent->TEST_queue().empty());
}

TEST_F(TavloAudienceIntegrationTest, OfflineAudienceHitsVanishWhenTheNetworkReturns) {
  goOffline();
  tagger("123")->sendHitWithLevel1("stale");
  agent->addRequestToQueue(streamingRequest("stream"));
  settle();
  EXPECT_EQ(2u, agent->TEST_queue().size());
  goOnline();
  const auto received = hits();
  ASSERT_EQ(1u, received.size());
  EXPECT_NE(std::string::npos, received[0].target.find("c=stream&cmsVI=9&"));
}

TEST_F(TavloAudienceIntegrationTest, ARestartSendsOnlyStreamingHitsThenAuthorisesAfresh) {
  tagger("123")->sendHitWithLevel1("before");
  settle();
  ASSERT_EQ(1u, hits().size());
  const size_t authorisations = server.requestCount() - hits().size();

  agent->shutdown();
  const std::string path = test.directory->path() + "/TestApp/TavloCache/requests.ser";
  auto archivedStream = streamingRequest("old stream");
  archivedStream->setAuth(TavloAuth::TavloAuthWithSession(
      TavloSession::TavloSessionWithSerial("123", "77"),
      TavloAccess::TavloAccessWithSerial("123", TavloAccessModeFull, server.baseURL() + "/m/web/"), false));
  std::ofstream(path, std::ios::binary)
      << TavloKeyedArchiver::archivedDataWithRootArray({audienceRequest("old audience"), archivedStream});
  startAgent();
  const auto afterRestart = hits();
  ASSERT_EQ(2u, afterRestart.size());
  EXPECT_EQ("/m/web/123?c=old%20stream&cmsVI=77&m_ntwk=Wifi", afterRestart[1].target)
      << "sent with the authorisation it was archived with";
  EXPECT_TRUE(agent->TEST_queue().empty()) << "the marker was handled too";

  tagger("123")->sendHitWithLevel1("after");
  settle();
  EXPECT_EQ(authorisations + 1, server.requestCount() - hits().size())
      << "the marker cleared the cache: the next hit is authorised again";
}

}  // namespace
