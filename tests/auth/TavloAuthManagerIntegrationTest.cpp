// The authorisation exchange over real HTTP: libcurl against an in-process server. What
// any answer and any Date header at all make is the authorisation-answer fuzz target's.
#include "auth/TavloAuthManager.h"
#include "linux/TavloCurlHttpClient.h"
#include "support/TavloLoggingFixture.h"
#include "TavloLocalServer.h"

namespace {

using TavloAuthManagerIntegrationTest = TavloLoggingTest;

// Every answer sets the clock delta, even one whose body is of no use; no answer at all
// keeps the last one and gives the defaults.
TEST_F(TavloAuthManagerIntegrationTest, AnswersFromTheServerOrLocalDefaultsAndTheClockDelta) {
  TavloLocalServer server;
  test.platform.httpClient = std::make_shared<TavloCurlHttpClient>();
  test.platform.endpoints = TavloEndpoints::allAt(server.baseURL());
  const TavloDate now = test.clock->now();
  // The answer's status, body and Date; the access mode, host and visit made of it.
  const std::tuple<int, std::string, std::optional<TavloDate>, int32_t, std::string, std::string> cases[] = {
      {200, "access=full|host=https://c.example/m/web/", now - 120, 0, server.baseURL() + "/m/web/123", "1"},
      {200, "access=\"restricted\"|host=\"https://c.example/m/web/\"|cmsVI=\"42\"", std::nullopt, 1,
       "https://c.example/m/web/123", "42"},
      {200, "access=Denied|host=http://h/|cmsVI=9", now + 3600, 0, "http://h/123", "9"},
      {503, "junk|access=denied|host=http://h/|cmsVI=5|", now + 60, 2, "http://h/123", "5"},
  };
  TavloAuthManager manager(test.platform);
  const TavloTaggerID tagger{"123", TavloTaggerID::kAudiencePartialID, false};
  for (const auto& [status, body, date, mode, host, cmsVI] : cases) {
    server.handle("/", [&](const TavloLocalServerRequest&) {
      TavloLocalServerResponse response = TavloLocalServerResponse::with(status, body);
      response.date = date;
      return response;
    });
    manager.clearCache();
    const auto auth = manager.authForTagger(tagger);
    ASSERT_TRUE(auth && auth->currentAccess() && auth->currentSession()) << body;
    EXPECT_EQ(mode, auth->currentAccess()->accessMode()) << body;
    EXPECT_EQ(host, auth->currentAccess()->host()) << body;
    EXPECT_EQ(cmsVI, auth->currentSession()->cmsVI()) << body;
    EXPECT_NEAR(date.value_or(now) - now, manager.timeIntervalBetweenServerAndDevice(), 1.0) << body;
  }

  server.stop();
  const auto auth = manager.authForTagger(TavloTaggerID("456", 0, true));
  ASSERT_TRUE(auth && auth->currentAccess());
  EXPECT_EQ(server.baseURL() + "/m/web/456", auth->currentAccess()->host());
  EXPECT_NEAR(60, manager.timeIntervalBetweenServerAndDevice(), 1.0) << "no answer, no new measurement";
}

}  // namespace
