#include "TavloDemoScenario.h"

#include <algorithm>

namespace {

std::string describeStreaming(const TavloDemoHit& hit) {
  return hit.parameter("cmsEV").value_or("(no cmsEV)") + " hit with code " + hit.parameter("cmsPS").value_or("(none)") +
         " ranked " + hit.parameter("cmsRK").value_or("(none)");
}

std::string describeScreen(const TavloDemoHit& hit) {
  return "\"" + hit.parameter("c").value_or("") + " / " + hit.parameter("p").value_or("") + " / " +
         hit.parameter("l3").value_or("") + "\"";
}

}  // namespace

const std::vector<TavloDemoScenario::Screen>& TavloDemoScenario::screens() {
  static const std::vector<Screen> all = {
      {"home", "", ""},
      {"catalogue", "films", ""},
      {"player", "films", "Night Train"},
  };
  return all;
}

const std::vector<TavloDemoScenario::Step>& TavloDemoScenario::steps() {
  static const std::vector<Step> all = {
      {0.0, ShowScreen, 0}, {1.0, ShowScreen, 1}, {2.0, ShowScreen, 2}, {3.0, Play, 0},
      {33.5, Pause, 0},     {48.5, Play, 0},      {68.5, Stop, 0},
  };
  return all;
}

double TavloDemoScenario::duration() { return steps().back().at; }

const std::vector<TavloDemoScenario::ExpectedStreamingHit>& TavloDemoScenario::streamingHits() {
  static const std::vector<ExpectedStreamingHit> all = {
      {"state", "5", "play"},
      {"polling", "5", "poll 10 s after the first play"},
      {"polling", "5", "poll at 20 s"},
      {"state", "7", "pause"},
      {"polling", "7", "poll at 40 s, while paused"},
      {"state", "5", "play again"},
      {"polling", "5", "poll at 60 s"},
      {"state", "12", "stop"},
  };
  return all;
}

std::vector<std::string> TavloDemoScenario::check(const std::vector<TavloDemoHit>& received,
                                                  const std::string& serial, const std::string& customerData) {
  std::vector<std::string> problems;
  std::vector<const TavloDemoHit*> audience;
  std::vector<const TavloDemoHit*> streaming;
  for (const TavloDemoHit& hit : received) {
    if (hit.kind == TavloDemoHit::Authorisation || hit.serial != serial || hit.parameter("crmid") != customerData) {
      continue;
    }
    (hit.kind == TavloDemoHit::Audience ? audience : streaming).push_back(&hit);
  }

  const auto& expectedScreens = screens();
  for (size_t i = 0; i < std::max(audience.size(), expectedScreens.size()); ++i) {
    const std::string which = "audience hit " + std::to_string(i + 1) + " of " + std::to_string(expectedScreens.size());
    if (i >= audience.size()) {
      problems.push_back(which + " (\"" + expectedScreens[i].level1 + "\") did not arrive");
      continue;
    }
    if (i >= expectedScreens.size()) {
      problems.push_back("an unexpected audience hit arrived: " + describeScreen(*audience[i]));
      continue;
    }
    const Screen& screen = expectedScreens[i];
    const TavloDemoHit& hit = *audience[i];
    const auto matches = [&](const char* key, const std::string& level) {
      return level.empty() ? !hit.parameter(key) : hit.parameter(key) == level;
    };
    if (!matches("c", screen.level1) || !matches("p", screen.level2) || !matches("l3", screen.level3)) {
      problems.push_back(which + " should be \"" + screen.level1 + " / " + screen.level2 + " / " + screen.level3 +
                         "\"; it was " + describeScreen(hit));
    }
  }

  const auto& expectedStreaming = streamingHits();
  for (size_t i = 0; i < std::max(streaming.size(), expectedStreaming.size()); ++i) {
    const std::string rank = std::to_string(i + 1);
    if (i >= streaming.size()) {
      problems.push_back("streaming hit " + rank + " (" + expectedStreaming[i].meaning + ") did not arrive");
      continue;
    }
    if (i >= expectedStreaming.size()) {
      problems.push_back("an unexpected streaming hit arrived: " + describeStreaming(*streaming[i]));
      continue;
    }
    const ExpectedStreamingHit& expected = expectedStreaming[i];
    const TavloDemoHit& hit = *streaming[i];
    if (hit.parameter("cmsEV") != expected.eventType || hit.parameter("cmsPS") != expected.code ||
        hit.parameter("cmsRK") != rank) {
      problems.push_back("streaming hit " + rank + " should be the " + expected.meaning + ", a " + expected.eventType +
                         " hit with code " + expected.code + " ranked " + rank + "; it was a " +
                         describeStreaming(hit));
    }
  }
  return problems;
}
