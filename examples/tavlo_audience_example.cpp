// An application measuring three screens with an audience tagger.
//
//   tavlo_audience_example http://127.0.0.1:8080
//
// Every endpoint, authorisation included, is taken at the given base URL. The program
// exits once its hits are all answered with status 200 (status 0), with status 1 once one
// was dropped or after 30 seconds of waiting.
#include <cstdio>
#include <string>

#include "tavlo/TavloApplication.h"
#include "tavlo/TavloDelivery.h"
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
  if (!sent) std::printf("hits still pending after 30 seconds\n");
  // Every hit answered with 200, none dropped (a server answering 404 drains the queue too).
  uint64_t queued = 0, answered = 0, dropped = 0;
  for (const TavloDeliveryCounts& counts : TavloDeliveryStats()) {
    queued += counts.queued;
    answered += counts.sent;
    dropped += counts.droppedInAll();
  }
  const bool delivered = sent && dropped == 0 && answered == queued;
  std::printf("%llu of %llu hits answered with 200, %llu dropped\n", static_cast<unsigned long long>(answered),
              static_cast<unsigned long long>(queued), static_cast<unsigned long long>(dropped));
  TavloShutdown();
  return delivered ? 0 : 1;
}
