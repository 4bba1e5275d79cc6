// What the demo's end-to-end run (check_demo.py, which also runs its paced main queue far
// behind) cannot reach: what the demo's check says when the hits go wrong.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TavloDemoHit.h"
#include "TavloDemoScenario.h"

namespace {

using Hits = std::vector<TavloDemoHit>;

// A run that went as planned: the authorisation, the screens, the streaming hits ranked 1 to 8.
Hits plannedRun(const std::string& crmid) {
  Hits hits = {TavloDemoHit::fromURL("/s")};
  for (const auto& screen : TavloDemoScenario::screens()) {
    hits.push_back(TavloDemoHit::fromURL("/m/web/s?crmid=" + crmid + "&c=" + screen.level1 +
                                         (screen.level2.empty() ? "" : "&p=" + screen.level2) +
                                         (screen.level3.empty() ? "" : "&l3=" + screen.level3)));
  }
  const size_t ranked = hits.size();
  for (const auto& expected : TavloDemoScenario::streamingHits()) {
    hits.push_back(TavloDemoHit::fromURL("/m/web/s?crmid=" + crmid + "&cmsEV=" + expected.eventType + "&cmsPS=" +
                                         expected.code + "&cmsRK=" + std::to_string(hits.size() - ranked + 1)));
  }
  return hits;
}

// The demo prints the first problem when it fails: it must start by naming what went wrong.
TEST(TavloDemoScenarioTest, APlannedRunPassesAndEachFaultIsNamed) {
  Hits hits = plannedRun("run-0");  // left queued by an earlier run: not this run's
  const Hits run = plannedRun("run-1");
  hits.insert(hits.end(), run.begin(), run.end());
  EXPECT_EQ(std::vector<std::string>{}, TavloDemoScenario::check(hits, "s", "run-1"));

  const std::pair<void (*)(Hits&), const char*> faults[] = {  // at 1-3 the screens, at 4-11 ranks 1-8
      {[](Hits& h) { h.pop_back(); }, "streaming hit 8 (stop) did not arrive"},
      {[](Hits& h) { h.push_back(h[11]); }, "an unexpected streaming hit arrived: state hit with code 12 ranked 8"},
      {[](Hits& h) { h[7].parameters["cmsPS"] = "5"; }, "streaming hit 4 should be the pause, a state hit with code 7"},
      {[](Hits& h) { std::swap(h[1], h[2]); }, "audience hit 1 of 3 should be \"home /  / \"; it was \"catalogue"},
  };
  for (const auto& [apply, problem] : faults) {
    Hits faulty = run;
    apply(faulty);
    const std::vector<std::string> problems = TavloDemoScenario::check(faulty, "s", "run-1");
    EXPECT_EQ(problem, problems.empty() ? "(none)" : problems[0].substr(0, std::string(problem).size()));
  }
}

}  // namespace
