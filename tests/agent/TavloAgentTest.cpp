#include <fstream>
#include <thread>

#include "request/TavloClearCache.h"
#include "request/TavloKeyedArchiver.h"
#include "support/TavloAgentFixture.h"
#include "support/TavloScriptedHttpClient.h"

namespace {

std::vector<std::string> levelsOf(const std::deque<std::shared_ptr<TavloRequest>>& queue) {
  std::vector<std::string> levels;
  for (const auto& request : queue) {
    levels.push_back(request->isClearCacheMarker() ? "<marker>" : request->parameters()->at("c"));
  }
  return levels;
}

std::vector<std::string> collectionURLs(TavloScriptedHttpClient& http) {
  std::vector<std::string> urls;
  for (const auto& request : http.requests()) {
    if (request.url.find("/m/web/") != std::string::npos) urls.push_back(request.url);
  }
  return urls;
}

TEST_F(TavloAgentTest, SendsAHitWithTheUserAgentAndRemovesIt) {
  agent->addRequestToQueue(audienceRequest("home"));
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty());
  const auto requests = test.http->requests();
  ASSERT_EQ(2u, requests.size()) << "one authorisation, one hit";
  EXPECT_EQ("http://127.0.0.1:1/123", requests[0].url);
  EXPECT_EQ("http://collect.test/m/web/123?c=home&m_ntwk=Wifi", requests[1].url);
  EXPECT_EQ((TavloHttpHeaders{{"User-Agent", "TestApp/1.2.3 Tavlo SDK v5.4.5 apple tv"}}), requests[1].headers);
  EXPECT_EQ(10, requests[1].timeoutSeconds);
  EXPECT_TRUE(test.logSink->contains("(INFO) : Request \"serial 123 - request type audience - hote "
                                     "http://collect.test/m/web/123 - parameters {"));
  EXPECT_TRUE(test.logSink->contains("(INFO) : We have now 0 request(s) to handle"));
}

TEST_F(TavloAgentTest, NoAnswerKeepsTheHeadUntilAWakeUpSixtySecondsLater) {
  test.http->setHandler([](const TavloHttpRequest& request) {
    return request.url.find("/m/web/") != std::string::npos
               ? TavloScriptedHttpClient::noResponse()
               : TavloScriptedHttpClient::answer(200, "access=full|host=http://collect.test/m/web/|cmsVI=5");
  });
  agent->addRequestToQueue(audienceRequest("first"));
  settle();
  auto queue = agent->TEST_queue();
  ASSERT_EQ(1u, queue.size());
  EXPECT_EQ(1, queue[0]->numberOfFails());
  EXPECT_EQ(TavloRequestStatusFailed, queue[0]->status());
  EXPECT_EQ(test.clock->now(), queue[0]->lastFail());
  EXPECT_TRUE(test.logSink->contains("handling resulted in a timeout or lack of connection"));

  test.http->setHandler([](const TavloHttpRequest&) { return TavloScriptedHttpClient::answer(200); });
  agent->addRequestToQueue(audienceRequest("second"));  // a wake-up too early: the head blocks the queue
  settle();
  test.clock->advance(59);
  agent->applicationWillEnterForeground();
  settle();
  EXPECT_EQ((std::vector<std::string>{"first", "second"}), levelsOf(agent->TEST_queue()));
  EXPECT_EQ(1u, collectionURLs(*test.http).size()) << "no retry before 60 seconds";

  test.clock->advance(1);
  EXPECT_EQ(2u, agent->TEST_queue().size()) << "time alone wakes nothing";
  agent->applicationWillEnterForeground();
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty());
}

TEST_F(TavloAgentTest, AnyStatusButTwoHundredDropsTheRequestWithoutAFailure) {
  for (long status : {404L, 500L, 302L}) {
    test.http->setHandler([status](const TavloHttpRequest& request) {
      return request.url.find("/m/web/") != std::string::npos
                 ? TavloScriptedHttpClient::answer(status)
                 : TavloScriptedHttpClient::answer(200, "access=restricted|host=http://c.test/m/web/|cmsVI=5");
    });
    auto request = audienceRequest("x");
    agent->addRequestToQueue(request);
    settle();
    EXPECT_TRUE(agent->TEST_queue().empty()) << status;
    EXPECT_EQ(0, request->numberOfFails()) << status;
    EXPECT_EQ(TavloRequestStatusSending, request->status()) << status;
  }
  const auto auth = agent->authManager()->authFromCacheForTagger(*audienceRequest("x")->taggerID());
  EXPECT_TRUE(auth->currentAccess()->canSendRequestFor(0)) << "only a 200 uses up a restricted serial's hit";
}

