// The streaming tagger's set-up, events and hits, on fakes and in virtual time.
#include <memory>
#include <string>
#include <vector>

#include "streaming/TavloStreamingFixture.h"
#include "support/TavloFixedAdvertisingIdProvider.h"
#include "support/TavloGatedFileSystem.h"
#include "identity/TavloTaggerID.h"
#include "streaming/TavloStreamingTaggerImpl.h"

namespace {

using Strings = std::vector<std::string>;

class TavloStreamingTaggerTest : public TavloStreamingTest {
 protected:
  // Notifies, then lets two seconds pass: events that far apart never meet the throttle.
  void notify(TavloStreamingTagger& t, TavloStreamingEvent event,
              int64_t position = TavloStreamingTaggerUnknownLocation) {
    t.notifyEvent(event, position);
    advanceTo(test.mainQueue->elapsed() + 2);
  }
};

// Set-up.

TEST_F(TavloStreamingTaggerTest, BlankOrUnusableSerialsAndBlankMediaNamesGiveATaggerThatNeverSends) {
  const std::string serialLine = "(ERROR) : Init streaming tag failed : serial is mandatory";
  const std::string nameLine = "(ERROR) : Init streaming tag failed : mediaName is mandatory";
  const auto unusable = [](const std::string& shown) {
    return "(ERROR) : Init streaming tag failed : serial \"" + shown +
           "\" is not usable: a serial must stand in a URL path as one segment";
  };
  struct Case {
    TavloString serial;
    TavloString mediaName;
    std::string line;
  };
  for (const Case& c :
       {Case{std::nullopt, "film", serialLine}, Case{"", "film", serialLine}, Case{"   ", "", serialLine},
        Case{"123", std::nullopt, nameLine}, Case{"123", "", nameLine}, Case{"123", "  ", nameLine},
        Case{"S2/../../admin", "film", unusable("S2/../../admin")}, Case{" 1 2 ", "film", unusable(" 1 2 ")},
        Case{"S\n(ERROR) : forged", "film", unusable("S\\n(ERROR) : forged")}}) {
    test.logSink->clear();
    bool configured = false;
    const auto t = tagger(
        TavloStreamingTypeNoPosition, [&](TavloStreamingConfig&) { configured = true; }, c.serial, c.mediaName);
    const std::string label = c.serial.value_or("(nil)") + "/" + c.mediaName.value_or("(nil)");
    ASSERT_TRUE(t) << label;
    EXPECT_FALSE(t->canSend()) << label;
    EXPECT_FALSE(configured) << label;
    EXPECT_EQ(Strings{c.line}, test.logSink->lines()) << label;
    t->setSendingMode(TavloSendingModeTimestamped);
    EXPECT_EQ(TavloSendingModeLive, t->sendingMode()) << label;
    for (auto event : {TavloStreamingEventPlay, TavloStreamingEventPause, TavloStreamingEventStop}) {
      t->notifyEvent(event, 10);
    }
    advanceTo(test.mainQueue->elapsed() + 130);
    EXPECT_EQ(0u, test.mainQueue->pendingCount()) << label << ": no timer was armed";
  }
  EXPECT_TRUE(hits().empty());
  EXPECT_FALSE(TavloStreamingTaggerOnAgent(nullptr, "123", "film", 0, std::nullopt, 0, TavloStreamingTypeNoPosition)
                   ->canSend())
      << "without an agent";
}

TEST_F(TavloStreamingTaggerTest, AThrowingConfigurationKeepsWhatItSetAndTheSettersFollowTheirRules) {
  const auto t = tagger(
      TavloStreamingTypeNoPosition,
      [](TavloStreamingConfig& config) {
        config.setCustomerData("crm");
        config.setMediaGenre("drama");
        throw std::runtime_error("application bug");  // what it set before still counts
      },
      "123", " my film ");
  EXPECT_TRUE(test.logSink->contains("(ERROR) : TavloStreamingTagger - The configuration callback threw"));
  EXPECT_EQ("crm", t->customerData());
  EXPECT_EQ(" my film ", t->mediaName());

  t->setMediaName("");
  t->setMediaURL(std::nullopt);
  EXPECT_EQ(" my film ", t->mediaName()) << "an empty name never replaces the medium's name";
  EXPECT_EQ("http://media.test/film.m3u8", t->mediaURL());
  t->setMediaGenre("");
  t->setMediaVolume(-3);
  t->setMediaLength(0);
  t->notifyEvent(TavloStreamingEventPlay);
  const auto sent = hits();
  ASSERT_EQ(1u, sent.size());
  EXPECT_EQ("-3", sent[0].at("cmsSD"));
  EXPECT_EQ("0", sent[0].at("cmsDU"));
  EXPECT_EQ(0u, sent[0].count("cmsGR")) << "an empty genre is left out";
}

// Hits.

TEST_F(TavloStreamingTaggerTest, AHitCarriesTheDefaultsAndTheStreamingSetWithTheCrosswiseLevels) {
  test.platform.advertisingIdProvider =
      std::make_shared<TavloFixedAdvertisingIdProvider>("6d92078a-8246-4ba4-ae5b-76104861e7dc");
  startAgent();
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
  t->setUseIDFA(true);
  t->notifyEvent(TavloStreamingEventPlay, 12);
  const auto sent = hits();
  ASSERT_EQ(1u, sent.size());
  TavloParameters expected = *agent->defaultParametersForRequest();
  expected.erase("n");
  expected.insert({{"cmsEV", "state"}, {"cmsPO", "12"}, {"cmsOP", "0"}, {"cmsPS", "5"}, {"cmsMV", "5"},
                   {"cmsSD", "80"}, {"cmsDU", "5400"}, {"cmsPL", "TestModel"}, {"dom", "provider"},
                   {"cmsGR", "drama"}, {"cmsS1", "three"}, {"cmsS2", "two"}, {"cmsS3", "one"}, {"cmsS4", "four"},
                   {"cmsS5", "five"}, {"crmid", "crm 42"}, {"ml11", "eleven"}, {"msCid", "content"},
                   {"msDm", "live"}, {"msCh", "ch1"}, {"miCh", "net"}, {"cmsRK", "1"}, {"cmsVI", "5"},
                   {"m_ntwk", "Wifi"}, {"cmsSN", std::string(300, 'n')}, {"ml1", std::string(256, 'x')},
                   {"cmsME", "http://media.test/film.m3u8"}, {"did", "6D92078A-8246-4BA4-AE5B-76104861E7DC"}});
  TavloParameters got = sent[0];
  got.erase("n");
  EXPECT_EQ(expected, got);
  EXPECT_EQ(0u, test.http->lastRequest().url.find("http://collect.test/m/web/123?")) << "live: the access's host";
}

// The agent's thread makes a hit from what the event captured, however late it takes it:
// what the application changes after the event belongs to the next hit.
TEST_F(TavloStreamingTaggerTest, AHitCarriesWhatTheTaggerHeldAtItsEventHoweverLateItIsMade) {
  const auto gated = std::make_shared<TavloGatedFileSystem>(test.directory->path());
  test.platform.files = gated;
  agent->shutdown();
  agent = TavloAgent::make(test.platform, nullptr, center);  // its handler waits at the gate
  const auto t = tagger();
  t->setMediaContentId("at the event");
  t->notifyEvent(TavloStreamingEventPlay, 12);
  t->setMediaName("later");
  t->setMediaVolume(1);
  t->setMediaLength(2);
  t->setMediaGenre("later");
  t->setMediaContentId("later");
  ASSERT_TRUE(agent->TEST_queue().empty()) << "the hit is still to be made";
  gated->opener.set_value();
  const auto sent = hits();
  ASSERT_EQ(1u, sent.size());
  const std::pair<std::string, std::string> expected[] = {
      {"cmsSN", "film"}, {"cmsSD", "80"}, {"cmsDU", "5400"}, {"msCid", "at the event"}, {"cmsPO", "12"}, {"cmsGR", "-"}};
  for (const auto& [key, value] : expected) {
    const auto found = sent[0].find(key);
    EXPECT_EQ(value, found == sent[0].end() ? "-" : found->second) << key;
  }
}

TEST_F(TavloStreamingTaggerTest, EveryHitsParameterDumpIsWrittenWhateverTheThresholdAndWhereverTheHitEnds) {
  // The dump shows the dictionary as built up to "did": never what comes after ("cmsSN",
  // the rank). A hit handed over at once has it written by the agent's thread, a held one
  // at the event, and a hit the agent drops before taking it where it is dropped.
  struct Case {
    const char* name;
    std::vector<TavloStreamingEvent> events;  // within one second
    bool shutDownFirst;
    Strings positions;  // "cmsPO" of each dump, in order
  };
  const Case cases[] = {
      {"handed over at once", {TavloStreamingEventPlay}, false, {"4"}},
      {"held by the throttle, then dropped as a repeat of the state sent",
       {TavloStreamingEventPlay, TavloStreamingEventPause, TavloStreamingEventPlay},
       false,
       {"4", "4", "4"}},
      {"dropped by an agent shut down", {TavloStreamingEventPlay}, true, {"4"}},
  };
  for (const Case& c : cases) {
    const auto t = tagger();
    t->setLoggingMode(3);  // silences the logger
    if (c.shutDownFirst) agent->shutdown();
    test.logSink->clear();
    for (const auto event : c.events) t->notifyEvent(event, 4);
    advanceTo(test.mainQueue->elapsed() + 2);
    if (!c.shutDownFirst) settle();
    const auto lines = test.logSink->lines();
    ASSERT_EQ(3 * c.positions.size(), lines.size()) << c.name;
    for (size_t dump = 0; dump < c.positions.size(); ++dump) {
      const std::string& text = lines[3 * dump + 1];
      EXPECT_EQ("------------------------------", lines[3 * dump]) << c.name;
      EXPECT_EQ(0u, text.find("0 {\n")) << c.name << ": " << text;
      EXPECT_NE(std::string::npos, text.find("    cmsPO = " + c.positions[dump] + ";\n")) << c.name << ": " << text;
      EXPECT_EQ(std::string::npos, text.find("cmsSN")) << c.name << ": " << text;
      EXPECT_EQ(std::string::npos, text.find("cmsRK")) << c.name << ": " << text;
      EXPECT_EQ("------------------------------", lines[3 * dump + 2]) << c.name;
    }
    t->notifyEvent(TavloStreamingEventStop);
    if (c.shutDownFirst) startAgent();
    settle();  // the stop's dump is written before the next case looks
  }
}

// A tagger's error lines and parameter dumps go where its agent's lines go: to the sink of
// the platform the agent was built with, not to whatever sink the process installed.
TEST_F(TavloStreamingTaggerTest, ATaggerLogsThroughThePlatformItsAgentWasBuiltWith) {
  TavloPlatform elsewhere = test.platform;
  const auto installed = std::make_shared<TavloCapturingLogSink>();
  elsewhere.logSink = installed;
  TavloPlatform::install(elsewhere);
  const auto t = tagger();
  t->notifyEvent(static_cast<TavloStreamingEvent>(7), 0);
  t->notifyEvent(TavloStreamingEventPlay, 4);
  settle();
  EXPECT_TRUE(test.logSink->contains("(ERROR) : TavloStreamingTagger - Event 7 is not play"));
  EXPECT_TRUE(test.logSink->contains("    cmsPO = 4;\n"));
  EXPECT_EQ(std::vector<std::string>{}, installed->lines());
}

TEST_F(TavloStreamingTaggerTest, AStopRenewsTheSessionSoTheNextPlayingIsAuthorisedAfresh) {
  const auto t = tagger();
  notify(*t, TavloStreamingEventPlay);
  EXPECT_EQ(1u, authorisations());
  t->notifyEvent(TavloStreamingEventStop);
  t->notifyEvent(TavloStreamingEventPlay);
  EXPECT_EQ(2u, authorisations());
  EXPECT_EQ((Strings{"1", "2", "1"}), column("cmsRK"));
  EXPECT_EQ((Strings{"5", "12", "5"}), column("cmsPS"));
}

// Events.

TEST_F(TavloStreamingTaggerTest, OnlyTheTransitionsOfTheRuleMakeHits) {
  const auto play = TavloStreamingEventPlay, pause = TavloStreamingEventPause, stop = TavloStreamingEventStop;
  const auto none = TavloStreamingEventNone, seven = static_cast<TavloStreamingEvent>(7);
  const auto noPosition = TavloStreamingTypeNoPosition, firstPauseStops = TavloStreamingTypeFirstPauseStops;
  struct Case {
    const char* name;
    TavloStreamingType type;
    std::vector<TavloStreamingEvent> events;
    Strings codes;  // "cmsPS" of each hit
    Strings ranks;
  };
  const Case cases[] = {
      {"a first pause or stop", noPosition, {pause, stop}, {}, {}},
      {"events outside the set", noPosition, {none, play, seven, none}, {"5"}, {"1"}},
      {"repeats", noPosition, {play, play, pause, pause}, {"5", "7"}, {"1", "2"}},
      {"play after pause, stop from pause",
       noPosition,
       {play, pause, play, pause, stop},
       {"5", "7", "5", "7", "12"},
       {"1", "2", "3", "4", "5"}},
      {"after a stop", noPosition, {play, stop, stop, pause, play}, {"5", "12", "5"}, {"1", "2", "1"}},
      {"the first pause stops",
       firstPauseStops,
       {play, pause, play, pause},
       {"5", "12", "5", "7"},
       {"1", "2", "1", "2"}},
      {"a refused first pause spends it", firstPauseStops, {pause, play, pause}, {"5", "7"}, {"1", "2"}},
  };
  for (const Case& c : cases) {
    startCase();
    const auto t = tagger(c.type);
    for (auto event : c.events) notify(*t, event);
    EXPECT_EQ(c.codes, column("cmsPS")) << c.name;
    EXPECT_EQ(c.ranks, column("cmsRK")) << c.name;
  }
  EXPECT_TRUE(test.logSink->contains(
      "(ERROR) : TavloStreamingTagger - Event 7 is not play (0), pause (1) or stop (2): ignored"));
}

TEST_F(TavloStreamingTaggerTest, PositionsGiveTheCurrentAndThePreviousOne) {
  const auto play = TavloStreamingEventPlay, pause = TavloStreamingEventPause, stop = TavloStreamingEventStop;
  const int64_t unknown = TavloStreamingTaggerUnknownLocation;
  struct Case {
    const char* name;
    std::vector<std::pair<TavloStreamingEvent, int64_t>> events;
    bool polled;  // a type-0 tagger whose delegate answers 42 every second
    std::string current;
    std::string previous;
  };
  const Case cases[] = {
      {"three positions", {{play, 10}, {pause, 25}, {play, 40}}, false, "40", "25"},
      {"one position", {{play, 7}}, false, "7", "0"},
      {"none", {{play, unknown}}, false, "0", "0"},
      {"unknown ones are skipped", {{play, 10}, {pause, unknown}, {play, 30}}, false, "30", "10"},
      {"zero and negatives are recorded", {{play, 10}, {pause, 0}, {play, -5}}, false, "-5", "0"},
      {"a stop at zero, nothing polled", {{play, 30}, {stop, 0}}, false, "0", "30"},
      {"a stop at zero takes the polled position", {{play, 30}, {stop, 0}}, true, "42", "30"},
      {"a stop at a position", {{play, 30}, {stop, 31}}, true, "31", "30"},
  };
  const auto delegate = std::make_shared<TavloTestPositionDelegate>();
  delegate->answer = [](TavloStreamingTagger&) { return 42; };
  for (const Case& c : cases) {
    startCase();
    const auto t = tagger(c.polled ? TavloStreamingTypeDelegatePosition : TavloStreamingTypeNoPosition);
    t->setDelegate(delegate);
    for (const auto& [event, position] : c.events) notify(*t, event, position);
    const auto sent = hits();
    ASSERT_EQ(c.events.size(), sent.size()) << c.name;
    EXPECT_EQ(c.current, sent.back().at("cmsPO")) << c.name;
    EXPECT_EQ(c.previous, sent.back().at("cmsOP")) << c.name;
  }
}

TEST_F(TavloStreamingTaggerTest, OnlyTypeZeroAsksTheDelegateWhichMayFailOrCallBack) {
  struct Case {
    TavloStreamingType type;
    bool supplies;
    std::string position;
  };
  for (const Case& c :
       {Case{TavloStreamingTypeDelegatePosition, true, "4"}, Case{TavloStreamingTypeDelegatePosition, false, "0"},
        Case{TavloStreamingTypeNoPosition, true, "0"}, Case{TavloStreamingTypeFirstPauseStops, true, "0"}}) {
    startCase();
    const auto answering = std::make_shared<TavloTestPositionDelegate>();
    // Calls the tagger back: no lock of the tagger's may be held around the delegate.
    answering->answer = [](TavloStreamingTagger& tagger) { return static_cast<int64_t>(tagger.mediaName()->size()); };
    const auto silent = std::make_shared<TavloSilentDelegate>();
    const auto t = tagger(c.type);
    if (c.supplies) t->setDelegate(answering);
    if (!c.supplies) t->setDelegate(silent);
    t->notifyEvent(TavloStreamingEventPlay);
    ASSERT_EQ(Strings{c.position}, column("cmsPO")) << "type " << c.type << " supplies " << c.supplies;
    EXPECT_EQ(c.type == TavloStreamingTypeDelegatePosition && c.supplies, answering->calls.load() > 0);
  }
  const auto throwing = std::make_shared<TavloTestPositionDelegate>();
  throwing->throws = true;
  const auto t = tagger(TavloStreamingTypeDelegatePosition);
  t->setDelegate(throwing);
  t->notifyEvent(TavloStreamingEventPause);
  EXPECT_TRUE(test.logSink->contains("(WARNING) : TavloStreamingTagger - The delegate failed to give the current"));
}

TEST_F(TavloStreamingTaggerTest, ACachedRefusalStopsPollingAndSendsNothing) {
  const auto t = tagger();
  notify(*t, TavloStreamingEventPlay);
  ASSERT_EQ(1u, hits().size());
  denyStreaming(*t);
  notify(*t, TavloStreamingEventPause);
  advanceTo(200);
  EXPECT_EQ(1u, hits().size()) << "neither the pause nor any polling hit";
  EXPECT_EQ(0u, test.mainQueue->pendingCount()) << "polling stopped";

  agent->authManager()->forgetAuthForTagger(*TavloTaggerIDOf(*t));
  notify(*t, TavloStreamingEventPause);
  advanceTo(test.mainQueue->elapsed() + 40);  // the count goes on: polls at 10, 20 and 40
  EXPECT_EQ((Strings{"state", "state", "polling", "polling", "polling"}), column("cmsEV"))
      << "the refused pause changed nothing; the accepted one polls again";
}

// Lifetime.

TEST_F(TavloStreamingTaggerTest, ATaggerReleasedWithTimersPendingStopsThemAndSendsNothingMore) {
  auto t = tagger();
  std::weak_ptr<TavloStreamingTagger> watched = t;
  t->notifyEvent(TavloStreamingEventPlay);
  t->notifyEvent(TavloStreamingEventPause);  // held by the throttle
  EXPECT_EQ(2u, test.mainQueue->pendingCount()) << "polling and throttle timers";
  t.reset();
  EXPECT_TRUE(watched.expired()) << "the timers must not keep the tagger alive";
  advanceTo(300);
  EXPECT_EQ(0u, test.mainQueue->pendingCount());
  EXPECT_EQ(Strings{"5"}, column("cmsPS")) << "no final or throttled hit";
  EXPECT_EQ(1u, center->TEST_observerCount(kTavloReachabilityChangedNotification)) << "only the agent listens";
}

}  // namespace
