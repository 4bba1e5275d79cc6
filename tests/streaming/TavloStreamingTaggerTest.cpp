// The streaming tagger's set-up, events and hits, on fakes and in virtual time.
#include <memory>
#include <string>
#include <vector>

#include "streaming/TavloStreamingFixture.h"
#include "support/TavloFixedAdvertisingIdProvider.h"
#include "tagging/TavloTaggerID.h"

namespace {

using TavloStreamingTaggerTest = TavloStreamingTest;

class TavloStreamingEventsTest : public TavloStreamingTest {
 protected:
  // Notifies `event` at `position`, then lets two seconds pass: events two seconds apart
  // never meet the throttle.
  void notify(TavloStreamingTagger& t, TavloStreamingEvent event,
              int64_t position = TavloStreamingTaggerUnknownLocation) {
    t.notifyEvent(event, position);
    advanceTo(test.mainQueue->elapsed() + 2);
  }
};

// Set-up.

TEST_F(TavloStreamingTaggerTest, BlankSerialsAndMediaNamesGiveATaggerThatNeverSends) {
  struct Case {
    TavloString serial;
    TavloString mediaName;
    const char* line;
  };
  const Case cases[] = {
      {std::nullopt, "film", "(ERROR) : Init streaming tag failed : serial is mandatory"},
      {"", "film", "(ERROR) : Init streaming tag failed : serial is mandatory"},
      {"   ", "film", "(ERROR) : Init streaming tag failed : serial is mandatory"},
      {"   ", "", "(ERROR) : Init streaming tag failed : serial is mandatory"},
      {"123", std::nullopt, "(ERROR) : Init streaming tag failed : mediaName is mandatory"},
      {"123", "", "(ERROR) : Init streaming tag failed : mediaName is mandatory"},
      {"123", "  ", "(ERROR) : Init streaming tag failed : mediaName is mandatory"},
  };
  for (const Case& c : cases) {
    test.logSink->clear();
    bool configured = false;
    const auto t = tagger(
        TavloStreamingTypeNoPosition, [&](TavloStreamingConfig&) { configured = true; }, c.serial, c.mediaName);
    const std::string label = c.serial.value_or("(nil)") + "/" + c.mediaName.value_or("(nil)");
    ASSERT_TRUE(t) << label;
    EXPECT_FALSE(t->canSend()) << label;
    EXPECT_FALSE(configured) << label << ": the callback is not called for a rejected tagger";
    EXPECT_EQ(std::vector<std::string>{c.line}, test.logSink->lines()) << label;
    EXPECT_FALSE(t->taggerID()) << label;

    t->setSendingMode(TavloSendingModeTimestamped);
    EXPECT_EQ(TavloSendingModeLive, t->sendingMode()) << label << ": the mode of a tagger that cannot send stays";
    for (auto event : {TavloStreamingEventPlay, TavloStreamingEventPause, TavloStreamingEventStop}) {
      t->notifyEvent(event, 10);
      t->notifyEvent(event);
    }
    advanceTo(test.mainQueue->elapsed() + 130);
    EXPECT_EQ(0u, test.mainQueue->pendingCount()) << label << ": no timer was armed";
  }
  EXPECT_TRUE(hits().empty());
}

TEST_F(TavloStreamingTaggerTest, SerialAndMediaNameAreKeptWithTheirBlanks) {
  const auto t = tagger(TavloStreamingTypeNoPosition, nullptr, " 1 2 3 ", " my film ");
  EXPECT_TRUE(t->canSend());
  EXPECT_EQ(" 1 2 3 ", t->serial());
  EXPECT_EQ(" my film ", t->mediaName());
  EXPECT_FALSE(test.logSink->contains("Init streaming tag failed"));
  ASSERT_TRUE(t->taggerID());
  EXPECT_EQ(" 1 2 3 ", t->taggerID()->serial());
  EXPECT_TRUE(t->taggerID()->isStreamTagger());
  EXPECT_EQ(2, t->loggingMode());
  EXPECT_FALSE(t->useIDFA());
}

TEST_F(TavloStreamingTaggerTest, EachTaggerHasAPartialIdentifierOfItsOwn) {
  const auto first = tagger();
  const auto second = tagger();
  const auto rejected = tagger(TavloStreamingTypeNoPosition, nullptr, "");
  const auto third = tagger();
  EXPECT_EQ(0, first->taggerID()->partialID());
  EXPECT_EQ(1, second->taggerID()->partialID());
  EXPECT_EQ(3, third->taggerID()->partialID()) << "a rejected tagger still used up its identifier";
  EXPECT_NE(first, tagger()) << "streaming taggers are never shared";
}

TEST_F(TavloStreamingTaggerTest, TheConfigurationIsCopiedOnceAndTheSettersFollowTheirRules) {
  const auto t = tagger(TavloStreamingTypeNoPosition, [](TavloStreamingConfig& config) {
    config.setLevel1("l1");
    config.setLevel2("l2");
    config.setLevel3("l3");
    config.setLevel4("l4");
    config.setLevel5("l5");
    config.setCustomerData("crm");
    config.setMediaGenre("drama");
    config.setMediaProvider("provider");
  });
  EXPECT_EQ("l1", t->level1());
  EXPECT_EQ("l5", t->level5());
  EXPECT_EQ("crm", t->customerData());
  EXPECT_EQ("drama", t->mediaGenre());
  EXPECT_EQ("provider", t->mediaProvider());
  EXPECT_EQ(TavloStreamingTypeNoPosition, t->streamingType());
  EXPECT_EQ(80, t->mediaVolume());
  EXPECT_EQ(5400, t->mediaLength());

  t->setMediaName("");
  t->setMediaName(std::nullopt);
  EXPECT_EQ("film", t->mediaName()) << "an empty name never replaces the medium's name";
  t->setMediaURL("");
  EXPECT_EQ("http://media.test/film.m3u8", t->mediaURL());
  t->setMediaName("other");
  t->setMediaURL("http://media.test/other");
  t->setMediaGenre("");
  t->setMediaProvider(std::nullopt);
  t->setMediaVolume(-3);
  t->setMediaLength(0);
  EXPECT_EQ("other", t->mediaName());
  EXPECT_EQ("http://media.test/other", t->mediaURL());
  EXPECT_EQ("", t->mediaGenre());
  EXPECT_EQ(std::nullopt, t->mediaProvider());

  t->notifyEvent(TavloStreamingEventPlay);
  const auto sent = hits();
  ASSERT_EQ(1u, sent.size());
  EXPECT_EQ("other", sent[0].at("cmsSN"));
  EXPECT_EQ("-3", sent[0].at("cmsSD"));
  EXPECT_EQ("0", sent[0].at("cmsDU"));
  EXPECT_EQ(0u, sent[0].count("cmsGR")) << "an empty genre is left out";
  EXPECT_EQ(0u, sent[0].count("dom"));
}

TEST_F(TavloStreamingTaggerTest, AConfigurationCallbackThatThrowsKeepsWhatItSetBefore) {
  const auto t = tagger(TavloStreamingTypeNoPosition, [](TavloStreamingConfig& config) {
    config.setLevel1("kept");
    throw std::runtime_error("application bug");
  });
  EXPECT_TRUE(t->canSend());
  EXPECT_EQ("kept", t->level1());
  EXPECT_TRUE(test.logSink->contains("(ERROR) : TavloStreamingTagger - The configuration callback threw"));
}

TEST_F(TavloStreamingTaggerTest, TheModeFollowsTheNetworkAndTheApplicationsChoice) {
  goOffline();
  const auto t = tagger();
  EXPECT_EQ(TavloSendingModeLive, t->sendingMode());
  EXPECT_EQ(TavloSendingModeDisconnected, t->getCurrentMode()) << "made while the network is down";
  goOnline();
  EXPECT_EQ(TavloSendingModeLive, t->getCurrentMode());

  t->setSendingMode(TavloSendingModeTimestamped);
  EXPECT_EQ(TavloSendingModeTimestamped, t->getCurrentMode());
  goOffline();
  EXPECT_EQ(TavloSendingModeDisconnected, t->getCurrentMode());
  EXPECT_EQ(TavloSendingModeTimestamped, t->sendingMode());
  goOnline();

  test.logSink->clear();
  t->setSendingMode(static_cast<TavloSendingMode>(9));
  EXPECT_EQ(TavloSendingModeTimestamped, t->sendingMode());
  EXPECT_TRUE(
      test.logSink->contains("(ERROR) : TavloStreamingTagger - Sending mode 9 is not 0, 1 or 2: the mode stays 0"));
}

TEST_F(TavloStreamingTaggerTest, SettingTheModeReadsTheNetworkAtOnce) {
  const auto t = tagger();
  // The network drops, but the notification has not been delivered yet.
  test.reachability->setFlags(0);
  EXPECT_EQ(TavloSendingModeLive, t->getCurrentMode());
  t->setSendingMode(TavloSendingModeLive);
  EXPECT_EQ(TavloSendingModeDisconnected, t->getCurrentMode());
  test.mainQueue->runUntilIdle();
}

// Hits.

TEST_F(TavloStreamingTaggerTest, AHitCarriesTheDefaultsAndTheWholeStreamingSetWithTheCrosswiseLevels) {
  const auto t = tagger(TavloStreamingTypeNoPosition, [](TavloStreamingConfig& config) {
    config.setLevel1("one");
    config.setLevel2("two");
    config.setLevel3("three");
    config.setLevel4("four");
    config.setLevel5("five");
    config.setCustomerData("crm 42");
    config.setMediaGenre("drama");
    config.setMediaProvider("provider");
  });
  t->setNewLevel1(std::string(300, 'x'));
  t->setNewLevel11("eleven");
  t->setMediaContentId("content");
  t->setMediaDiffMode("live");
  t->setMediaChannel("ch1");
  t->setNetMeasurement("net");
  t->setMediaName(std::string(300, 'n'));
  t->notifyEvent(TavloStreamingEventPlay, 12);
  settle();
  const auto queued = hits();
  ASSERT_EQ(1u, queued.size());
  const TavloParameters& hit = queued[0];
  const TavloParameters expected = {
      {"cmsEV", "state"},
      {"cmsPO", "12"},
      {"cmsOP", "0"},
      {"cmsPS", "5"},
      {"cmsMV", "5"},
      {"cmsSD", "80"},
      {"cmsDU", "5400"},
      {"cmsPL", "TestModel"},
      {"dom", "provider"},
      {"cmsSN", std::string(300, 'n')},
      {"cmsGR", "drama"},
      {"cmsME", "http://media.test/film.m3u8"},
      {"cmsS1", "three"},
      {"cmsS2", "two"},
      {"cmsS3", "one"},
      {"cmsS4", "four"},
      {"cmsS5", "five"},
      {"crmid", "crm 42"},
      {"ml1", std::string(256, 'x')},
      {"ml11", "eleven"},
      {"msCid", "content"},
      {"msDm", "live"},
      {"msCh", "ch1"},
      {"miCh", "net"},
      {"cmsRK", "1"},
      {"cmsVI", "5"},
      {"m_ntwk", "Wifi"},
  };
  for (const auto& [key, value] : expected) {
    ASSERT_EQ(1u, hit.count(key)) << key << " is missing";
    EXPECT_EQ(value, hit.at(key)) << key;
  }
  const auto defaults = agent->defaultParametersForRequest();
  for (const auto& [key, value] : *defaults) {
    if (key != "n") {
      EXPECT_EQ(value, hit.count(key) ? hit.at(key) : "(absent)") << "default " << key;
    }
  }
  EXPECT_EQ(0u, hit.count("did")) << "streaming taggers start without the advertising identifier";
  EXPECT_EQ(0u, hit.count("ml2"));
  EXPECT_EQ(expected.size() + defaults->size(), hit.size())
      << "nothing but the defaults, the streaming set and what the URL adds";
  EXPECT_EQ(0u, test.http->lastRequest().url.find("http://collect.test/m/web/123?"))
      << "live hits go to the access's host";
}

TEST_F(TavloStreamingTaggerTest, TheParameterDumpIsWrittenWhateverTheThreshold) {
  const auto t = tagger();
  t->setLoggingMode(3);  // silences the logger
  test.logSink->clear();
  t->notifyEvent(TavloStreamingEventPlay, 4);
  settle();
  const auto lines = test.logSink->lines();
  std::vector<size_t> rules;
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(std::string::npos, lines[i].find("(INFO)")) << lines[i];
    if (lines[i] == "------------------------------") rules.push_back(i);
  }
  ASSERT_EQ((std::vector<size_t>{rules.empty() ? 0 : rules[0], rules.empty() ? 2 : rules[0] + 2}), rules);
  const std::string& dump = lines[rules[0] + 1];
  EXPECT_EQ(0u, dump.find("0 {\n")) << dump;
  EXPECT_NE(std::string::npos, dump.find("    cmsPL = TestModel;\n")) << "the dump holds what was built until \"did\"";
  EXPECT_NE(std::string::npos, dump.find("    cmsPO = 4;\n")) << dump;
  EXPECT_EQ(std::string::npos, dump.find("cmsSN")) << "and nothing added after it";
}

