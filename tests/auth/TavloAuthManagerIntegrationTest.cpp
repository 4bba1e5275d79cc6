// The authorisation exchange over real HTTP: libcurl against an in-process server. What
// any answer and any Date header at all make is the authorisation-answer fuzz target's.
#include "auth/TavloAuthManager.h"
#include "linux/TavloCurlHttpClient.h"
#include "support/TavloLoggingFixture.h"
#include "support/TavloTestServer.h"

namespace {

class TavloAuthManagerIntegrationTest : public TavloLoggingTest {
 protected:
  void SetUp() override {
    TavloLoggingTest::SetUp();
    test.platform.httpClient = std::make_shared<TavloCurlHttpClient>();
    test.platform.endpoints = TavloEndpoints::allAt(server.baseURL());
  }

  TavloTestServer server;
  const TavloTaggerID tagger{"123", TavloTaggerID::kAudiencePartialID, false};
};

// Every answer sets the clock delta, even one whose body is of no use; no answer at all
// keeps the last one and gives the defaults.
TEST_F(TavloAuthManagerIntegrationTest, AnswersFromTheServerOrLocalDefaultsAndTheClockDelta) {
  const TavloDate now = test.clock->now();
  struct Case {
    int status;
    std::string body;
    std::optional<TavloDate> date;
    int32_t mode;
    std::string host, cmsVI;
  };
  const Case cases[] = {
      {200, "access=full|host=https://c.example/m/web/", now - 120, 0, server.baseURL() + "/m/web/123", "1"},
      {200, "access=\"restricted\"|host=\"https://c.example/m/web/\"|cmsVI=\"42\"", std::nullopt, 1,
       "https://c.example/m/web/123", "42"},
      {200, "access=Denied|host=http://h/|cmsVI=9", now + 3600, 0, "http://h/123", "9"},
      {503, "junk|access=denied|host=http://h/|cmsVI=5|", now + 60, 2, "http://h/123", "5"},
  };
  TavloAuthManager manager(test.platform);
  for (const Case& c : cases) {
    server.handle("/", [&](const TavloTestServerRequest&) {
      TavloTestServerResponse response = TavloTestServerResponse::with(c.status, c.body);
      response.date = c.date;
      return response;
    });
    manager.clearCache();
    const auto auth = manager.authForTagger(tagger);
    ASSERT_TRUE(auth && auth->currentAccess() && auth->currentSession()) << c.body;
    EXPECT_EQ(c.mode, auth->currentAccess()->accessMode()) << c.body;
    EXPECT_EQ(c.host, auth->currentAccess()->host()) << c.body;
    EXPECT_EQ(c.cmsVI, auth->currentSession()->cmsVI()) << c.body;
    EXPECT_NEAR(c.date.value_or(now) - now, manager.timeIntervalBetweenServerAndDevice(), 1.0) << c.body;
  }

  server.stop();
  const auto auth = manager.authForTagger(TavloTaggerID("456", 0, true));
  ASSERT_TRUE(auth && auth->currentAccess());
  EXPECT_EQ(server.baseURL() + "/m/web/456", auth->currentAccess()->host());
  EXPECT_NEAR(60, manager.timeIntervalBetweenServerAndDevice(), 1.0) << "no answer, no new measurement";
}

}  // namespace
