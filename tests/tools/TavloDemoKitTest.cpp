// The demo's parts: its accelerated main queue, its reading of hit URLs, and the check
// that decides its exit status.
#include <gtest/gtest.h>

#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "TavloDemoHit.h"
#include "TavloDemoScenario.h"
#include "TavloPacedMainQueue.h"

namespace {

// Fast enough that a minute of demo time takes well under a millisecond: the queue is
// always behind and catches up, which is the case its ordering rule exists for.
constexpr double kVeryFast = 1e6;

// What ran on the queue, and where the queue stood when it did.
class Journal {
 public:
  void record(const std::string& what, double at) {
    std::lock_guard lock(protector_);
    entries_.push_back({what, at});
  }
  void finish() {
    std::lock_guard lock(protector_);
    finished_ = true;
    changed_.notify_all();
  }
  bool waitUntilFinished() {
    std::unique_lock lock(protector_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return finished_; });
  }
  struct Entry {
    std::string what;
    double at;
  };
  std::vector<Entry> entries() {
    std::lock_guard lock(protector_);
    return entries_;
  }

 private:
  std::mutex protector_;
  std::condition_variable changed_;
  std::vector<Entry> entries_;  // guarded by protector_
  bool finished_ = false;       // guarded by protector_
};

TEST(TavloPacedMainQueueTest, EveryTickFiresInOrderAtItsOwnDeadlineEvenWhenTheQueueIsBehind) {
  TavloPacedMainQueue queue(TavloTimeScale{TavloTimeScale::SteadyClock::now(), kVeryFast});
  Journal journal;
  // Scheduled from one task, as the demo's script is: all count from one starting point.
  queue.post([&] {
    const double start = queue.now();
    const TavloTimerID ticking = queue.schedule(1.0, true, [&, start] { journal.record("tick", queue.now() - start); });
    queue.schedule(10.5, false, [&, start] {
      journal.record("event", queue.now() - start);
      // Counted from this timer's deadline, not from wherever real time has got to.
      queue.schedule(2.0, false, [&, start] { journal.record("later", queue.now() - start); });
    });
    queue.schedule(30.5, false, [&, ticking] {
      queue.cancel(ticking);
      journal.finish();
    });
  });
  ASSERT_TRUE(journal.waitUntilFinished());
  queue.stop();

  std::vector<std::string> expected;
  for (int second = 1; second <= 30; ++second) {
    expected.push_back("tick " + std::to_string(second));
    if (second == 10) expected.push_back("event 10.5");
    if (second == 12) expected.push_back("later 12.5");
  }
  std::vector<std::string> seen;
  for (const auto& entry : journal.entries()) {
    char at[32];
    std::snprintf(at, sizeof at, "%g", entry.at);
    seen.push_back(entry.what + " " + at);
  }
  EXPECT_EQ(expected, seen) << "no tick skipped, each at its deadline, timers interleaved by deadline";
}

TEST(TavloPacedMainQueueTest, PostedTasksRunFirstAndACancelledTimerStops) {
  TavloPacedMainQueue queue(TavloTimeScale{TavloTimeScale::SteadyClock::now(), kVeryFast});
  Journal journal;
  queue.post([&] {
    const TavloTimerID ticking = queue.schedule(1.0, true, [&] { journal.record("tick", 0); });
    queue.schedule(3.5, false, [&, ticking] {
      queue.cancel(ticking);
      queue.post([&] { journal.record("posted", 0); });
    });
    queue.schedule(3.6, false, [&] { journal.record("after", 0); });
    queue.schedule(10.5, false, [&] { journal.finish(); });
  });
  ASSERT_TRUE(journal.waitUntilFinished());
  queue.stop();
  std::vector<std::string> seen;
  for (const auto& entry : journal.entries()) seen.push_back(entry.what);
  EXPECT_EQ((std::vector<std::string>{"tick", "tick", "tick", "posted", "after"}), seen);
}

