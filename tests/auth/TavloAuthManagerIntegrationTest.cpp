// The authorisation exchange over real HTTP: libcurl against an in-process server.
#include <cmath>

#include "auth/TavloAuthManager.h"
#include "linux/TavloCurlHttpClient.h"
#include "support/TavloLoggingFixture.h"
#include "support/TavloTestServer.h"
#include "tavlo/TavloVersion.h"

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

TEST_F(TavloAuthManagerIntegrationTest, AnswersFromTheServerOrLocalDefaults) {
  const std::string fallbackHost = server.baseURL() + "/m/web/123";
  struct Case {
    const char* name;
    int status;
    std::string body;
    int32_t mode;
    std::string host;
    const char* cmsVI;  // null: a local random one
  };
  const Case cases[] = {
      {"quoted values", 200, "access=\"restricted\"|host=\"https://c.example/m/web/\"|cmsVI=\"42\"", 1,
       "https://c.example/m/web/123", "42"},
      {"plain values", 200, "access=denied|host=https://c.example/m/web/|cmsVI=7", 2, "https://c.example/m/web/123", "7"},
      {"extra pairs and pieces without =", 200, "junk|x=y|access=full|host=http://h/|cmsVI=9|", 0, "http://h/123", "9"},
      {"missing cmsVI", 200, "access=full|host=https://c.example/m/web/", 0, fallbackHost, nullptr},
      {"a second = cuts the value", 200, "access=full=yes|host=http://h/|cmsVI=1", 0, "http://h/123", "1"},
      {"error status with a usable body", 503, "access=restricted|host=http://h/|cmsVI=5", 1, "http://h/123", "5"},
      {"empty body", 200, "", 0, fallbackHost, nullptr},
      {"not UTF-8", 200, "access=denied|host=http://h/|cmsVI=\xFF\xFE", 0, fallbackHost, nullptr},
      {"keys are case-sensitive", 200, "Access=denied|HOST=h/|cmsvi=1", 0, fallbackHost, nullptr},
      {"1 MiB body", 200, "access=denied|host=http://h/|cmsVI=3|pad=" + std::string(1 << 20, 'x'), 2, "http://h/123", "3"},
  };
  for (const Case& c : cases) {
    server.respond("/", c.status, c.body);
    TavloAuthManager manager(test.platform);
    const auto auth = manager.authForTagger(tagger);
    ASSERT_TRUE(auth && auth->currentAccess() && auth->currentSession()) << c.name;
    EXPECT_EQ(c.mode, auth->currentAccess()->accessMode()) << c.name;
    EXPECT_EQ(c.host, auth->currentAccess()->host()) << c.name;
    if (c.cmsVI) {
      EXPECT_EQ(c.cmsVI, auth->currentSession()->cmsVI()) << c.name;
    } else {
      EXPECT_NE(std::string::npos, auth->currentSession()->cmsVI()->find_first_of("0123456789")) << c.name;
    }
  }
  const auto requests = server.requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ("/123", requests.back().target);
  EXPECT_EQ("TestApp/1.2.3 Tavlo SDK v" TAVLO_VERSION_STRING " apple tv", requests.back().header("User-Agent"));
}

TEST_F(TavloAuthManagerIntegrationTest, ClockDeltaComesFromTheDateHeader) {
  struct Case {
    const char* name;
    std::optional<TavloDate> date;
    TavloHttpHeaders headers;
    double delta;
  };
  const TavloDate now = test.clock->now();
  const Case cases[] = {
      {"one hour ahead", now + 3600, {}, 3600},
      {"two minutes behind", now - 120, {}, -120},
      {"no Date header", std::nullopt, {}, 0},
      {"unparsable Date header", std::nullopt, {{"Date", "yesterday-ish"}}, 0},
  };
  for (const Case& c : cases) {
    server.handle("/", [&](const TavloTestServerRequest&) {
      TavloTestServerResponse response = TavloTestServerResponse::with(200, "access=full|host=http://h/|cmsVI=1");
      response.date = c.date;
      response.headers = c.headers;
      return response;
    });
    TavloAuthManager manager(test.platform);
    manager.authentificationInformationForTagger(tagger);
    EXPECT_NEAR(c.delta, manager.timeIntervalBetweenServerAndDevice(), 1.0) << c.name;
  }
}

TEST_F(TavloAuthManagerIntegrationTest, ARefusedConnectionGivesDefaultsAndKeepsTheDelta) {
  server.handle("/", [&](const TavloTestServerRequest&) {
    TavloTestServerResponse response = TavloTestServerResponse::with(200, "");
    response.date = test.clock->now() + 60;
    return response;
  });
  TavloAuthManager manager(test.platform);
  manager.authentificationInformationForTagger(tagger);
  ASSERT_NEAR(60, manager.timeIntervalBetweenServerAndDevice(), 1.0);

  server.stop();
  const TavloTaggerID other("456", 0, true);
  const auto auth = manager.authForTagger(other);
  ASSERT_TRUE(auth && auth->currentAccess());
  EXPECT_EQ(server.baseURL() + "/m/web/456", auth->currentAccess()->host());
  EXPECT_NEAR(60, manager.timeIntervalBetweenServerAndDevice(), 1.0) << "no answer, no new measurement";
}

}  // namespace
