// Audience measurement from end to end: the public tagger API, the agent's real threads,
// libcurl, and an in-process server whose received bytes are what the tests assert on.
// What the agent decides (access, retries, statuses, reconnection) is tested on fakes in
// TavloAgentTest; here, the bytes of the two wire paths: a hit as the tagger makes it, and
// a hit read back from the queue file.
#include <fstream>

#include "linux/TavloCurlHttpClient.h"
#include "archive/TavloKeyedArchiver.h"
#include "support/TavloAgentFixture.h"
#include "TavloLocalServer.h"
#include "tavlo/TavloAudienceTagger.h"
#include "tavlo/TavloVersion.h"
#include "tagging/TavloAudienceTaggerImpl.h"

namespace {

class TavloAudienceIntegrationTest : public TavloAgentTest {
 protected:
  void SetUp() override {
    test.platform.httpClient = std::make_shared<TavloCurlHttpClient>();
    test.platform.endpoints = TavloEndpoints::allAt(server.baseURL());
    server.handle("/", [this](const TavloLocalServerRequest& request) {
      const std::string serial = request.path.substr(1);
      if (serial == "restricted" || serial == "denied") {
        return TavloLocalServerResponse::with(200, "access=" + serial + "|host=" + server.baseURL() + "/m/web/|cmsVI=9");
      }
      return TavloLocalServerResponse::with(200, "access=full|host=" + collectionBase + "/m/web/|cmsVI=9");
    });
    server.respond("/m/web/", 200, "OK");
    collectionBase = server.baseURL();
    TavloAgentTest::SetUp();
  }

  std::shared_ptr<TavloAudienceTagger> tagger(const std::string& serial, TavloString customerData = std::nullopt) {
    return TavloAudienceTaggerOnAgent(agent, serial, std::move(customerData));
  }

  std::vector<TavloLocalServerRequest> hits() {
    std::vector<TavloLocalServerRequest> found;
    for (const auto& request : server.requests()) {
      if (request.path.rfind("/m/web/", 0) == 0) found.push_back(request);
    }
    return found;
  }

  TavloLocalServer server;
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
