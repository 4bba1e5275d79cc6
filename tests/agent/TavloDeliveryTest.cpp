// Consent, the delivery counts with the drop handler, and flushing, on an agent of its own.
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>

#include "support/TavloAgentFixture.h"
#include "tavlo/testkit/TavloScriptedHttpClient.h"

namespace {

class TavloDeliveryTest : public TavloAgentTest {
 protected:
  void SetUp() override {
    TavloAgentTest::SetUp();
    watchDrops();
  }
  // The handler reads the queue, which it could not do if it ran under the agent's lock.
  void watchDrops() {
    agent->ledger().setHandler([this](const TavloDroppedHit& drop) {
      agent->TEST_queue();
      std::lock_guard lock(dropsProtector);
      drops.push_back(std::string(TavloDropReasonName(drop.reason)) + " " + drop.serial + "/" +
                      std::to_string(drop.requestType) + (drop.httpStatus ? " " + std::to_string(drop.httpStatus) : ""));
    });
  }
  std::vector<std::string> takeDrops() {
    std::lock_guard lock(dropsProtector);
    return std::exchange(drops, {});
  }
  /// Queued, sent and each reason's count of serial "123", as "q1 s0 queue full:1".
  std::string countsOf(int64_t type) {
    for (const TavloDeliveryCounts& counts : agent->ledger().counts()) {
      if (counts.serial != "123" || counts.requestType != type) continue;
      std::string text = "q" + std::to_string(counts.queued) + " s" + std::to_string(counts.sent);
      for (size_t reason = 0; reason < kTavloDropReasonCount; ++reason) {
        if (counts.dropped[reason]) {
          text += std::string(" ") + TavloDropReasonName(static_cast<TavloDropReason>(reason)) + ":" +
                  std::to_string(counts.dropped[reason]);
        }
      }
      return text;
    }
    return "none";
  }
  std::string cacheFile(const std::string& name) { return test.directory->path() + "/TestApp/TavloCache/" + name; }
  std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  std::mutex dropsProtector;
  std::vector<std::string> drops;  // guarded by dropsProtector
};

TEST_F(TavloDeliveryTest, EveryHitEndsCountedAsSentOrDroppedWithItsReason) {
  struct Case {
    const char* name;
    std::function<void()> act;
    int64_t type;
    const char* counts;
    std::vector<std::string> drops;
  };
  const auto answerEveryHit = [this](TavloHttpResponse response) {
    test.http->setHandler([this, response](const TavloHttpRequest& request) {
      if (request.url.find("/m/web/") == std::string::npos) return TavloScriptedHttpClient::answer(200, authAnswer);
      return response;
    });
  };
  const Case cases[] = {
      {"answered 200", [&] { agent->addRequestToQueue(audienceRequest("a")); }, 0, "q1 s1", {}},
      {"answered 404",
       [&] {
         answerEveryHit(TavloScriptedHttpClient::answer(404));
         agent->addRequestToQueue(audienceRequest("a"));
       },
       0, "q1 s0 HTTP status:1", {"HTTP status 123/0 404"}},
      {"refused by the client",
       [&] {
         answerEveryHit(TavloScriptedHttpClient::invalidRequest());
         agent->addRequestToQueue(streamingRequest("s"));
       },
       1, "q1 s0 invalid URL:1", {"invalid URL 123/1"}},
      {"too large to be a URL",
       [&] {
         agent->addRequestToQueue(TavloRequest::TavloRequestWithParameters(
             std::make_shared<const TavloParameters>(TavloParameters{{"c", std::string(TavloAgent::maximumHitBytes, 'x')}}),
             TavloRequestTypeStreaming, TavloSendingModeLive, "123", std::make_shared<TavloTaggerID>("123", 0, true), 0));
       },
       1, "q0 s0 invalid URL:1", {"invalid URL 123/1"}},
      {"access denied",
       [&] {
         authAnswer = "access=denied|host=http://collect.test/m/web/|cmsVI=5";
         agent->addRequestToQueue(audienceRequest("a"));
       },
       0, "q1 s0 access refused:1", {"access refused 123/0"}},
      {"dated tomorrow",
       [&] {
         auto late = audienceRequest("a");
         late->setCreationDate(test.clock->now() + 2 * 86400);
         agent->addRequestToQueue(late);
       },
       0, "q1 s0 stale:1", {"stale 123/0"}},
      {"kept offline, then the network came back",
       [&] {
         goOffline();
         agent->addRequestToQueue(audienceRequest("a"));
         agent->addRequestToQueue(streamingRequest("s"));
         ASSERT_TRUE(agent->TEST_waitForHandOver());  // queued while offline, not on the way back
         goOnline();
       },
       0, "q1 s0 discarded at reconnection:1", {"discarded at reconnection 123/0"}},
      {"the 501st while offline",
       [&] {
         goOffline();
         for (int i = 0; i < 500; ++i) agent->addRequestToQueue(streamingRequest(std::to_string(i)));
         ASSERT_TRUE(agent->TEST_waitForHandOver());  // or the hand-over's own limit drops one first
         agent->addRequestToQueue(streamingRequest("501st"));
       },
       1, "q501 s0 queue full:1", {"queue full 123/1"}},
      {"after shutdown",
       [&] {
         agent->shutdown();
         agent->addRequestToQueue(audienceRequest("a"));
       },
       0, "q0 s0 after shutdown:1", {"after shutdown 123/0"}},
  };
  for (const Case& c : cases) {
    authAnswer = "access=full|host=http://collect.test/m/web/|cmsVI=5";
    answerEveryHit(TavloScriptedHttpClient::answer(200));
    test.reachability->setFlags(TavloReachabilityFlagReachable);
    startAgent();
    watchDrops();
    c.act();
    settle();
    EXPECT_EQ(c.counts, countsOf(c.type)) << c.name;
    EXPECT_EQ(c.drops, takeDrops()) << c.name;
  }
}

TEST_F(TavloDeliveryTest, PendingKeepsHitsUnsentRevokedEmptiesTheQueueAndBothOutliveARestart) {
  agent->setConsent(TavloConsent::Pending);
  agent->addRequestToQueue(streamingRequest("kept"));
  agent->addRequestToQueue(audienceRequest("gone"));
  settle();
  startAgent();  // the state and the hits come back from their files
  EXPECT_EQ(TavloConsent::Pending, agent->consentOnceRead());
  EXPECT_EQ("q1 s0", countsOf(1)) << "loaded again";
  EXPECT_EQ("q0 s0 discarded at restart:1", countsOf(0));
  EXPECT_EQ(0u, test.http->requestCount()) << "pending: not even authorised";

  agent->setConsent(TavloConsent::Granted);
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty());
  EXPECT_EQ(2u, test.http->requestCount()) << "an authorisation and the hit";