TEST_F(TavloStreamingTaggerTest, TheAdvertisingIdentifierIsSentOnlyWhenTheApplicationAsks) {
  test.platform.advertisingIdProvider =
      std::make_shared<TavloFixedAdvertisingIdProvider>("6d92078a-8246-4ba4-ae5b-76104861e7dc");
  startAgent();
  const auto t = tagger();
  t->setUseIDFA(true);
  t->notifyEvent(TavloStreamingEventPlay);
  ASSERT_EQ(1u, hits().size());
  EXPECT_EQ("6D92078A-8246-4BA4-AE5B-76104861E7DC", hits()[0].at("did"));
  EXPECT_TRUE(test.logSink->contains("1 {\n"));
}

TEST_F(TavloStreamingTaggerTest, AStopRenewsTheSessionSoTheNextPlayingIsAuthorisedAfresh) {
  const auto t = tagger();
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(2);
  EXPECT_EQ(1u, authorisations());
  t->notifyEvent(TavloStreamingEventStop);
  settle();
  EXPECT_TRUE(test.logSink->contains("ShouldRenewSession"));
  t->notifyEvent(TavloStreamingEventPlay);
  EXPECT_EQ(2u, authorisations());
  EXPECT_EQ((std::vector<std::string>{"1", "2", "1"}), column("cmsRK"));
  EXPECT_EQ((std::vector<std::string>{"5", "12", "5"}), column("cmsPS"));
}

