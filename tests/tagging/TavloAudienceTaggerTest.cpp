#include <future>
#include <map>
#include <thread>

#include "identity/TavloTaggerID.h"
#include "platform/TavloLogger.h"
#include "support/TavloAgentFixture.h"
#include "support/TavloFixedAdvertisingIdProvider.h"
#include "support/TavloFixedDeviceInfo.h"
#include "tagging/TavloAudienceTaggerImpl.h"
#include "tavlo/TavloAudienceTagger.h"

namespace {

// Hits are queued while the network is down, so the test can read them in the queue.
class TavloAudienceTaggerTest : public TavloAgentTest {
 protected:
  void SetUp() override {
    TavloAgentTest::SetUp();
    goOffline();
  }

  std::shared_ptr<TavloAudienceTagger> tagger(TavloString serial = "123", TavloString customerData = std::nullopt) {
    return TavloAudienceTaggerOnAgent(agent, std::move(serial), std::move(customerData));
  }
};

// The agent's defaults, the call's levels, then the tagger's customer data, free levels,
// media and advertising identifier (upper case): those cut at 256 UTF-16 units, level 1
// never, empty values never. Kind and mode show in TavloAudienceIntegrationTest's URL.
TEST_F(TavloAudienceTaggerTest, AHitIsTheDefaultsThenTheLevelsOfTheCallAndOfTheTagger) {
  test.platform.advertisingIdProvider =
      std::make_shared<TavloFixedAdvertisingIdProvider>("6d92078a-8246-4ba4-ae5b-76104861e7dc");
  startAgent();
  goOffline();
  const std::string long300(300, 'x');
  auto t = tagger("123", "42");
  t->setNewLevel1("l1");
  t->setNewLevel11("l11");
  t->setNewLevel2(long300);
  t->setMediaChannel(long300);
  t->setNetMeasurement("");
  t->setUseIDFA(true);
  t->sendHitWithLevel1(long300, "p2", "", std::nullopt);
  settle();
  ASSERT_EQ(1u, agent->TEST_queue().size());
  const auto request = agent->TEST_queue().front();
  TavloParameters expected = *agent->defaultParametersForRequest();
  expected["n"] = request->parameters()->at("n");  // the hit's own number
  for (const auto& [key, value] : TavloParameters{{"c", long300}, {"p", "p2"}, {"crmid", "42"}, {"ml1", "l1"},
                                                   {"ml2", std::string(256, 'x')}, {"ml11", "l11"},
                                                   {"msCh", std::string(256, 'x')},
                                                   {"did", "6D92078A-8246-4BA4-AE5B-76104861E7DC"}}) {
    expected[key] = value;
  }
  EXPECT_EQ(expected, *request->parameters());
  EXPECT_EQ("123", request->serial());
  EXPECT_TRUE(request->taggerID()->isEqual(TavloTaggerID("123", TavloTaggerID::kAudiencePartialID, false)));
  EXPECT_EQ(test.clock->now(), request->creationDate());
}

// The agent makes the dictionary on its own thread, later: what the hit carries must
// still be what the call and the tagger said at the time of the call.
TEST_F(TavloAudienceTaggerTest, AHitCarriesWhatTheTaggerHeldWhenItWasSentNotWhenItIsMade) {
  // Holds the agent's handler inside the first hit's making until the test lets it go.
  struct GatedDeviceInfo : TavloFixedDeviceInfo {
    explicit GatedDeviceInfo(std::shared_future<void> open) : open(std::move(open)) {}
    std::shared_future<void> open;
    std::optional<TavloScreen> mainScreen() override {
      open.wait();
      return TavloFixedDeviceInfo::mainScreen();
    }
  };
  std::promise<void> gate;
  test.platform.deviceInfo = std::make_shared<GatedDeviceInfo>(gate.get_future().share());
  test.platform.advertisingIdProvider = std::make_shared<TavloFixedAdvertisingIdProvider>("an-id");
  startAgent();
  goOffline();

  auto t = tagger("123", "42");
  t->setNewLevel1("then");
  t->setMediaChannel("then");
  t->sendHitWithLevel1("home", "then");
  t->setNewLevel1("now");
  t->setMediaChannel(std::nullopt);
  t->setNewLevel2("now");
  t->setUseIDFA(true);
  gate.set_value();
  settle();
  ASSERT_EQ(1u, agent->TEST_queue().size());
  const auto parameters = agent->TEST_queue().front()->parameters();
  for (const auto& [key, value] : std::map<std::string, std::string>{
           {"c", "home"}, {"p", "then"}, {"ml1", "then"}, {"msCh", "then"}, {"ml2", "(absent)"}, {"did", "(absent)"}}) {
    EXPECT_EQ(value, parameters->count(key) ? parameters->at(key) : "(absent)") << key;
  }
}

// Refused hits never reach the queue: silently under a cached refusal; with an error line
// per hit from a tagger without a serial, and one per tagger whose serial would bend the
// addresses, each on its own line.
TEST_F(TavloAudienceTaggerTest, RefusedHitsNeverReachTheQueue) {
  auto t = tagger();
  auto access = TavloAccess::TavloAccessWithSerial("123", TavloAccessModeRestricted, "http://c.test/m/web/");
  access->hitSuccessfullySent();  // a restricted access's one audience hit is spent
  agent->authManager()->setAuthToCache(TavloAuth::TavloAuthWithSession(nullptr, access, false), *TavloTaggerIDOf(*t));
  test.logSink->clear();
  t->sendHitWithLevel1("dropped");
  settle();
  EXPECT_TRUE(agent->TEST_queue().empty() && test.logSink->lines().empty());
  const char* noSerial = "(ERROR) : TavloAudienceTagger - Hit dropped: this tagger has no serial";
  const std::tuple<TavloString, std::string, size_t> cases[] = {
      {std::nullopt, noSerial, 2}, {"", noSerial, 2},
      {"S2/../../admin", "(ERROR) : TavloAudienceTagger - Serial \"S2/../../admin\" is not usable", 1},
      {"S\n(ERROR) : forged", "(ERROR) : TavloAudienceTagger - Serial \"S\\n(ERROR) : forged\" is not usable", 1},
  };
  for (const auto& [serial, line, lines] : cases) {
    test.logSink->clear();
    tagger(serial)->sendHitWithLevel1("a");
    tagger(serial)->sendHitWithLevel1("b");
    settle();
    EXPECT_TRUE(agent->TEST_queue().empty()) << line;
    EXPECT_EQ(lines, test.logSink->count(line));
    EXPECT_EQ(lines, test.logSink->count("(ERROR)")) << line << ": none but these, each on its own line";
  }
}

// The threshold is the process's: the last tagger set decides what every tagger prints,
// and making a tagger leaves it as the application set it.
TEST_F(TavloAudienceTaggerTest, TheLastTaggerSetDecidesWhatAllPrintAndMakingOneChangesNothing) {
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeWarning);
  const auto first = tagger("a");
  EXPECT_EQ(TavloLoggingModeWarning, TavloLogger::sharedLogger().loggingMode());
  tagger("b")->setLoggingMode(TavloLoggingModeInfo);
  first->setLoggingMode(3);  // above every level
  TavloLogger::log("error line", TavloLoggingModeError);
  EXPECT_FALSE(test.logSink->contains("error line"));
}

