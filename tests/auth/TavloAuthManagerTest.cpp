// The authorisation cache and its rules, over a scripted HTTP client. The parsing of real
// answers from a real server is covered by TavloAuthManagerIntegrationTest.
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

TEST_F(TavloAuthManagerTest, AsksTheServerOnceWithTheUserAgentThenAnswersFromTheCache) {
  http->enqueue(answer("restricted"));
  const auto auth = manager->authForTagger(audience);
  ASSERT_TRUE(auth && auth->currentAccess() && auth->currentSession());
  EXPECT_EQ(TavloAccessModeRestricted, auth->currentAccess()->accessMode());
  EXPECT_EQ("https://c.example/m/web/123", auth->currentAccess()->host());
  EXPECT_EQ("42", auth->currentSession()->cmsVI());

  ASSERT_EQ(1u, http->requestCount());
  const TavloHttpRequest sent = http->lastRequest();
  EXPECT_EQ("https://tavlo.example/123", sent.url);
  EXPECT_EQ((TavloHttpHeaders{{"User-Agent", "TestApp/1.2.3 Tavlo SDK v" TAVLO_VERSION_STRING " apple tv"}}), sent.headers);
  EXPECT_EQ(60, sent.timeoutSeconds);

  manager->authForTagger(audience);
  manager->authForTagger(*audience.copy());
  EXPECT_EQ(1u, http->requestCount()) << "a cached answer is never asked for again";
}

TEST_F(TavloAuthManagerTest, DefaultsAreCachedAndKeptLikeAnyAnswer) {
  http->enqueue(TavloScriptedHttpClient::noResponse());
  const auto audienceAuth = manager->authForTagger(audience);
  ASSERT_TRUE(audienceAuth && audienceAuth->currentAccess());
  EXPECT_EQ(TavloAccessModeFull, audienceAuth->currentAccess()->accessMode());
  EXPECT_EQ("https://second.example/m/web/123", audienceAuth->currentAccess()->host());
  EXPECT_EQ("1", audienceAuth->currentSession()->cmsVI()) << "a fresh random visit identifier";
  EXPECT_FALSE(audienceAuth->isDefaultValues());

  manager->authForTagger(audience);
  EXPECT_EQ(1u, http->requestCount()) << "defaults held in memory do not trigger a new exchange";

  const auto streamingAuth = manager->authForTagger(streaming);
  EXPECT_EQ("https://stream.example/m/web/123", streamingAuth->currentAccess()->host());
  EXPECT_EQ(TavloLoggingModeError, TavloLogger::sharedLogger().loggingMode());
}

TEST_F(TavloAuthManagerTest, ForgetAndClearLeadToANewExchange) {
  http->setHandler([](const TavloHttpRequest&) { return answer("full"); });
  manager->authForTagger(audience);
  manager->authForTagger(streaming);
  manager->forgetAuthForTagger(audience);
  EXPECT_FALSE(manager->authFromCacheForTagger(audience));
  EXPECT_TRUE(manager->authFromCacheForTagger(streaming)) << "forgetting one identity keeps the others";
  manager->authForTagger(audience);
  EXPECT_EQ(3u, http->requestCount());
  manager->clearCache();
  EXPECT_FALSE(manager->authFromCacheForTagger(streaming));
  manager->authForTagger(streaming);
  EXPECT_EQ(4u, http->requestCount());
}

TEST_F(TavloAuthManagerTest, AnAnswerWithTheSameModeKeepsTheCachedAccess) {
  http->enqueue(answer("restricted", "https://first.example/"));
  manager->authForTagger(audience);
  manager->hitSuccessfullySentForTagger(audience);
  EXPECT_FALSE(manager->authFromCacheForTagger(audience)->currentAccess()->canSendRequestFor(0));

  http->enqueue(answer("restricted", "https://second.example/"));
  manager->authentificationInformationForTagger(audience);
  auto kept = manager->authFromCacheForTagger(audience)->currentAccess();
  EXPECT_EQ("https://first.example/123", kept->host()) << "the cached access wins, host included";
  EXPECT_TRUE(kept->firstHitSuccessfullySent());

  http->enqueue(answer("full", "https://third.example/"));
  manager->authentificationInformationForTagger(audience);
  auto replaced = manager->authFromCacheForTagger(audience)->currentAccess();
  EXPECT_EQ("https://third.example/123", replaced->host());
  EXPECT_FALSE(replaced->firstHitSuccessfullySent());
}