// Events.

TEST_F(TavloStreamingEventsTest, OnlyTheTransitionsOfTheRuleMakeHits) {
  struct Case {
    const char* name;
    TavloStreamingType type;
    std::vector<TavloStreamingEvent> events;
    std::vector<std::string> codes;  // "cmsPS" of each hit
    std::vector<std::string> ranks;
  };
  const auto play = TavloStreamingEventPlay;
  const auto pause = TavloStreamingEventPause;
  const auto stop = TavloStreamingEventStop;
  const auto none = TavloStreamingEventNone;
  const Case cases[] = {
      {"a first pause", TavloStreamingTypeNoPosition, {pause}, {}, {}},
      {"a first stop", TavloStreamingTypeNoPosition, {stop}, {}, {}},
      {"none from the application", TavloStreamingTypeNoPosition, {none, play, none}, {"5"}, {"1"}},
      {"a repeated play", TavloStreamingTypeNoPosition, {play, play}, {"5"}, {"1"}},
      {"a repeated pause", TavloStreamingTypeNoPosition, {play, pause, pause}, {"5", "7"}, {"1", "2"}},
      {"play after pause", TavloStreamingTypeNoPosition, {play, pause, play}, {"5", "7", "5"}, {"1", "2", "3"}},
      {"stop from pause", TavloStreamingTypeNoPosition, {play, pause, stop}, {"5", "7", "12"}, {"1", "2", "3"}},
      {"a repeated stop", TavloStreamingTypeNoPosition, {play, stop, stop, pause}, {"5", "12"}, {"1", "2"}},
      {"again after a stop",
       TavloStreamingTypeNoPosition,
       {play, stop, play, pause},
       {"5", "12", "5", "7"},
       {"1", "2", "1", "2"}},
      {"first pause stops",
       TavloStreamingTypeFirstPauseStops,
       {play, pause, play, pause},
       {"5", "12", "5", "7"},
       {"1", "2", "1", "2"}},
      {"a refused first pause still spends the stop",
       TavloStreamingTypeFirstPauseStops,
       {pause, play, pause},
       {"5", "7"},
       {"1", "2"}},
      {"stop from a type-2 pause",
       TavloStreamingTypeFirstPauseStops,
       {play, pause, play, pause, stop},
       {"5", "12", "5", "7", "12"},
       {"1", "2", "1", "2", "3"}},
  };
  for (const Case& c : cases) {
    startCase();
    const auto t = tagger(c.type);
    for (auto event : c.events) notify(*t, event);
    EXPECT_EQ(c.codes, column("cmsPS")) << c.name;
    EXPECT_EQ(c.ranks, column("cmsRK")) << c.name;
  }
}

