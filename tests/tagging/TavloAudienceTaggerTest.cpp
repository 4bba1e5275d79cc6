#include <future>
#include <thread>

#include "support/TavloAgentFixture.h"
#include "support/TavloFixedAdvertisingIdProvider.h"
#include "support/TavloFixedDeviceInfo.h"
#include "identity/TavloTaggerID.h"
#include "tavlo/TavloAudienceTagger.h"
#include "tagging/TavloAudienceTaggerImpl.h"

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

  std::shared_ptr<TavloRequest> onlyQueued() {
    settle();
    const auto queue = agent->TEST_queue();
    EXPECT_EQ(1u, queue.size());
    return queue.empty() ? nullptr : queue.front();
  }
};

TEST_F(TavloAudienceTaggerTest, AHitIsTheDefaultsPlusTheGivenLevels) {
  tagger("123", "42")->sendHitWithLevel1("home");
  const auto request = onlyQueued();
  ASSERT_TRUE(request);
  TavloParameters expected = *agent->defaultParametersForRequest();
  expected["n"] = request->parameters()->at("n");
  expected["c"] = "home";
  expected["crmid"] = "42";
  EXPECT_EQ(expected, *request->parameters());
  EXPECT_EQ(TavloRequestTypeAudience, request->requestType());
  EXPECT_EQ(TavloSendingModeLive, request->sendingMode());
  EXPECT_EQ(TavloRequestStatusNew, request->status());
  EXPECT_EQ("123", request->serial());
  EXPECT_TRUE(request->taggerID()->isEqual(TavloTaggerID("123", TavloTaggerID::kAudiencePartialID, false)));
  EXPECT_EQ(test.clock->now(), request->creationDate());
}

TEST_F(TavloAudienceTaggerTest, FreeLevelsAndMediaAreCutAt256CodeUnitsButLevelOneIsNot) {
  const std::string long300(300, 'x');
  auto t = tagger();
  t->setNewLevel1(long300);
  t->setNewLevel11("eleven");
  t->setMediaChannel(long300);
  t->setNetMeasurement("");  // an empty value is never sent
  t->sendHitWithLevel1(long300, "p2", "", std::nullopt);
  const auto parameters = onlyQueued()->parameters();
  EXPECT_EQ(long300, parameters->at("c"));
  EXPECT_EQ(std::string(256, 'x'), parameters->at("ml1"));
  EXPECT_EQ("eleven", parameters->at("ml11"));
  EXPECT_EQ(std::string(256, 'x'), parameters->at("msCh"));
  EXPECT_EQ("p2", parameters->at("p"));
  for (const char* absent : {"l3", "l4", "miCh", "ml2", "did", "crmid"}) EXPECT_EQ(0u, parameters->count(absent)) << absent;
}

TEST_F(TavloAudienceTaggerTest, TheAdvertisingIdentifierIsSentOnlyWhenAskedAndAvailable) {
  struct Case {
    bool useIDFA;
    TavloString provided;
    TavloString did;
  };
  const Case cases[] = {
      {false, "6d92078a-8246-4ba4-ae5b-76104861e7dc", std::nullopt},
      {true, "6d92078a-8246-4ba4-ae5b-76104861e7dc", "6D92078A-8246-4BA4-AE5B-76104861E7DC"},
      {true, "", std::nullopt},
      {true, std::nullopt, std::nullopt},
  };
  int serial = 0;
  for (const Case& c : cases) {
    test.platform.advertisingIdProvider = std::make_shared<TavloFixedAdvertisingIdProvider>(c.provided);
    startAgent();
    goOffline();
    auto t = tagger(std::to_string(++serial));
    t->setUseIDFA(c.useIDFA);
    t->sendHitWithLevel1("x");
    const auto request = onlyQueued();
    ASSERT_TRUE(request);
    const auto did = request->parameters()->find("did");
    EXPECT_EQ(c.did, did == request->parameters()->end() ? TavloString() : TavloString(did->second))
        << "useIDFA " << c.useIDFA << " provided " << c.provided.value_or("(nil)");
  }
}

// The agent makes the dictionary on its own thread, later: what the hit carries must
// still be what the call and the tagger said at the time of the call.
TEST_F(TavloAudienceTaggerTest, AHitCarriesWhatTheTaggerHeldWhenItWasSentNotWhenItIsMade) {
  // Holds the agent's handler inside the first hit's making until the test lets it go.
  struct GatedDeviceInfo : TavloFixedDeviceInfo {
    std::shared_future<void> open;
    std::optional<TavloScreen> mainScreen() override {
      open.wait();
      return TavloFixedDeviceInfo::mainScreen();
    }
  };
  std::promise<void> gate;
  auto deviceInfo = std::make_shared<GatedDeviceInfo>();
  deviceInfo->open = gate.get_future().share();
  test.platform.deviceInfo = deviceInfo;
  startAgent();
  goOffline();

  auto t = tagger("123", "42");
  t->setNewLevel1("then");
  t->setMediaChannel("then");
  std::string level = "home";
  t->sendHitWithLevel1(level, "then");
  level = "changed";
  t->setNewLevel1("now");
  t->setMediaChannel(std::nullopt);
  t->setNewLevel2("now");
  t->setUseIDFA(true);
  gate.set_value();

  const auto parameters = onlyQueued()->parameters();
  const TavloParameters expected{{"c", "home"}, {"p", "then"}, {"crmid", "42"}, {"ml1", "then"}, {"msCh", "then"}};
  for (const auto& [key, value] : expected) {
    EXPECT_EQ(value, parameters->count(key) ? parameters->at(key) : "(absent)") << key;
  }
  for (const char* absent : {"ml2", "did"}) EXPECT_EQ(0u, parameters->count(absent)) << absent;
}

