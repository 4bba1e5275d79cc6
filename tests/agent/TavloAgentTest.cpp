#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "agent/TavloSentJournal.h"
#include "request/TavloClearCache.h"
#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"
#include "support/TavloAgentFixture.h"
#include "support/TavloGatedFileSystem.h"
#include "tavlo/testkit/TavloScriptedHttpClient.h"
#include "tavlo/TavloVersion.h"

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
  EXPECT_EQ((TavloHttpHeaders{{"User-Agent", "TestApp/1.2.3 Tavlo SDK v" TAVLO_VERSION_STRING " apple tv"}}), requests[1].headers);
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

TEST_F(TavloAgentTest, AThrowingHttpClientCountsAsNoAnswerAndTheLoopGoesOn) {
  bool thrown = false;
  test.http->setHandler([&](const TavloHttpRequest& request) {
    if (request.url.find("/m/web/") != std::string::npos && !std::exchange(thrown, true)) {
      throw std::runtime_error("socket\ngone");
    }
    return TavloScriptedHttpClient::answer(200, authAnswer);
  });
  agent->addRequestToQueue(audienceRequest("first"));
  settle();
  EXPECT_TRUE(test.logSink->contains("(ERROR) : The HTTP client threw (socket\\ngone); the request is kept"));
  EXPECT_EQ(1u, agent->TEST_queue().size());
  test.clock->advance(60);
  agent->applicationWillEnterForeground();
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty()) << "the send loop survived the throw";
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

TEST_F(TavloAgentTest, AHitThatCannotBeSentNeverHoldsUpTheOnesBehindIt) {
  goOffline();
  agent->addRequestToQueue(streamingRequest("malformed"));
  agent->addRequestToQueue(streamingRequest("fine"));
  std::string huge(TavloAgent::maximumHitBytes, 'x');
  agent->addRequestToQueue(streamingRequest(huge));
  settle();
  EXPECT_EQ((std::vector<std::string>{"malformed", "fine"}), levelsOf(agent->TEST_queue()))
      << "a hit too large to send never enters the queue";
  EXPECT_TRUE(test.logSink->contains("bytes of parameters, more than the 16384 a hit may carry; it is dropped"));

  test.http->setHandler([](const TavloHttpRequest& request) {
    return request.url.find("c=malformed") != std::string::npos ? TavloScriptedHttpClient::invalidRequest()
                                                                 : TavloScriptedHttpClient::answer(200);
  });
  goOnline();
  EXPECT_TRUE(agent->TEST_queue().empty());
  EXPECT_EQ(2u, collectionURLs(*test.http).size()) << "no retry of the malformed one";
  const auto lines = test.logSink->lines();
  const auto malformed = [&](const std::string& outcome) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.find(outcome) != std::string::npos && line.find("c = malformed;") != std::string::npos &&
             line.find("hote http://127.0.0.1:1/m/web/123") != std::string::npos &&
             line.find("m_ntwk = Wifi;") != std::string::npos;
    });
  };
  EXPECT_EQ(1, malformed("(ERROR) : Request \"serial 123 - request type streaming"));
  EXPECT_EQ(1, malformed("was not sent because of invalid parameters"));
  EXPECT_EQ(1, malformed("handling done")) << "lines after the attempt describe the request as it was sent";
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
  // The network is back before the agent hears of it, and a new hit wakes the send loop.
  test.reachability->setFlags(TavloReachabilityFlagReachable);
  agent->addRequestToQueue(audienceRequest("audience"));
  settle();
  EXPECT_EQ(std::vector<std::string>{}, collectionURLs(*test.http)) << "sent before the return's purge";
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
  /// The levels the queue file holds now, markers as "<marker>".
  std::vector<std::string> levelsInFile() {
    std::string bytes;
    if (test.files->readFile(queuePath(), bytes, TavloKeyedUnarchiver::maxArchiveBytes)) return {};
    const auto objects = TavloKeyedUnarchiver::unarchivedArrayWithData(bytes, TavloRecordClasses());
    if (!objects) return {"<damaged>"};
    std::deque<std::shared_ptr<TavloRequest>> requests;
    for (const auto& object : *objects) requests.push_back(std::dynamic_pointer_cast<TavloRequest>(object));
    return levelsOf(requests);
  }
};