TEST_F(TavloStreamingEventsTest, AnEventOutsideTheSetIsLoggedAndIgnored) {
  const auto t = tagger();
  notify(*t, TavloStreamingEventPlay);
  test.logSink->clear();
  t->notifyEvent(static_cast<TavloStreamingEvent>(7), 3);
  t->notifyEvent(TavloStreamingEventNone);
  EXPECT_TRUE(test.logSink->contains(
      "(ERROR) : TavloStreamingTagger - Event 7 is not play (0), pause (1) or stop (2): ignored"));
  EXPECT_TRUE(test.logSink->contains(
      "(ERROR) : TavloStreamingTagger - Event 3 is not play (0), pause (1) or stop (2): ignored"));
  notify(*t, TavloStreamingEventPause);
  EXPECT_EQ((std::vector<std::string>{"5", "7"}), column("cmsPS"));
  EXPECT_EQ((std::vector<std::string>{"0", "0"}), column("cmsPO")) << "the ignored event's position is not recorded";
}

TEST_F(TavloStreamingEventsTest, PositionsGiveTheCurrentAndThePreviousOne) {
  struct Case {
    const char* name;
    std::vector<std::pair<TavloStreamingEvent, int64_t>> events;
    std::string current;
    std::string previous;
  };
  const auto play = TavloStreamingEventPlay;
  const auto pause = TavloStreamingEventPause;
  const auto stop = TavloStreamingEventStop;
  const int64_t unknown = TavloStreamingTaggerUnknownLocation;
  const Case cases[] = {
      {"three positions", {{play, 10}, {pause, 25}, {play, 40}}, "40", "25"},
      {"one position", {{play, 7}}, "7", "0"},
      {"none", {{play, unknown}}, "0", "0"},
      {"unknown ones are skipped", {{play, 10}, {pause, unknown}, {play, 30}}, "30", "10"},
      {"zero and negatives are recorded", {{play, 10}, {pause, 0}, {play, -5}}, "-5", "0"},
      {"a stop at zero without a polled position", {{play, 30}, {stop, 0}}, "0", "30"},
      {"a stop at a position", {{play, 30}, {stop, 31}}, "31", "30"},
  };
  for (const Case& c : cases) {
    startCase();
    const auto t = tagger();
    for (const auto& [event, position] : c.events) notify(*t, event, position);
    const auto sent = hits();
    ASSERT_EQ(c.events.size(), sent.size()) << c.name;
    EXPECT_EQ(c.current, sent.back().at("cmsPO")) << c.name;
    EXPECT_EQ(c.previous, sent.back().at("cmsOP")) << c.name;
  }
}

