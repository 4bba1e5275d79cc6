// An application measuring a film played by a simulated media player: play, pause,
// play again, stop, over a few seconds.
//
//   tavlo_streaming_example http://127.0.0.1:8080
//
// Every endpoint, authorisation included, is taken at the given base URL. The program
// exits once its hits are all answered with status 200 (status 0), with status 1 once one
// was dropped or after 60 seconds of waiting.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "tavlo/TavloApplication.h"
#include "tavlo/TavloDelivery.h"
#include "tavlo/TavloStreamingTagger.h"
#include "tavlo/platform/TavloPlatform.h"

namespace {

// Stands in for a real player: its position advances while it plays.
class SimulatedPlayer : public TavloStreamingTaggerDelegate {
 public:
  void play() {
    startedAt_ = now() - position_.load();
    playing_ = true;
  }
  void pause() {
    position_ = currentPosition();
    playing_ = false;
  }
  int64_t currentPosition() const { return playing_ ? now() - startedAt_.load() : position_.load(); }

  // Asked by the tagger at events and, on the library's thread, once a second.
  std::optional<int64_t> currentPositionForStreamingTagger(TavloStreamingTagger&) override { return currentPosition(); }

 private:
  // Milliseconds on the steady clock: what a player's own clock would report.
  static int64_t now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  std::atomic<bool> playing_{false};
  std::atomic<int64_t> startedAt_{0};
  std::atomic<int64_t> position_{0};
};

// The viewer's pace: a real player reports these moments as they happen.
void watchFor(std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s BASE_URL   (for example http://127.0.0.1:8080)\n", argv[0]);
    return 2;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);

  // Before the first tagger: say who we are and where hits go.
  TavloApplicationInfo application;
  application.bundleName = "TavloStreamingExample";
  application.bundleVersion = "1.0";
  TavloPlatform platform = TavloPlatform::linuxDefaults(application);
  platform.endpoints = TavloEndpoints::allAt(argv[1]);
  TavloPlatform::install(platform);

  const auto player = std::make_shared<SimulatedPlayer>();
  const auto tagger = TavloStreamingTagger::TavloStreamingTaggerWithSerial(
      "example-serial", "example-film", 100, "http://media.example/example-film.m3u8", 5400,
      TavloStreamingTypeDelegatePosition, [](TavloStreamingConfig& config) {
        config.setLevel1("films");
        config.setLevel2("drama");
        config.setCustomerData("viewer-42");
        config.setMediaGenre("drama");
        config.setMediaProvider("example-provider");
      });
  tagger->setLoggingMode(0);  // print everything the library does
  tagger->setDelegate(player);

  // Each event more than a second after the one before, so none is merged by the
  // library's one-second throttle: four hits.
  player->play();
  tagger->notifyEvent(TavloStreamingEventPlay);
  watchFor(std::chrono::milliseconds(1500));
  player->pause();
  tagger->notifyEvent(TavloStreamingEventPause);
  watchFor(std::chrono::milliseconds(1500));
  player->play();
  tagger->notifyEvent(TavloStreamingEventPlay);
  watchFor(std::chrono::milliseconds(1500));
  tagger->notifyEvent(TavloStreamingEventStop);

  const double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
  const bool sent = TavloWaitForPendingHits(left > 0 ? left : 0);
  if (!sent) std::printf("hits still pending after 60 seconds\n");
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