TEST_F(TavloAgentFileTest, ShutdownKeepsInTheFileEveryHitHandedOverBeforeIt) {
  for (int run = 0; run < 20; ++run) {
    test.reachability->setFlags(0);
    startAgent();
    std::vector<std::string> expected;
    for (int i = 0; i < 300; ++i) {
      expected.push_back(std::to_string(run) + "-" + std::to_string(i));
      agent->addRequestToQueue(streamingRequest(expected.back()));
    }
    agent->shutdown();
    ASSERT_EQ(expected, levelsInFile()) << "run " << run;
    std::filesystem::remove(queuePath());
  }
}

TEST_F(TavloAgentFileTest, AProcessKilledAtAnySendResendsOnlyTheRequestInFlight) {
  goOffline();
  for (int i = 0; i < 20; ++i) agent->addRequestToQueue(streamingRequest(std::to_string(i)));
  settle();
  // At each send, the files as a process killed right then would leave them.
  int sends = 0;
  test.http->setHandler([&](const TavloHttpRequest& request) {
    if (request.url.find("/m/web/") == std::string::npos) return TavloScriptedHttpClient::answer(404);
    const std::string killed = test.directory->path() + "/killed/" + std::to_string(sends++) + "/TestApp/TavloCache/";
    std::filesystem::create_directories(killed);
    // The journal before the file: a save in between then shows as a journal of another
    // file, as a kill at that moment would leave it, never as a file missing its journal.
    std::error_code ignored;
    std::filesystem::copy(TavloSentJournal::pathFor(queuePath()), killed + "requests.ser.sent", ignored);
    std::filesystem::copy(queuePath(), killed + "requests.ser", ignored);
    if (sends == 11) {
      // A hit handed over mid-drain rewrites the file: later removals go to a new journal.
      agent->addRequestToQueue(streamingRequest("new"));
      agent->TEST_waitForHandOver();
    }
    return TavloScriptedHttpClient::answer(200);
  });
  goOnline();  // streaming hits only: the return drops none
  ASSERT_EQ(21, sends);
  test.reachability->setFlags(0);
  for (int i = 0; i < 21; ++i) {
    TavloPlatform restarted = test.platform;
    restarted.files = std::make_shared<TavloPosixFileSystem>(test.directory->path() + "/killed/" + std::to_string(i));
    auto next = TavloAgent::make(restarted, nullptr, std::make_shared<TavloNotificationCenter>());
    ASSERT_TRUE(next->TEST_waitForHandOver());
    const auto levels = levelsOf(next->TEST_queue());
    next->shutdown();
    ASSERT_EQ((i <= 10 ? 21u : 22u) - i, levels.size()) << "killed while sending " << i;
    EXPECT_EQ(i < 20 ? std::to_string(i) : "new", levels.front()) << "only the request in flight may be sent again";
  }
  agent->shutdown();
  startAgent();
  EXPECT_TRUE(agent->TEST_queue().empty()) << "the file and its journal say every hit was sent";
}

TEST_F(TavloAgentFileTest, TheSentJournalCountsOnlyForItsOwnFile) {
  const std::string file = TavloKeyedArchiver::archivedDataWithRootArray(
      {streamingRequest("s0"), audienceRequest("a1"), streamingRequest("s2"), streamingRequest("s3")});
  const std::string mine = TavloSentJournal::header(TavloSentJournal::fingerprint(file));
  struct Case {
    const char* name;
    std::string journal;
    std::vector<std::string> loaded;
  };
  const Case cases[] = {
      {"positions of this file", mine + TavloSentJournal::entry(0) + TavloSentJournal::entry(2),
       {"s3", "<marker>"}},
      {"a torn last entry, a repeat and a position past the end", mine + TavloSentJournal::entry(0) +
           TavloSentJournal::entry(0) + TavloSentJournal::entry(9) + std::string("\x02\x00", 2),
       {"s2", "s3", "<marker>"}},
      {"another file's journal (a crash right after a save)",
       TavloSentJournal::header(TavloSentJournal::fingerprint("older")) + TavloSentJournal::entry(0),
       {"s0", "s2", "s3", "<marker>"}},
      {"not a journal", "garbage", {"s0", "s2", "s3", "<marker>"}},
  };
  for (const Case& c : cases) {
    writeQueueBytes(file);
    std::ofstream(TavloSentJournal::pathFor(queuePath()), std::ios::binary) << c.journal;
    test.reachability->setFlags(0);
    startAgent();
    EXPECT_EQ(c.loaded, levelsOf(agent->TEST_queue())) << c.name;
  }
}