  goOffline();
  watchDrops();
  const std::string uid = agent->defaultParameters().at("uid");
  agent->addRequestToQueue(streamingRequest("queued"));
  agent->setConsent(TavloConsent::Revoked, true);
  agent->addRequestToQueue(audienceRequest("after"));
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty());
  EXPECT_EQ((std::vector<std::string>{"consent 123/0", "consent 123/1"}), takeDrops())
      << "the later hit goes at the hand-over, before the queued one is purged";
  EXPECT_NE(uid, agent->defaultParameters().at("uid")) << "the device identifier was forgotten";
  struct stat status {};
  ASSERT_EQ(0, ::stat(cacheFile("consent").c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  EXPECT_EQ("revoked\n", read(cacheFile("consent")));

  startAgent();
  EXPECT_EQ(TavloConsent::Revoked, agent->consentOnceRead());
  EXPECT_TRUE(agent->TEST_queue().empty()) << "the file was emptied too";

  // A state the library cannot read keeps hits unsent rather than sending them.
  agent->shutdown();
  std::ofstream(cacheFile("consent")) << "maybe\n";
  startAgent();
  EXPECT_EQ(TavloConsent::Pending, agent->consentOnceRead());
  EXPECT_TRUE(test.logSink->contains("says neither granted, pending nor revoked"));
}

TEST_F(TavloDeliveryTest, AFlushTriesAFailedHeadAtOnceAndStopsAtTheFirstSilence) {
  bool answering = false;
  test.http->setHandler([&](const TavloHttpRequest& request) {
    if (request.url.find("/m/web/") == std::string::npos) return TavloScriptedHttpClient::answer(200, authAnswer);
    return answering ? TavloScriptedHttpClient::answer(200) : TavloScriptedHttpClient::noResponse();
  });
  for (const char* level : {"a", "b", "c"}) agent->addRequestToQueue(streamingRequest(level));
  settle();
  const size_t attempts = test.http->requestCount();

  TavloFlushResult silent = agent->flush(10);
  EXPECT_EQ(attempts + 1, test.http->requestCount()) << "one more try of the head, the rest would fail alike";
  EXPECT_EQ((std::vector<uint64_t>{0, 0, 3}), (std::vector<uint64_t>{silent.sent, silent.dropped, silent.stillQueued}));

  answering = true;
  const TavloFlushResult done = agent->flush(10);
  EXPECT_EQ((std::vector<uint64_t>{3, 0, 0}), (std::vector<uint64_t>{done.sent, done.dropped, done.stillQueued}));
  EXPECT_EQ("q3 s3", countsOf(1));

  goOffline();
  agent->addRequestToQueue(streamingRequest("offline"));
  const TavloFlushResult offline = agent->flush(10);
  EXPECT_EQ((std::vector<uint64_t>{0, 0, 1}),
            (std::vector<uint64_t>{offline.sent, offline.dropped, offline.stillQueued}));
}

}  // namespace
