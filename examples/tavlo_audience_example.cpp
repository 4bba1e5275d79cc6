// An application measuring three screens with an audience tagger.
//
//   tavlo_audience_example http://127.0.0.1:8080
//
// Every endpoint, authorisation included, is taken at the given base URL. The program
// exits once its hits are sent (status 0) or after 30 seconds (status 1).
#include <cstdio>
#include <string>

#include "tavlo/TavloApplication.h"
#include "tavlo/TavloAudienceTagger.h"
#include "tavlo/platform/TavloPlatform.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s BASE_URL   (for example http://127.0.0.1:8080)\n", argv[0]);
    return 2;
  }

  // Before the first tagger: say who we are and where hits go.
  TavloApplicationInfo application;
  application.bundleName = "TavloAudienceExample";
  application.bundleVersion = "1.0";
  TavloPlatform platform = TavloPlatform::linuxDefaults(application);
  platform.endpoints = TavloEndpoints::allAt(argv[1]);
  TavloPlatform::install(platform);

  auto tagger = TavloAudienceTagger::TavloAudienceTaggerWithSerial("example-serial", "viewer-42");
  tagger->setLoggingMode(0);  // print everything the library does
  tagger->setNewLevel1("living-room");

  tagger->sendHitWithLevel1("home");
  tagger->sendHitWithLevel1("catalogue", "films");
  tagger->sendHitWithLevel1("player", "films", "a-film-title");

  const bool sent = TavloWaitForPendingHits(30);
  std::printf(sent ? "all hits sent\n" : "hits still pending after 30 seconds\n");
  TavloShutdown();
  return sent ? 0 : 1;
}