TEST(TavloPacedMainQueueTest, StopDropsWhatIsLeftAndRefusesNewWork) {
  TavloPacedMainQueue queue(TavloTimeScale{TavloTimeScale::SteadyClock::now(), 1});
  Journal journal;
  queue.schedule(3600, false, [&] { journal.record("too late", 0); });
  queue.stop();
  queue.post([&] { journal.record("after stop", 0); });
  queue.stop();
  EXPECT_TRUE(journal.entries().empty());
  EXPECT_FALSE(queue.isCurrent());
}

struct UrlCase {
  const char* url;
  TavloDemoHit::Kind kind;
  const char* serial;
  const char* event;
  const char* decodedKey;
  const char* decodedValue;
};

class TavloDemoHitTest : public testing::TestWithParam<UrlCase> {};

TEST_P(TavloDemoHitTest, ReadsKindSerialEventAndDecodedParameters) {
  const UrlCase& c = GetParam();
  const TavloDemoHit hit = TavloDemoHit::fromURL(c.url);
  EXPECT_EQ(c.kind, hit.kind) << c.url;
  EXPECT_EQ(c.serial, hit.serial) << c.url;
  EXPECT_EQ(c.event, hit.eventName()) << c.url;
  if (c.decodedKey) {
    EXPECT_EQ(c.decodedValue, hit.parameter(c.decodedKey).value_or("(absent)")) << c.url;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Urls, TavloDemoHitTest,
    testing::Values(
        UrlCase{"http://127.0.0.1:8080/tavlo-demo", TavloDemoHit::Authorisation, "tavlo-demo", "authorise", nullptr, nullptr},
        UrlCase{"/m/web/s1?c=home%2Fpage&p=a%20b", TavloDemoHit::Audience, "s1", "screen", "c", "home/page"},
        UrlCase{"/m/web/s1?cmsEV=state&cmsPS=5&cmsRK=1", TavloDemoHit::Streaming, "s1", "play", "cmsRK", "1"},
        UrlCase{"/m/web/s1?cmsEV=state&cmsPS=7", TavloDemoHit::Streaming, "s1", "pause", nullptr, nullptr},
        UrlCase{"/m/web/s1?cmsEV=state&cmsPS=12", TavloDemoHit::Streaming, "s1", "stop", nullptr, nullptr},
        UrlCase{"/m/web/s1?cmsEV=polling&cmsPS=7", TavloDemoHit::Streaming, "s1", "poll, pause", nullptr, nullptr},
        UrlCase{"/m/web/s1?cmsEV=polling&cmsPS=9", TavloDemoHit::Streaming, "s1", "poll, code 9", nullptr, nullptr},
        // Malformed escapes stay as they are; a key without "=" has an empty value.
        UrlCase{"/m/web/s%201?c=%zz%4&flag", TavloDemoHit::Audience, "s 1", "screen", "c", "%zz%4"},
        UrlCase{"/m/web/s1?c=x&flag", TavloDemoHit::Audience, "s1", "screen", "flag", ""},
        UrlCase{"http://host", TavloDemoHit::Authorisation, "", "authorise", nullptr, nullptr}));

TEST(TavloDemoHitTest, DescribesAHitOnOneLineWithNothingThatCouldDisturbATerminal) {
  const TavloDemoHit hit =
      TavloDemoHit::fromURL("/m/web/s?cmsEV=polling&cmsPS=5&cmsRK=2&cmsPO=10&cmsOP=0&cmsS3=films&cmsS2=%1B%5B2J&cmsSN=A%0AB");
  const std::string line = hit.describe(13);
  EXPECT_EQ("    13.0s  streaming      poll, play   2       10        0         films / ?[2J  \"A?B\"", line);
  EXPECT_EQ(TavloDemoHit::header().find("rank"), line.find("2 ")) << "columns line up with the header";
}

// The hits of a run that went as planned, in the order they arrive.
std::vector<TavloDemoHit> plannedRun(const std::string& serial, const std::string& customerData) {
  std::vector<TavloDemoHit> hits;
  hits.push_back(TavloDemoHit::fromURL("/" + serial));
  for (const auto& screen : TavloDemoScenario::screens()) {
    std::string url = "/m/web/" + serial + "?c=" + screen.level1 + "&crmid=" + customerData;
    if (!screen.level2.empty()) url += "&p=" + screen.level2;
    if (!screen.level3.empty()) url += "&l3=" + screen.level3;
    hits.push_back(TavloDemoHit::fromURL(url));
  }
  int rank = 0;
  for (const auto& expected : TavloDemoScenario::streamingHits()) {
    hits.push_back(TavloDemoHit::fromURL("/m/web/" + serial + "?cmsEV=" + expected.eventType + "&cmsPS=" +
                                         expected.code + "&cmsRK=" + std::to_string(++rank) + "&crmid=" + customerData));
  }
  return hits;
}

TEST(TavloDemoScenarioTest, APlannedRunPassesAndHitsOfOtherRunsAreIgnored) {
  std::vector<TavloDemoHit> hits = plannedRun("s", "run-1");
  EXPECT_EQ(std::vector<std::string>{}, TavloDemoScenario::check(hits, "s", "run-1"));
  const auto earlier = plannedRun("s", "run-0");
  hits.insert(hits.begin(), earlier.begin(), earlier.end());
  EXPECT_EQ(std::vector<std::string>{}, TavloDemoScenario::check(hits, "s", "run-1"));
  EXPECT_EQ(11u, TavloDemoScenario::check(hits, "other-serial", "run-1").size()) << "every expected hit missing";
}

struct Fault {
  const char* name;
  void (*apply)(std::vector<TavloDemoHit>& hits);
  const char* problem;
};

class TavloDemoScenarioFaultTest : public testing::TestWithParam<Fault> {};

TEST_P(TavloDemoScenarioFaultTest, EachFaultIsReported) {
  std::vector<TavloDemoHit> hits = plannedRun("s", "run-1");
  GetParam().apply(hits);
  const std::vector<std::string> problems = TavloDemoScenario::check(hits, "s", "run-1");
  ASSERT_FALSE(problems.empty()) << GetParam().name;
  EXPECT_EQ(GetParam().problem, problems[0]) << GetParam().name;
}

// Positions in plannedRun: 0 authorisation, 1-3 screens, 4-11 streaming ranks 1-8.
INSTANTIATE_TEST_SUITE_P(
    Faults, TavloDemoScenarioFaultTest,
    testing::Values(
        Fault{"last poll missing", [](auto& h) { h.erase(h.begin() + 10); },
              "streaming hit 7 should be the poll at 60 s, a polling hit with code 5 ranked 7; it was a state hit with "
              "code 12 ranked 8"},
        Fault{"stop missing", [](auto& h) { h.pop_back(); }, "streaming hit 8 (stop) did not arrive"},
        Fault{"pause sent as play", [](auto& h) { h[7].parameters["cmsPS"] = "5"; },
              "streaming hit 4 should be the pause, a state hit with code 7 ranked 4; it was a state hit with code 5 "
              "ranked 4"},
        Fault{"wrong rank", [](auto& h) { h[5].parameters["cmsRK"] = "3"; },
              "streaming hit 2 should be the poll 10 s after the first play, a polling hit with code 5 ranked 2; it "
              "was a polling hit with code 5 ranked 3"},
        Fault{"extra streaming hit", [](auto& h) { h.push_back(h.back()); },
              "an unexpected streaming hit arrived: state hit with code 12 ranked 8"},
        Fault{"screen missing", [](auto& h) { h.erase(h.begin() + 3); },
              "audience hit 3 of 3 (\"player\") did not arrive"},
        Fault{"screens swapped", [](auto& h) { std::swap(h[1], h[2]); },
              "audience hit 1 of 3 should be \"home /  / \"; it was \"catalogue / films / \""},
        Fault{"extra level", [](auto& h) { h[1].parameters["p"] = "x"; },
              "audience hit 1 of 3 should be \"home /  / \"; it was \"home / x / \""}),
    [](const auto& info) {
      std::string name = info.param.name;
      for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
      return name;
    });

}  // namespace