TEST_F(TavloStreamingEventsTest, AStopAtZeroTakesThePolledPosition) {
  const auto delegate = std::make_shared<TavloTestPositionDelegate>();
  delegate->answer = [](TavloStreamingTagger&) { return 42; };
  const auto t = tagger(TavloStreamingTypeDelegatePosition);
  t->setDelegate(delegate);
  notify(*t, TavloStreamingEventPlay, 30);
  notify(*t, TavloStreamingEventStop, 0);
  const auto sent = hits();
  ASSERT_EQ(2u, sent.size());
  EXPECT_EQ("42", sent[1].at("cmsPO")) << "0 is not a position worth reporting at a stop";
  EXPECT_EQ("30", sent[1].at("cmsOP"));
}

TEST_F(TavloStreamingEventsTest, TheDelegateSuppliesPositionsOnlyToTypeZeroTaggers) {
  struct Case {
    TavloStreamingType type;
    bool implements;
    std::string position;
  };
  const Case cases[] = {
      {TavloStreamingTypeDelegatePosition, true, "77"},
      {TavloStreamingTypeDelegatePosition, false, "0"},
      {TavloStreamingTypeNoPosition, true, "0"},
      {TavloStreamingTypeFirstPauseStops, true, "0"},
  };
  for (const Case& c : cases) {
    startCase();
    const auto answering = std::make_shared<TavloTestPositionDelegate>();
    answering->answer = [](TavloStreamingTagger&) { return 77; };
    const auto silent = std::make_shared<TavloSilentDelegate>();
    const auto t = tagger(c.type);
    if (c.implements) {
      t->setDelegate(answering);
    } else {
      t->setDelegate(silent);
    }
    t->notifyEvent(TavloStreamingEventPlay);
    const auto sent = hits();
    ASSERT_EQ(1u, sent.size()) << "type " << c.type;
    EXPECT_EQ(c.position, sent[0].at("cmsPO")) << "type " << c.type << " implements " << c.implements;
    if (c.type != TavloStreamingTypeDelegatePosition) {
      EXPECT_EQ(0, answering->calls.load()) << "type " << c.type;
    }
  }
}