TEST_F(TavloAgentFileTest, ALoneHitThatCanGoAtOnceIsWrittenOnlyIfItsFirstAttemptDoesNotDeliverIt) {
  struct Case {
    const char* name;
    bool online;
    TavloHttpResponse answer;
    bool written;
    std::vector<std::string> inFile;
  };
  const Case cases[] = {
      {"delivered", true, TavloScriptedHttpClient::answer(200), false, {}},
      {"answered with another status: dropped", true, TavloScriptedHttpClient::answer(500), false, {}},
      {"no answer: kept for the retry", true, TavloScriptedHttpClient::noResponse(), true, {"lone"}},
      {"offline: cannot go at once", false, TavloScriptedHttpClient::answer(200), true, {"lone"}},
  };
  for (const Case& c : cases) {
    agent->shutdown();
    std::filesystem::remove_all(test.directory->path() + "/TestApp");
    test.reachability->setFlags(c.online ? uint32_t{TavloReachabilityFlagReachable} : 0u);
    test.http->setHandler([&](const TavloHttpRequest&) { return c.answer; });
    startAgent();
    agent->addRequestToQueue(streamingRequest("lone"));
    settle();
    EXPECT_EQ(c.written, std::filesystem::exists(queuePath())) << c.name;
    EXPECT_EQ(c.inFile, levelsInFile()) << c.name;
  }
  // Behind a hit already written, a new one is written before it goes, as ever.
  agent->addRequestToQueue(streamingRequest("second"));
  ASSERT_TRUE(agent->TEST_waitForHandOver());
  EXPECT_EQ((std::vector<std::string>{"lone", "second"}), levelsInFile());
}

// Holds the sending thread inside one exchange until the test lets it go.
struct TavloHeldExchange {
  std::promise<void> entered, release;
  void hold() {
    entered.set_value();
    release.get_future().wait();
  }
};

TEST_F(TavloAgentFileTest, HitsQueuedDuringAnExchangeReachTheFileAtOnceAndTakeTheVisitItOpens) {
  // The first hit's authorisation and then its sending are held. What is handed over
  // meanwhile is in the queue and the file at once, and is authorised as if it had
  // waited for the exchange: the stop renews the visit the exchange opened, so the hits
  // before it share that visit and only the hit after it opens another.
  TavloHeldExchange authorising, sending;
  int visits = 0;
  test.http->setHandler([&](const TavloHttpRequest& request) {
    if (request.url.find("/m/web/") == std::string::npos) {
      if (++visits == 1) authorising.hold();
      return TavloScriptedHttpClient::answer(200, "access=full|host=http://collect.test/m/web/|cmsVI=" +
                                                      std::to_string(visits));
    }
    if (request.url.find("c=first") != std::string::npos) sending.hold();
    return TavloScriptedHttpClient::answer(200);
  });
  const auto stop = streamingRequest("stop");
  stop->setShouldRenewSessionAfter(true);

  agent->addRequestToQueue(streamingRequest("first"));
  authorising.entered.get_future().wait();
  agent->addRequestToQueue(streamingRequest("during the authorisation"));
  ASSERT_TRUE(agent->TEST_waitForHandOver());
  EXPECT_EQ((std::vector<std::string>{"first", "during the authorisation"}), levelsInFile());
  authorising.release.set_value();
  sending.entered.get_future().wait();
  agent->addRequestToQueue(stop);
  ASSERT_TRUE(agent->TEST_waitForHandOver());
  EXPECT_EQ((std::vector<std::string>{"first", "during the authorisation", "stop"}), levelsInFile());
  sending.release.set_value();
  settle();
  agent->addRequestToQueue(streamingRequest("after"));
  settle();

  std::vector<std::string> visitsSent;
  for (const std::string& url : collectionURLs(*test.http)) {
    const size_t visit = url.find("cmsVI=") + 6;
    visitsSent.push_back(url.substr(visit, url.find('&', visit) - visit));
  }
  EXPECT_EQ((std::vector<std::string>{"1", "1", "1", "2"}), visitsSent);
}

