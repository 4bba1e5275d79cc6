// An application's own test of its player integration, written with Tavlo::testkit: it
// plays a film through a streaming tagger and asserts the exact hits the library sends,
// in virtual time and without any network.
//
//   tavlo_testkit_example        (exit 0 when every hit is as expected)
//
// What the kit replaces: the main queue (where the tagger's timers run) and the clock
// move only when the test advances them, the HTTP client answers from a script and
// records every request, the reachability source says "Wi-Fi", the secure store and the
// log live in memory. Everything else is the library an application ships with.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tavlo/TavloApplication.h"
#include "tavlo/TavloStreamingTagger.h"
#include "tavlo/platform/TavloPlatform.h"
#include "tavlo/testkit/TavloCapturingLogSink.h"
#include "tavlo/testkit/TavloManualClock.h"
#include "tavlo/testkit/TavloManualMainQueue.h"
#include "tavlo/testkit/TavloMemorySecureStore.h"
#include "tavlo/testkit/TavloScriptedHttpClient.h"
#include "tavlo/testkit/TavloSettableReachabilitySource.h"

namespace {

int failures = 0;

void expect(bool ok, const std::string& what) {
  if (ok) return;
  ++failures;
  std::fprintf(stderr, "FAILED: %s\n", what.c_str());
}

// The query of a hit URL, one entry per parameter, still percent-encoded.
std::map<std::string, std::string> queryOf(const std::string& url) {
  std::map<std::string, std::string> parameters;
  const size_t query = url.find('?');
  if (query == std::string::npos) return parameters;
  size_t start = query + 1;
  while (start <= url.size()) {
    size_t end = url.find('&', start);
    if (end == std::string::npos) end = url.size();
    const std::string pair = url.substr(start, end - start);
    const size_t equals = pair.find('=');
    if (equals != std::string::npos) parameters[pair.substr(0, equals)] = pair.substr(equals + 1);
    start = end + 1;
  }
  return parameters;
}

}  // namespace

int main() {
  // The queue file goes to the data directory: a fresh one, as a test should have.
  char folder[] = "/tmp/tavlo-testkit-example-XXXXXX";
  if (!mkdtemp(folder)) return 2;
  setenv("XDG_DATA_HOME", folder, 1);

  // The fakes, kept as their own types so the test can drive and inspect them.
  const auto clock = std::make_shared<TavloManualClock>(1700000000);  // 2023-11-14 22:13:20 UTC
  const auto log = std::make_shared<TavloCapturingLogSink>();
  const auto mainQueue = std::make_shared<TavloManualMainQueue>(clock, log);
  const auto http = std::make_shared<TavloScriptedHttpClient>();
  // The authorisation server grants full access and names the collector; the collector
  // accepts every hit.
  http->setHandler([](const TavloHttpRequest& request) {
    if (request.url.find("/m/web/") != std::string::npos) return TavloScriptedHttpClient::answer(200, "OK");
    return TavloScriptedHttpClient::answer(200, "access=full|host=http://collect.tavlo.test/m/web/|cmsVI=7");
  });

  TavloApplicationInfo application;
  application.bundleName = "MyPlayer";
  application.bundleVersion = "2.1";
  TavloPlatform platform = TavloPlatform::linuxDefaults(application);
  platform.clock = clock;
  platform.mainQueue = mainQueue;
  platform.httpClient = http;
  platform.reachabilitySource = std::make_shared<TavloSettableReachabilitySource>();
  platform.secureStore = std::make_shared<TavloMemorySecureStore>();
  platform.logSink = log;
  platform.endpoints = TavloEndpoints::allAt("http://auth.tavlo.test");
  TavloPlatform::install(platform);

  // The application's player integration, as it runs in the product.
  const auto tagger = TavloStreamingTagger::TavloStreamingTaggerWithSerial(
      "my-serial", "night-train", 80, "http://media.example/night-train.m3u8", 5400, TavloStreamingTypeNoPosition,
      [](TavloStreamingConfig& config) {
        config.setLevel1("films");
        config.setCustomerData("viewer-42");
      });
  tagger->notifyEvent(TavloStreamingEventPlay, 0);
  mainQueue->advanceBy(2);  // two seconds of viewing, in microseconds
  tagger->notifyEvent(TavloStreamingEventPause, 2);
  mainQueue->advanceBy(3);
  tagger->notifyEvent(TavloStreamingEventPlay, 2);
  mainQueue->advanceBy(4);
  tagger->notifyEvent(TavloStreamingEventStop, 6);

  // The agent sends from a thread of its own: wait for it, as an application would.
  expect(TavloWaitForPendingHits(30), "every hit is sent");
  std::vector<std::string> hits;
  for (const auto& request : http->requests()) {
    if (request.url.find("/m/web/") != std::string::npos) hits.push_back(request.url);
  }

  // play (5) at 0, pause (7) at 2, play at 2, stop (12) at 6: ranked in order, in the
  // visit the authorisation opened.
  const std::vector<std::map<std::string, std::string>> expected = {
      {{"cmsPS", "5"}, {"cmsPO", "0"}, {"cmsRK", "1"}},
      {{"cmsPS", "7"}, {"cmsPO", "2"}, {"cmsRK", "2"}},
      {{"cmsPS", "5"}, {"cmsPO", "2"}, {"cmsRK", "3"}},
      {{"cmsPS", "12"}, {"cmsPO", "6"}, {"cmsRK", "4"}},
  };
  expect(hits.size() == expected.size(), "four hits, got " + std::to_string(hits.size()));
  for (size_t i = 0; i < hits.size() && i < expected.size(); ++i) {
    expect(hits[i].rfind("http://collect.tavlo.test/m/web/my-serial?", 0) == 0, "hit " + hits[i] + " goes to the collector");
    auto parameters = queryOf(hits[i]);
    for (const auto& [key, value] : expected[i]) {
      expect(parameters[key] == value, "hit " + std::to_string(i + 1) + ": " + key + "=" + parameters[key] + ", not " + value);
    }
    expect(parameters["cmsSN"] == "night-train" && parameters["cmsVI"] == "7" && parameters["crmid"] == "viewer-42",
           "hit " + std::to_string(i + 1) + " names the film, the visit and the viewer: " + hits[i]);
  }
  expect(!log->contains("(ERROR)"), "nothing went wrong on the way");

  TavloShutdown();
  std::filesystem::remove_all(folder);
  std::printf(failures == 0 ? "the player integration sends exactly the expected hits\n" : "%d checks failed\n", failures);
  return failures == 0 ? 0 : 1;
}