// Eight threads ask for the same tagger at once and send through it: one tagger, and the
// queue keeps the newest 500 hits, each thread's in the order sent.
TEST_F(TavloAudienceTaggerTest, OneTaggerPerSerialAndCustomerDataEvenForRacingThreads) {
  EXPECT_NE(tagger("s", std::nullopt), tagger("s", "")) << "nil and empty customer data are two taggers";
  EXPECT_TRUE(TavloTaggerIDOf(*tagger("s", "a"))->isEqual(*TavloTaggerIDOf(*tagger("s", "b")))) << "one authorisation";

  test.logSink->clear();
  std::vector<std::shared_ptr<TavloAudienceTagger>> got(8);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < got.size(); ++t) {
    threads.emplace_back([&, t] {
      got[t] = tagger("load", "c");
      for (int i = 0; i < 1250; ++i) got[t]->sendHitWithLevel1(std::to_string(t) + "-" + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& each : got) EXPECT_EQ(got[0], each);
  EXPECT_EQ(1u, test.logSink->count("A new TavloAudienceTagger was created"));
  settle();
  const auto queue = agent->TEST_queue();
  ASSERT_EQ(500u, queue.size());
  std::map<std::string, int> lastSeen;
  for (const auto& request : queue) {
    const std::string level = request->parameters()->at("c");
    const std::string thread = level.substr(0, level.find('-'));
    const int index = std::stoi(level.substr(level.find('-') + 1));
    EXPECT_LT(lastSeen.count(thread) ? lastSeen[thread] : -1, index) << level;
    lastSeen[thread] = index;
  }
}

}  // namespace
