// What the demo's viewer does, and the hits that must reach the collector because of it.
#pragma once

#include <string>
#include <vector>

#include "TavloDemoHit.h"

/// The demo's script, in demo seconds from its start: three screens measured by an
/// audience tagger, then one medium played by a streaming tagger: play, pause, play
/// again, stop. The events fall half a second away from the tagger's one-second ticks,
/// so which polling hits come between them never depends on rounding:
///
///     play at 3       ranks 1 (play), 2 (poll at 10 s), 3 (poll at 20 s)
///     pause at 33.5   ranks 4 (pause), 5 (poll at 40 s, carrying the pause's code)
///     play at 48.5    ranks 6 (play), 7 (poll at 60 s)
///     stop at 68.5    rank 8 (stop)
///
/// Polling counts seconds since the first play and runs on through the pause.
class TavloDemoScenario {
 public:
  struct Screen {
    std::string level1, level2, level3;
  };
  enum Action { ShowScreen, Play, Pause, Stop };
  struct Step {
    double at;       // demo seconds from the start
    Action action;
    size_t screen;   // for ShowScreen: index in screens()
  };
  struct ExpectedStreamingHit {
    const char* eventType;  // "cmsEV": "state" or "polling"
    const char* code;       // "cmsPS"
    const char* meaning;    // for messages
  };

  static const std::vector<Screen>& screens();
  static const std::vector<Step>& steps();
  /// Demo seconds from the start to the last step.
  static double duration();
  /// The streaming hits, in the order of their ranks (1, 2, ...).
  static const std::vector<ExpectedStreamingHit>& streamingHits();

  /// What is wrong with `received` (the requests, in the order they arrived), one
  /// sentence each; empty when every expected hit arrived once, in order, and nothing
  /// else did. Only hits for `serial` that carry `customerData` as "crmid" count: any
  /// other (a hit an earlier run left queued, say) is not this run's.
  static std::vector<std::string> check(const std::vector<TavloDemoHit>& received, const std::string& serial,
                                        const std::string& customerData);
};
