// The authorisation cache and its rules, over a scripted HTTP client. Real answers are the
// integration test's; any answer at all is the fuzz target's (fuzz/TavloAuthAnswerFuzz.cpp).
#include "auth/TavloAuthManager.h"
#include "platform/TavloLogger.h"
#include "support/TavloLoggingFixture.h"
#include "tavlo/testkit/TavloScriptedHttpClient.h"
#include "tavlo/TavloVersion.h"

namespace {

class TavloAuthManagerTest : public TavloLoggingTest {
 protected:
  void SetUp() override {
    TavloLoggingTest::SetUp();
    test.platform.httpClient = http;
    test.platform.endpoints = TavloEndpoints::allAt("https://tavlo.example");
    test.platform.endpoints.secondCollection = "https://second.example";
    test.platform.endpoints.streamingCollection = "https://stream.example";
    manager = std::make_unique<TavloAuthManager>(test.platform);
  }

  static TavloHttpResponse answer(const std::string& mode, const std::string& host = "https://c.example/m/web/") {
    return TavloScriptedHttpClient::answer(200, "access=" + mode + "|host=" + host + "|cmsVI=42");
  }

  std::shared_ptr<TavloScriptedHttpClient> http = std::make_shared<TavloScriptedHttpClient>();
  std::unique_ptr<TavloAuthManager> manager;
  const TavloTaggerID audience{"123", TavloTaggerID::kAudiencePartialID, false};
  const TavloTaggerID streaming{"123", 0, true};
};

// One exchange per identity; every copy handed out shares the one access, so the first
// hit's mark reaches them all. A renewal with the same mode keeps that access, host and
// mark included: restricted access must not let a second audience hit through.
TEST_F(TavloAuthManagerTest, AsksOnceAndKeepsOneSharedAccessUntilTheModeChanges) {
  http->enqueue(answer("restricted", "https://first.example/"));
  const auto auth = manager->authForTagger(audience);
  ASSERT_TRUE(auth && auth->currentAccess());
  const TavloHttpRequest sent = http->lastRequest();
  EXPECT_EQ("https://tavlo.example/123", sent.url);
  EXPECT_EQ((TavloHttpHeaders{{"User-Agent", "TestApp/1.2.3 Tavlo SDK v" TAVLO_VERSION_STRING " apple tv"}}),
            sent.headers);
  EXPECT_EQ(60, sent.timeoutSeconds);
  const auto again = manager->authForTagger(*audience.copy());
  EXPECT_EQ(1u, http->requestCount()) << "a cached answer is never asked for again";
  manager->hitSuccessfullySentForTagger(audience);
  EXPECT_FALSE(auth->currentAccess()->canSendRequestFor(0)) << "a copy handed out earlier sees the mark at once";

  http->enqueue(answer("restricted", "https://second.example/"));
  manager->authentificationInformationForTagger(audience);
  EXPECT_EQ(again->currentAccess(), manager->authFromCacheForTagger(audience)->currentAccess());
  http->enqueue(answer("full", "https://third.example/"));
  manager->authentificationInformationForTagger(audience);
  EXPECT_EQ("https://third.example/123", manager->authFromCacheForTagger(audience)->currentAccess()->host());
}

// Defaults stand in for an answer and are cached like one; forgetting one identity or
// clearing the cache leads to a new exchange, unless a first hit was marked before any.
TEST_F(TavloAuthManagerTest, DefaultsAreCachedAndOnlyForgetAndClearAskAgain) {
  http->setHandler([](const TavloHttpRequest&) { return TavloScriptedHttpClient::noResponse(); });
  const auto defaults = manager->authForTagger(audience);
  ASSERT_TRUE(defaults && defaults->currentAccess());
  EXPECT_EQ(TavloAccessModeFull, defaults->currentAccess()->accessMode());
  EXPECT_EQ("https://second.example/m/web/123", defaults->currentAccess()->host());
  manager->authForTagger(audience);
  EXPECT_EQ(1u, http->requestCount()) << "defaults held in memory do not trigger a new exchange";
  EXPECT_EQ("https://stream.example/m/web/123", manager->authForTagger(streaming)->currentAccess()->host());
  manager->forgetAuthForTagger(audience);
  EXPECT_FALSE(manager->authFromCacheForTagger(audience));
  EXPECT_TRUE(manager->authFromCacheForTagger(streaming)) << "forgetting one identity keeps the others";
  manager->authForTagger(audience);
  EXPECT_EQ(3u, http->requestCount());
  manager->clearCache();
  manager->hitSuccessfullySentForTagger(streaming);
  const auto marked = manager->authForTagger(streaming);
  EXPECT_TRUE(marked && !marked->currentAccess()) << "a first hit marked before any exchange blocks the exchange";
  EXPECT_EQ(3u, http->requestCount());
}

// The log lines users read, each on its line: the answer and the host chosen, or the
// defaults' host for an answer naming a host hits cannot start with, or for a serial that
// cannot stand as one path segment (asked about nowhere).
TEST_F(TavloAuthManagerTest, LogsTheAnswerAndTheHostAndFallsBackOnUnusableOnes) {
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeInfo);
  const std::string forged = "\n(ERROR) : forged";
  const std::tuple<std::string, std::optional<std::string>, std::vector<std::string>> cases[] = {
      {"123", "https://c.example/m/web/",  // the host in the answer; none: nothing is asked
       {"(INFO) : Access for serial 123 is denied on host https://c.example/m/web/",
        "(INFO) : Serial 123 on host https://c.example/m/web/123"}},
      {"123", "https://c.example/#f" + forged,
       {"(WARNING) : The authorisation answer for serial 123 names the host \"https://c.example/#f\\n(ERROR) : "
        "forged\", which is not an http or https address usable for hits; the defaults apply",
        "(INFO) : Serial 123 on host https://second.example/m/web/123"}},
      {"S" + forged, std::nullopt,
       {"(INFO) : Serial S\\n(ERROR) : forged on host https://second.example/m/web/S\\n(ERROR) : forged"}},
  };
  for (const auto& [serial, host, lines] : cases) {
    test.logSink->clear();
    const std::size_t asked = http->requestCount();
    if (host) http->enqueue(answer("denied", *host));
    manager->authForTagger(TavloTaggerID(serial, TavloTaggerID::kAudiencePartialID, false));
    EXPECT_EQ(lines, test.logSink->lines()) << serial;
    EXPECT_EQ(asked + (host ? 1 : 0), http->requestCount()) << serial;
    manager->clearCache();
  }
}

}  // namespace