TEST_F(TavloAudienceTaggerTest, ACachedRefusalDropsTheHitSilently) {
  auto t = tagger();
  for (int32_t mode : {TavloAccessModeDenied, TavloAccessModeRestricted}) {
    auto access = TavloAccess::TavloAccessWithSerial("123", mode, "http://c.test/m/web/");
    access->hitSuccessfullySent();
    agent->authManager()->setAuthToCache(TavloAuth::TavloAuthWithSession(nullptr, access, false), *TavloTaggerIDOf(*t));
    test.logSink->clear();
    t->sendHitWithLevel1("dropped");
    settle();
    EXPECT_TRUE(agent->TEST_queue().empty()) << "mode " << mode;
    EXPECT_TRUE(test.logSink->lines().empty()) << "mode " << mode;
  }
}

TEST_F(TavloAudienceTaggerTest, HitsWithoutASerialAreDroppedWithAnErrorLine) {
  for (const TavloString& serial : {TavloString(), TavloString("")}) {
    test.logSink->clear();
    tagger(serial)->sendHitWithLevel1(std::nullopt);
    settle();
    EXPECT_TRUE(agent->TEST_queue().empty());
    EXPECT_TRUE(test.logSink->contains("(ERROR) : TavloAudienceTagger - Hit dropped: this tagger has no serial"));
  }
}

TEST_F(TavloAudienceTaggerTest, SerialsThatWouldBendTheAddressesDropEveryHitAfterOneErrorLine) {
  for (const std::string serial : {"S2/../../admin", "S4?x=1&y=2", "S5#frag", "..", "S\n(ERROR) : forged"}) {
    test.logSink->clear();
    tagger(serial)->sendHitWithLevel1("a");
    tagger(serial)->sendHitWithLevel1("b");
    settle();
    EXPECT_TRUE(agent->TEST_queue().empty()) << serial;
    EXPECT_EQ(1u, test.logSink->count("(ERROR)")) << serial << ": one error line per tagger, none per hit";
    EXPECT_EQ(1u, test.logSink->count("(ERROR) : TavloAudienceTagger - Serial \"")) << serial;
    for (const std::string& line : test.logSink->lines()) EXPECT_EQ(std::string::npos, line.find('\n')) << line;
  }
}

TEST_F(TavloAudienceTaggerTest, TheFactoryReturnsTheRegisteredTagger) {
  EXPECT_EQ(tagger("s", std::nullopt), tagger("s", std::nullopt));
  const auto a = tagger("s", "a");
  const auto b = tagger("s", "b");
  EXPECT_NE(a, b);
  EXPECT_TRUE(TavloTaggerIDOf(*a)->isEqual(*TavloTaggerIDOf(*b)));
  EXPECT_NE(tagger("s", std::nullopt), tagger("s", "")) << "nil and empty customer data are two taggers";
  EXPECT_EQ(2, a->loggingMode());
  EXPECT_FALSE(a->canSend());
}

TEST_F(TavloAudienceTaggerTest, ConcurrentFactoryCallsAgreeOnOneTagger) {
  std::vector<std::shared_ptr<TavloAudienceTagger>> got(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < got.size(); ++i) threads.emplace_back([&, i] { got[i] = tagger("race", "c"); });
  for (auto& thread : threads) thread.join();
  for (const auto& each : got) EXPECT_EQ(got[0], each);
  EXPECT_EQ(1u, test.logSink->count("A new TavloAudienceTagger was created"));
}

TEST_F(TavloAudienceTaggerTest, TenThousandHitsFromEightThreadsLeaveTheNewestFiveHundred) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      auto mine = tagger("load", std::to_string(t));
      for (int i = 0; i < 1250; ++i) mine->sendHitWithLevel1(std::to_string(t) + "-" + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  settle();
  const auto queue = agent->TEST_queue();
  ASSERT_EQ(500u, queue.size());
  // Each thread's hits stay in its own order: the queue is first in, first out.
  std::map<std::string, int> lastSeen;
  for (const auto& request : queue) {
    const std::string level = request->parameters()->at("c");
    const std::string thread = level.substr(0, level.find('-'));
    const int index = std::stoi(level.substr(level.find('-') + 1));
    EXPECT_LT(lastSeen.count(thread) ? lastSeen[thread] : -1, index) << level;
    lastSeen[thread] = index;
  }
}

TEST(TavloAudienceTaggerAddParam, StoresNonEmptyValuesCutInUTF16Units) {
  const std::string clef = "\xF0\x9D\x84\x9E";
  struct Case {
    TavloString value;
    std::string key;
    size_t limit;
    TavloString stored;  // nil: nothing stored, the default stays
  };
  const Case cases[] = {
      {"value", "k", 0, "value"},     {std::nullopt, "k", 0, "default"}, {"", "k", 0, "default"},
      {"value", "", 0, std::nullopt}, {"abcdef", "k", 3, "abc"},         {"abc", "k", 3, "abc"},
      {clef + clef, "k", 3, clef + "\xEF\xBF\xBD"},
  };
  for (const Case& c : cases) {
    TavloParameters dictionary{{"k", "default"}};
    TavloAudienceTagger::addParam(c.value, c.key, &dictionary, c.limit);
    const auto found = dictionary.find(c.key);
    EXPECT_EQ(c.stored, found == dictionary.end() ? TavloString() : TavloString(found->second))
        << c.value.value_or("(nil)") << " under '" << c.key << "'";
  }
  TavloAudienceTagger::addParam("v", "k", nullptr, 0);  // a null dictionary is ignored
}

}  // namespace