TEST_F(TavloStreamingEventsTest, ADelegateMayCallTheTaggerBackAndMayThrow) {
  const auto delegate = std::make_shared<TavloTestPositionDelegate>();
  delegate->answer = [](TavloStreamingTagger& tagger) { return static_cast<int64_t>(tagger.mediaName()->size()); };
  const auto t = tagger(TavloStreamingTypeDelegatePosition);
  t->setDelegate(delegate);
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(2);
  delegate->throws = true;
  t->notifyEvent(TavloStreamingEventPause);
  EXPECT_EQ((std::vector<std::string>{"4", "4"}), column("cmsPO")) << "a failing delegate gives no position";
  EXPECT_TRUE(
      test.logSink->contains("(WARNING) : TavloStreamingTagger - The delegate failed to give the current position"));
}

TEST_F(TavloStreamingEventsTest, ACachedRefusalStopsPollingAndSendsNothing) {
  const auto t = tagger();
  notify(*t, TavloStreamingEventPlay);
  ASSERT_EQ(1u, hits().size());
  denyStreaming(*t);
  notify(*t, TavloStreamingEventPause);
  advanceTo(200);
  EXPECT_EQ(1u, hits().size()) << "neither the pause nor any polling hit";
  test.mainQueue->runUntilIdle();
  EXPECT_EQ(0u, test.mainQueue->pendingCount()) << "polling stopped";

  agent->authManager()->forgetAuthForTagger(*t->taggerID());
  notify(*t, TavloStreamingEventPause);
  EXPECT_EQ((std::vector<std::string>{"5", "7"}), column("cmsPS")) << "the refused pause changed nothing";
  advanceTo(test.mainQueue->elapsed() + 60);
  EXPECT_LT(2u, hits().size()) << "the accepted pause started polling again";
}

// Lifetime.

TEST_F(TavloStreamingEventsTest, ATaggerReleasedWithTimersPendingStopsThemAndSendsNothingMore) {
  auto t = tagger();
  std::weak_ptr<TavloStreamingTagger> watched = t;
  t->notifyEvent(TavloStreamingEventPlay);
  t->notifyEvent(TavloStreamingEventPause);  // held by the throttle
  EXPECT_EQ(2u, test.mainQueue->pendingCount()) << "polling and throttle timers";
  t.reset();
  EXPECT_TRUE(watched.expired()) << "the timers must not keep the tagger alive";
  advanceTo(300);
  EXPECT_EQ(0u, test.mainQueue->pendingCount());
  EXPECT_EQ(std::vector<std::string>{"5"}, column("cmsPS")) << "no final or throttled hit";
  EXPECT_EQ(1u, center->TEST_observerCount(kTavloReachabilityChangedNotification))
      << "only the agent still listens to the network";
}

TEST_F(TavloStreamingEventsTest, ADelegateThatGoesAwayMidPlayStopsSupplyingPositions) {
  auto delegate = std::make_shared<TavloTestPositionDelegate>();
  delegate->answer = [this](TavloStreamingTagger&) { return static_cast<int64_t>(test.mainQueue->elapsed()); };
  const auto t = tagger(TavloStreamingTypeDelegatePosition);
  t->setDelegate(delegate);
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(15);
  delegate.reset();
  EXPECT_FALSE(t->delegate());
  advanceTo(21);
  notify(*t, TavloStreamingEventPause);
  EXPECT_EQ((std::vector<std::string>{"0", "10", "10", "10"}), column("cmsPO"));
  EXPECT_EQ((std::vector<std::string>{"state", "polling", "polling", "state"}), column("cmsEV"));
}

TEST_F(TavloStreamingEventsTest, AnAgentThatIsGoneMakesEventsDoNothing) {
  auto t = tagger();
  agent->shutdown();
  agent.reset();
  t->notifyEvent(TavloStreamingEventPlay, 3);
  advanceTo(100);
  EXPECT_EQ(0u, test.mainQueue->pendingCount());
  const auto orphan = TavloStreamingTagger::TavloStreamingTaggerWithSerial(nullptr, "123", "film", 0, std::nullopt, 0,
                                                                           TavloStreamingTypeNoPosition);
  ASSERT_TRUE(orphan);
  EXPECT_FALSE(orphan->canSend());
  startAgent();
}

}  // namespace