TEST_F(TavloAgentTest, RefusedAccessDropsTheRequestWithTheRightLine) {
  authAnswer = "access=restricted|host=http://collect.test/m/web/|cmsVI=5";
  agent->addRequestToQueue(audienceRequest("first"));
  agent->addRequestToQueue(audienceRequest("second"));
  agent->addRequestToQueue(streamingRequest("stream"));
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty());
  EXPECT_EQ(2u, collectionURLs(*test.http).size()) << "the first audience hit and the streaming hit";
  EXPECT_TRUE(test.logSink->contains("(ERROR) : TavloAudienceTagger - Can't send hit anymore with this serial : 123"));

  authAnswer = "access=denied|host=http://collect.test/m/web/|cmsVI=5";
  agent->addRequestToQueue(audienceRequest("denied", "999"));
  settle();
  EXPECT_EQ(2u, collectionURLs(*test.http).size());
  EXPECT_TRUE(test.logSink->contains("can't be sent because of access denied for its serial"));
}

TEST_F(TavloAgentTest, TheQueueKeepsTheNewestFiveHundred) {
  goOffline();
  for (int i = 0; i <= 500; ++i) agent->addRequestToQueue(audienceRequest(std::to_string(i)));
  settle();
  const auto queue = agent->TEST_queue();
  ASSERT_EQ(500u, queue.size());
  EXPECT_EQ("1", queue.front()->parameters()->at("c"));
  EXPECT_EQ("500", queue.back()->parameters()->at("c"));
  EXPECT_TRUE(test.http->requests().empty());
}

TEST_F(TavloAgentTest, ComingBackOnlineDropsAudienceHitsAndSendsStreamingOnes) {
  goOffline();
  agent->addRequestToQueue(audienceRequest("audience"));
  agent->addRequestToQueue(streamingRequest("stream"));
  settle();
  EXPECT_EQ((std::vector<std::string>{"audience", "stream"}), levelsOf(agent->TEST_queue()));
  goOnline();
  EXPECT_TRUE(agent->TEST_queue().empty());
  // Queued requests take the cached authorisation (none here), so this one is authorised afresh.
  EXPECT_EQ((std::vector<std::string>{"http://collect.test/m/web/123?c=stream&cmsVI=5&m_ntwk=Wifi"}),
            collectionURLs(*test.http));
  EXPECT_TRUE(test.logSink->contains("Connection status changed - we check if we can send any request"));
}

TEST_F(TavloAgentTest, ValidityAllowsFutureDatesOnlyOnTheSameLocalDay) {
  // The clock reads 2023-11-14 22:13:20 UTC.
  struct Case {
    const char* name;
    double ahead;
    long utcOffset;
    bool valid;
  };
  const Case cases[] = {
      {"in the past", -100000, 0, true},
      {"5 s ahead", 5, 0, true},
      {"10 s ahead, same day", 10, 0, true},
      {"3 h ahead, next day in UTC", 3 * 3600, 0, false},
      {"3 h ahead, same day three hours west", 3 * 3600, -4 * 3600, true},
      {"1 h ahead, past midnight one hour east", 3600, 3600, false},
      {"1 h ahead, both after midnight two hours east", 3600, 2 * 3600, true},
      {"a day ahead", 86400, 0, false},
  };
  for (const Case& c : cases) {
    test.clock->setUtcOffset(c.utcOffset);
    auto request = audienceRequest("x");
    request->setCreationDate(test.clock->now() + c.ahead);
    EXPECT_EQ(c.valid, agent->isTheRequestValid(*request)) << c.name;
  }
}

TEST_F(TavloAgentTest, PartialIdentifiersCountUpAcrossThreads) {
  EXPECT_EQ(0u, agent->getPartialID());
  std::vector<std::thread> threads;
  std::vector<std::vector<uint64_t>> seen(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 250; ++i) seen[t].push_back(agent->getPartialID());
    });
  }
  for (auto& thread : threads) thread.join();
  std::vector<uint64_t> all;
  for (const auto& ids : seen) all.insert(all.end(), ids.begin(), ids.end());
  std::sort(all.begin(), all.end());
  for (uint64_t i = 0; i < all.size(); ++i) ASSERT_EQ(i + 1, all[i]) << "every value once";
}