TEST_F(TavloAgentFileTest, TheFileIsReadOffTheCallersThreadAheadOfEveryHit) {
  writeQueueFile({streamingRequest("old")});
  auto gated = std::make_shared<TavloGatedFileSystem>(test.directory->path());
  test.platform.files = gated;
  test.reachability->setFlags(0);
  agent = TavloAgent::make(test.platform, nullptr, center);  // returns while the read waits
  agent->addRequestToQueue(streamingRequest("new"));
  for (int i = 0; i < 1000; ++i) agent->addRequestToQueue(audienceRequest("flood"));
  gated->opener.set_value();
  settle();
  const auto levels = levelsOf(agent->TEST_queue());
  EXPECT_EQ(501u, agent->droppedAtHandOverCount()) << "the hand-over holds at most 500 waiting hits";
  ASSERT_EQ(500u, levels.size());
  EXPECT_EQ("flood", levels.front()) << "the newest 500 stay, as the queue's cap would keep them";
  EXPECT_TRUE(test.logSink->contains("(WARNING) : 501 hit(s) came faster than the queue could take them"));
}

TEST_F(TavloAgentFileTest, AFullFileLoadsWholeBeforeTheFirstNewHit) {
  std::vector<std::shared_ptr<TavloCodable>> stored;
  for (int i = 0; i < 600; ++i) stored.push_back(streamingRequest("old" + std::to_string(i)));
  writeQueueFile(stored);
  test.reachability->setFlags(0);
  startAgent();
  EXPECT_EQ(601u, agent->TEST_queue().size()) << "loading keeps every request the file holds, then the marker";
  agent->addRequestToQueue(streamingRequest("new"));
  settle();
  const auto levels = levelsOf(agent->TEST_queue());
  ASSERT_EQ(601u, levels.size()) << "an insertion drops one oldest entry";
  EXPECT_EQ("old1", levels.front());
  EXPECT_EQ((std::vector<std::string>{"<marker>", "new"}), std::vector<std::string>(levels.end() - 2, levels.end()));
}

TEST_F(TavloAgentFileTest, AQueueThatCannotBeKeptInAFileSaysWhyAndLivesInMemory) {
  struct Case {
    const char* name;
    std::string dataDirectory;
    const char* line;
  };
  test.directory->writeFile("a-file", "x");
  const Case cases[] = {
      {"no data directory", "", "(ERROR) : No data directory for the request queue"},
      {"a file in the way", test.directory->path() + "/a-file", "(Not a directory); requests are kept in memory only"},
  };
  for (const Case& c : cases) {
    agent->shutdown();
    test.logSink->clear();
    test.platform.files = std::make_shared<TavloPosixFileSystem>(c.dataDirectory);
    test.reachability->setFlags(0);
    startAgent();
    agent->addRequestToQueue(streamingRequest("kept"));
    settle();
    EXPECT_EQ(1u, agent->TEST_queue().size()) << c.name;
    EXPECT_EQ(1u, test.logSink->count(c.line)) << c.name;
  }
  EXPECT_FALSE(std::filesystem::exists("/TestApp")) << "never a path at the root";
}

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

  writeQueueFile({audienceRequest("a1"), audienceRequest("a2")});
  test.reachability->setFlags(0);
  startAgent();
  EXPECT_TRUE(agent->TEST_queue().empty()) << "a file of audience hits only gives no marker either";
}

TEST_F(TavloAgentFileTest, ADamagedFileGivesAnEmptyQueueAndIsReplacedAtTheNextSave) {
  // A save killed half way leaves a temporary beside the file: the next start removes it,
  // and only it.
  test.directory->writeFile("TestApp/TavloCache/.requests.ser.tmp-99999-0", "half a queue");
  test.directory->writeFile("TestApp/TavloCache/other.txt", "not ours");
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
  const std::string folder = test.directory->path() + "/TestApp/TavloCache/";
  EXPECT_FALSE(std::filesystem::exists(folder + ".requests.ser.tmp-99999-0"));
  EXPECT_TRUE(std::filesystem::exists(folder + "other.txt"));
}

TEST_F(TavloAgentFileTest, ASecondAgentOfTheSameApplicationKeepsItsQueueInMemory) {
  goOffline();
  auto second = TavloAgent::make(test.platform, nullptr, std::make_shared<TavloNotificationCenter>());
  ASSERT_TRUE(second->TEST_waitForHandOver());
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

}  // namespace
