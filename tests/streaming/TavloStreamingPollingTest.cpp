// Polling and throttling, in virtual time: a two-minute schedule runs in microseconds.
#include <memory>
#include <string>
#include <vector>

#include "streaming/TavloStreamingFixture.h"

namespace {

class TavloStreamingPollingTest : public TavloStreamingTest {
 protected:
  // A type-0 tagger whose delegate answers the virtual time: a hit's "cmsPO" then tells
  // the second at which it was made.
  std::shared_ptr<TavloStreamingTagger> clockedTagger() {
    clock = std::make_shared<TavloTestPositionDelegate>();
    clock->answer = [this](TavloStreamingTagger&) { return static_cast<int64_t>(test.mainQueue->elapsed() - origin); };
    origin = test.mainQueue->elapsed();
    auto t = tagger(TavloStreamingTypeDelegatePosition);
    t->setDelegate(clock);
    return t;
  }

  // `key` of the polling hits only.
  std::vector<std::string> polling(const std::string& key) {
    std::vector<std::string> values;
    for (const auto& hit : hits()) {
      if (hit.at("cmsEV") == "polling") values.push_back(hit.at(key));
    }
    return values;
  }

  using Strings = std::vector<std::string>;
  std::shared_ptr<TavloTestPositionDelegate> clock;
  double origin = 0;
};

TEST_F(TavloStreamingPollingTest, PollingHitsFallAt10_20_40_60And120Seconds) {
  const auto t = clockedTagger();
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(9.999);
  EXPECT_TRUE(polling("cmsPO").empty());
  advanceTo(130);
  EXPECT_EQ((Strings{"10", "20", "40", "60", "120"}), polling("cmsPO")) << "none at 30, 50 or 90 s";
  EXPECT_EQ((Strings{"5", "5", "5", "5", "5"}), polling("cmsPS"));
  EXPECT_EQ((Strings{"0", "10", "20", "40", "60"}), polling("cmsOP"));
  EXPECT_EQ((Strings{"2", "3", "4", "5", "6"}), polling("cmsRK"));
  for (const char* second : {"10", "20", "40", "60", "120"}) {
    EXPECT_EQ(1u, test.logSink->count(std::string("(INFO) : TavloStreamingTagger - Polling at ") + second +
                                      " sec - Generating request"))
        << second;
  }
  EXPECT_EQ(5u, test.logSink->count("TavloStreamingTagger - Polling at"));
  EXPECT_GE(clock->calls.load(), 130) << "the position is read at every tick";
  advanceTo(240);
  EXPECT_EQ((Strings{"10", "20", "40", "60", "120", "180", "240"}), polling("cmsPO"));
}

TEST_F(TavloStreamingPollingTest, PauseAndResumeKeepTheCount) {
  const auto t = clockedTagger();
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(30);
  t->notifyEvent(TavloStreamingEventPause);
  advanceTo(45);
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(130);
  EXPECT_EQ((Strings{"state", "polling", "polling", "state", "polling", "state", "polling", "polling"}),
            column("cmsEV"));
  EXPECT_EQ((Strings{"0", "10", "20", "30", "40", "45", "60", "120"}), column("cmsPO"));
  EXPECT_EQ((Strings{"5", "5", "5", "7", "7", "5", "5", "5"}), column("cmsPS")) << "a poll in a pause carries its code";
  EXPECT_EQ((Strings{"1", "2", "3", "4", "5", "6", "7", "8"}), column("cmsRK"));
}

TEST_F(TavloStreamingPollingTest, AStopResetsTheCountTheRanksAndThePositions) {
  const auto t = clockedTagger();
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(25);
  t->notifyEvent(TavloStreamingEventStop);
  advanceTo(60);
  EXPECT_EQ((Strings{"10", "20"}), polling("cmsPO")) << "no polling after a stop";
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(110);
  EXPECT_EQ((Strings{"10", "20", "70", "80", "100"}), polling("cmsPO")) << "10, 20 and 40 s after the new play";
  EXPECT_EQ((Strings{"1", "2", "3", "4", "1", "2", "3", "4"}), column("cmsRK"));
  EXPECT_EQ((Strings{"0", "0", "10", "20", "0", "60", "70", "80"}), column("cmsOP"))
      << "the new playing starts with an empty position history";
}

TEST_F(TavloStreamingPollingTest, OutsideLiveModeThereAreNoPlayOrPollingHitsAndEveryCodeIs5) {
  struct Case {
    const char* name;
    bool offline;  // else timestamped, chosen by the application
  };
  for (const Case& c : {Case{"timestamped", false}, Case{"disconnected", true}}) {
    startCase();
    const auto t = clockedTagger();
    if (c.offline) {
      goOffline();
    } else {
      t->setSendingMode(TavloSendingModeTimestamped);
    }
    t->notifyEvent(TavloStreamingEventPlay);
    advanceTo(origin + 130);
    EXPECT_TRUE(hits().empty()) << c.name;
    EXPECT_GE(clock->calls.load(), 130) << c.name << ": the timer runs and reads the position";
    t->notifyEvent(TavloStreamingEventPause);
    advanceTo(origin + 140);
    t->notifyEvent(TavloStreamingEventPlay);
    advanceTo(origin + 150);
    t->notifyEvent(TavloStreamingEventStop, 0);
    EXPECT_EQ((Strings{"5", "5"}), column("cmsPS")) << c.name;
    EXPECT_EQ((Strings{"130", "150"}), column("cmsPO")) << c.name << ": the stop at 0 takes the polled position";
    EXPECT_EQ((Strings{"1", "2"}), column("cmsRK")) << c.name;
    if (c.offline) {
      const auto queued = agent->TEST_queue();
      ASSERT_EQ(2u, queued.size()) << c.name;
      for (const auto& request : queued) EXPECT_EQ(TavloSendingModeDisconnected, request->sendingMode()) << c.name;
      goOnline();
    } else {
      EXPECT_NE(std::string::npos, test.http->lastRequest().url.find("&tt=c&")) << test.http->lastRequest().url;
    }
  }
}

TEST_F(TavloStreamingPollingTest, TheThrottleSendsTheLastHeldStateUnlessItWasAlreadySent) {
  struct Step {
    double at;
    TavloStreamingEvent event;
  };
  struct Case {
    const char* name;
    TavloSendingMode mode;
    std::vector<Step> steps;
    Strings afterTheLastEvent;  // "cmsPS" of the hits at once
    Strings codes;              // and at 5 s
    Strings ranks;
    size_t held;      // "Throttle request" lines
    size_t released;  // "Throttled request sent" lines
  };
  const auto play = TavloStreamingEventPlay;
  const auto pause = TavloStreamingEventPause;
  const auto stop = TavloStreamingEventStop;
  const Case cases[] = {
      // name, mode, events at their seconds, codes at once, codes at 5 s, ranks, held, released
      {"play, pause", TavloSendingModeLive, {{0, play}, {0.5, pause}}, {"5"}, {"5", "7"}, {"1", "2"}, 1, 1},
      {"play, pause, play", TavloSendingModeLive, {{0, play}, {0.3, pause}, {0.6, play}}, {"5"}, {"5"}, {"1"}, 2, 0},
      {"play, pause, play, pause", TavloSendingModeLive, {{0, play}, {0.2, pause}, {0.4, play}, {0.6, pause}},
       {"5"}, {"5", "7"}, {"1", "2"}, 3, 1},
      {"play, pause, stop", TavloSendingModeLive, {{0, play}, {0.3, pause}, {0.6, stop}}, {"5", "12"}, {"5", "12"},
       {"1", "2"}, 1, 0},
      {"events a second apart", TavloSendingModeLive, {{0, play}, {1.5, pause}, {3, play}}, {"5", "7", "5"},
       {"5", "7", "5"}, {"1", "2", "3"}, 0, 0},
      {"timestamped: all held hits are dropped", TavloSendingModeTimestamped,
       {{0, play}, {0.2, pause}, {0.4, play}, {0.6, pause}}, {"5"}, {"5"}, {"1"}, 1, 0},
  };
  for (const Case& c : cases) {
    startCase();
    test.logSink->clear();
    const double start = test.mainQueue->elapsed();
    const auto t = tagger();
    t->setSendingMode(c.mode);
    for (const Step& step : c.steps) {
      advanceTo(start + step.at);
      t->notifyEvent(step.event);
    }
    EXPECT_EQ(c.afterTheLastEvent, column("cmsPS")) << c.name;
    advanceTo(start + 5);
    EXPECT_EQ(c.codes, column("cmsPS")) << c.name;
    EXPECT_EQ(c.ranks, column("cmsRK")) << c.name;
    EXPECT_EQ(c.held, test.logSink->count("(WARNING) : TavloStreamingTagger - Throttle request")) << c.name;
    EXPECT_EQ(c.released, test.logSink->count("(WARNING) : TavloStreamingTagger - Throttled request sent")) << c.name;
  }
}

TEST_F(TavloStreamingPollingTest, PollingHitsPassTheThrottleAndRanksFollowArrival) {
  const auto t = tagger();
  t->notifyEvent(TavloStreamingEventPlay);
  advanceTo(9.6);
  t->notifyEvent(TavloStreamingEventPause);  // opens a throttle period until 10.6 s
  advanceTo(10.2);
  t->notifyEvent(TavloStreamingEventPlay);  // held
  advanceTo(11);
  EXPECT_EQ((Strings{"state", "state", "polling", "state"}), column("cmsEV"));
  EXPECT_EQ((Strings{"5", "7", "7", "5"}), column("cmsPS"));
  EXPECT_EQ((Strings{"1", "2", "3", "4"}), column("cmsRK"));
}

}  // namespace