class TavloAgentFileTest : public TavloAgentTest {
 protected:
  void writeQueueFile(const std::vector<std::shared_ptr<TavloCodable>>& objects) {
    writeQueueBytes(TavloKeyedArchiver::archivedDataWithRootArray(objects));
  }
  void writeQueueBytes(const std::string& bytes) {
    agent->shutdown();
    agent.reset();
    std::ofstream(queuePath(), std::ios::binary) << bytes;
  }
  std::string queuePath() { return test.directory->path() + "/TestApp/TavloCache/requests.ser"; }
};

TEST_F(TavloAgentFileTest, ARestartKeepsStreamingRequestsThenClearsTheAuthorisationCache) {
  writeQueueFile({audienceRequest("a1"), streamingRequest("s1"), audienceRequest("a2"), audienceRequest("a3"),
                  streamingRequest("s2"), TavloClearCache::make()});
  test.reachability->setFlags(0);
  startAgent();
  EXPECT_EQ((std::vector<std::string>{"s1", "s2", "<marker>"}), levelsOf(agent->TEST_queue()));

  const TavloTaggerID cached("777", 1, false);
  agent->authManager()->setAuthToCache(TavloAuth::TavloAuthWithSession(nullptr, nullptr, false), cached);
  test.reachability->setFlags(TavloReachabilityFlagReachable);
  agent->applicationWillEnterForeground();  // wakes the loop without the online reaction
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty());
  EXPECT_EQ(2u, collectionURLs(*test.http).size());
  EXPECT_EQ(2u, test.http->requestCount()) << "streaming requests keep their archived authorisation";
  EXPECT_FALSE(agent->authManager()->authFromCacheForTagger(cached)) << "the marker cleared the cache";
}

TEST_F(TavloAgentFileTest, AFileOfAudienceHitsOnlyGivesAnEmptyQueueWithoutMarker) {
  writeQueueFile({audienceRequest("a1"), audienceRequest("a2")});
  test.reachability->setFlags(0);
  startAgent();
  EXPECT_TRUE(agent->TEST_queue().empty());
}

TEST_F(TavloAgentFileTest, ADamagedFileGivesAnEmptyQueueAndIsReplacedAtTheNextSave) {
  for (const std::string& bytes : {std::string("bplist00garbage"), std::string(), std::string("\0\0\0", 3)}) {
    writeQueueBytes(bytes);
    test.reachability->setFlags(0);
    test.logSink->clear();
    startAgent();
    EXPECT_TRUE(agent->TEST_queue().empty());
    agent->addRequestToQueue(streamingRequest("kept"));
    settle();
    startAgent();
    EXPECT_EQ((std::vector<std::string>{"kept", "<marker>"}), levelsOf(agent->TEST_queue()))
        << "the damaged file was replaced by a good one";
  }
}

TEST_F(TavloAgentFileTest, ASecondAgentOfTheSameApplicationKeepsItsQueueInMemory) {
  goOffline();
  auto second = TavloAgent::make(test.platform, nullptr, std::make_shared<TavloNotificationCenter>());
  EXPECT_TRUE(test.logSink->contains("is in use by another process of this application"));
  second->addRequestToQueue(streamingRequest("memory only"));
  ASSERT_TRUE(second->TEST_waitUntilIdle());
  EXPECT_EQ(1u, second->TEST_queue().size());
  second->shutdown();
  agent->addRequestToQueue(streamingRequest("on file"));
  settle();
  startAgent();
  EXPECT_EQ((std::vector<std::string>{"on file", "<marker>"}), levelsOf(agent->TEST_queue()));
}

TEST_F(TavloAgentFileTest, AnUnwritableDataDirectoryIsReportedOnceAndTheQueueLivesOn) {
  agent->shutdown();
  test.directory->writeFile("not-a-folder", "x");
  auto files = std::make_shared<TavloPosixFileSystem>(test.directory->path() + "/not-a-folder");
  test.platform.files = files;
  test.reachability->setFlags(0);
  startAgent();
  for (int i = 0; i < 3; ++i) agent->addRequestToQueue(streamingRequest("s" + std::to_string(i)));
  settle();
  EXPECT_EQ(3u, agent->TEST_queue().size());
  EXPECT_EQ(1u, test.logSink->count("requests are kept in memory only"));
}

}  // namespace