TEST_F(TavloAuthManagerTest, AFirstHitMarkedBeforeAnyExchangeBlocksTheExchange) {
  manager->hitSuccessfullySentForTagger(audience);
  const auto auth = manager->authForTagger(audience);
  ASSERT_TRUE(auth);
  EXPECT_FALSE(auth->currentAccess());
  EXPECT_FALSE(auth->currentSession());
  EXPECT_EQ(0u, http->requestCount());
}

TEST_F(TavloAuthManagerTest, CachedCopiesShareTheAccessSoMarkingIsSeenAtOnce) {
  http->enqueue(answer("restricted"));
  const auto first = manager->authForTagger(audience);
  const auto second = manager->authFromCacheForTagger(audience);
  EXPECT_NE(first, second);
  EXPECT_EQ(first->currentAccess(), second->currentAccess());
  manager->hitSuccessfullySentForTagger(audience);
  EXPECT_FALSE(first->currentAccess()->canSendRequestFor(0));
  EXPECT_TRUE(first->currentAccess()->canSendRequestFor(1));
}

TEST_F(TavloAuthManagerTest, SerialsThatCannotStandAsOnePathSegmentGetDefaultsWithoutARequest) {
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeInfo);
  const std::vector<TavloString> serials = {TavloString(),   "has space",      "caf\xC3\xA9", "S2/../../admin",
                                            "S4?x=1&y=2",    "S5#frag",        "..",          "50%25",
                                            "S\n(ERROR) : forged"};
  for (const TavloString& serial : serials) {
    const TavloTaggerID id(serial, 1, false);
    manager->authentificationInformationForTagger(id);
    const auto auth = manager->authFromCacheForTagger(id);
    ASSERT_TRUE(auth) << serial.value_or("(nil)");
    EXPECT_EQ(TavloAccessModeFull, auth->currentAccess()->accessMode());
  }
  EXPECT_EQ(0u, http->requestCount());
  EXPECT_TRUE(test.logSink->contains("(INFO) : Serial S\\n(ERROR) : forged on host https://second.example/m/web/S\\n"))
      << "the serial's line break must be written as an escape";
}

TEST_F(TavloAuthManagerTest, AnAnswerWhoseHostCannotStartAHitURLGivesTheDefaults) {
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeInfo);
  const std::vector<std::string> hosts = {
      "https://c.example/m/web/?x=1", "https://c.example/m/web/#f", "https://c.example/\r\n(ERROR) : forged",
      "https://c .example/",          "ftp://c.example/",           "h/",
  };
  for (const std::string& host : hosts) {
    test.logSink->clear();
    http->enqueue(answer("denied", host));
    manager->authentificationInformationForTagger(audience);
    const auto auth = manager->authFromCacheForTagger(audience);
    ASSERT_TRUE(auth && auth->currentAccess() && auth->currentSession()) << host;
    EXPECT_EQ("https://second.example/m/web/123", auth->currentAccess()->host()) << host;
    EXPECT_NE("42", auth->currentSession()->cmsVI()) << host << ": the answer's visit identifier was taken";
    EXPECT_EQ(1u, test.logSink->count("(WARNING) : The authorisation answer for serial 123 names the host")) << host;
    for (const std::string& line : test.logSink->lines()) {
      EXPECT_EQ(std::string::npos, line.find_first_of("\r\n")) << line;
    }
  }
}

TEST_F(TavloAuthManagerTest, LogsTheAnswerAndTheChosenHost) {
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeInfo);
  http->enqueue(answer("denied"));
  manager->authForTagger(audience);
  EXPECT_EQ((std::vector<std::string>{"(INFO) : Access for serial 123 is denied on host https://c.example/m/web/",
                                      "(INFO) : Serial 123 on host https://c.example/m/web/123"}),
            test.logSink->lines());
}

TEST_F(TavloAuthManagerTest, AccessModeWordsAreExact) {
  EXPECT_EQ(TavloAccessModeDenied, TavloAuthManager::accessModeFromString("denied"));
  EXPECT_EQ(TavloAccessModeRestricted, TavloAuthManager::accessModeFromString("restricted"));
  for (const TavloString& word : {TavloString("Denied"), TavloString(" restricted"), TavloString("full"),
                                  TavloString(""), TavloString()}) {
    EXPECT_EQ(TavloAccessModeFull, TavloAuthManager::accessModeFromString(word)) << word.value_or("(nil)");
  }
}

}  // namespace
