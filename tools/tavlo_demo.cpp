// tavlo-demo: the library at work, from the first screen to the last hit.
//
//   tavlo-demo [--speed N | --real-time] [--collector URL] [--serial SERIAL] [--data-dir DIR] [--verbose]
//
// It starts a collection and authorisation server of its own on 127.0.0.1, points the
// library at it, measures three screens with an audience tagger and plays a film with a
// streaming tagger (play, pause, play again, stop), and prints every request the server
// receives as one line. Time runs 20 times faster than real time, through the library's
// own seams (a scaled clock and a main queue whose timers run on the same time line), so
// the polling hits at 10, 20, 40 and 60 seconds of playing show within seconds. It exits
// 0 only if every hit it expected arrived, in order and ranked as expected.
//
// With --collector it sends to that server instead; it then prints each hit as the
// library sends it with the status it was answered, cannot check what the server made
// of it, and exits 0 once every hit was sent.
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "TavloDemoHit.h"
#include "TavloDemoScenario.h"
#include "TavloDemoServer.h"
#include "TavloPacedMainQueue.h"
#include "TavloScaledClock.h"
#include "TavloTimeScale.h"
#include "tavlo/TavloApplication.h"
#include "tavlo/TavloDelivery.h"
#include "tavlo/TavloAudienceTagger.h"
#include "tavlo/TavloStreamingTagger.h"
#include "tavlo/TavloVersion.h"
#include "tavlo/platform/TavloPlatform.h"

namespace {

constexpr int kExitOK = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr const char* kApplicationName = "TavloDemo";
constexpr double kDefaultSpeed = 20;
constexpr double kFastestSpeed = 1000;
// Real seconds allowed for the queue to empty once the viewing is over, by default.
constexpr double kDefaultWaitSeconds = 30;
constexpr double kLongestWaitSeconds = 3600;

const char* const kUsage =
    "usage: tavlo-demo [--speed N | --real-time] [--collector URL] [--serial SERIAL]\n"
    "                  [--data-dir DIR] [--wait SECONDS] [--verbose]\n"
    "       tavlo-demo --serve PORT\n"
    "       tavlo-demo --help | --version\n";

const char* const kDetails =
    "\n"
    "Measures three screens and plays a film (play, pause, play again, stop) against a\n"
    "collection and authorisation server of its own on 127.0.0.1, printing every request\n"
    "the server receives, then a summary. Exits 0 when every expected hit arrived.\n"
    "\n"
    "  --speed N        run time N times faster than real time, 1 to 1000 (default 20):\n"
    "                   the 68.5 s of viewing, with its polling hits at 10, 20, 40 and 60 s\n"
    "                   of playing, take 68.5 / N seconds\n"
    "  --real-time      run at the wall clock's pace, on the library's own clock and main\n"
    "                   queue (about 70 seconds)\n"
    "  --collector URL  send to the collection and authorisation server at URL instead;\n"
    "                   arrivals cannot be checked then: exits 0 once every hit was sent\n"
    "  --serial SERIAL  the measurement account (default tavlo-demo)\n"
    "  --data-dir DIR   keep the queue file and the device identifier under DIR, as\n"
    "                   $XDG_DATA_HOME would (default: a new temporary directory, kept)\n"
    "  --wait SECONDS   how long to wait, in real seconds, for the last hits to be sent\n"
    "                   once the viewing is over (default 30); hits still waiting then\n"
    "                   stay in the queue file, for the next start\n"
    "  --verbose        print every line the library logs, on standard error\n"
    "  --serve PORT     measure nothing: be a local collection and authorisation server\n"
    "                   on 127.0.0.1:PORT (0: any free port) for an application under\n"
    "                   development, printing every hit it receives, until interrupted\n"
    "\n"
    "Exit status: 0 every expected hit arrived (or, with --collector, was sent), 1 not,\n"
    "2 wrong usage.\n";

struct Options {
  double speed = kDefaultSpeed;
  bool realTime = false;
  std::optional<std::string> collector;
  std::string serial = "tavlo-demo";
  std::optional<std::string> dataDirectory;
  double waitSeconds = kDefaultWaitSeconds;
  bool verbose = false;
  std::optional<int> servePort;
};

int usageError(const std::string& message) {
  std::fprintf(stderr, "tavlo-demo: %s\n%s", message.c_str(), kUsage);
  return kExitUsage;
}

// Reads the command line into `options`; nothing when it was fine, else the exit status.
std::optional<int> parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string(argv[++i]);
    };
    if (argument == "--help" || argument == "-h") {
      std::printf("%s%s", kUsage, kDetails);
      return kExitOK;
    } else if (argument == "--version") {
      std::printf("tavlo-demo %s\n", TavloVersionString);
      return kExitOK;
    } else if (argument == "--real-time") {
      options.realTime = true;
    } else if (argument == "--verbose") {
      options.verbose = true;
    } else if (argument == "--speed") {
      const auto text = value();
      char* end = nullptr;
      const double speed = text ? std::strtod(text->c_str(), &end) : NAN;
      if (!text || end == text->c_str() || *end != '\0' || !(speed >= 1 && speed <= kFastestSpeed)) {
        return usageError("--speed takes a number from 1 to 1000");
      }
      options.speed = speed;
    } else if (argument == "--wait") {
      const auto text = value();
      char* end = nullptr;
      const double seconds = text ? std::strtod(text->c_str(), &end) : NAN;
      if (!text || end == text->c_str() || *end != '\0' || !(seconds >= 0 && seconds <= kLongestWaitSeconds)) {
        return usageError("--wait takes a number of seconds from 0 to 3600");
      }
      options.waitSeconds = seconds;
    } else if (argument == "--collector") {
      options.collector = value();
      if (!options.collector || !(options.collector->starts_with("http://") || options.collector->starts_with("https://"))) {
        return usageError("--collector takes a base URL such as https://collector.example");
      }
      while (options.collector->ends_with("/")) options.collector->pop_back();
    } else if (argument == "--serial") {
      const auto serial = value();
      if (!serial || serial->empty()) return usageError("--serial takes the measurement account");
      options.serial = *serial;
    } else if (argument == "--serve") {
      const auto text = value();
      char* end = nullptr;
      const long port = text ? std::strtol(text->c_str(), &end, 10) : -1;
      if (!text || end == text->c_str() || *end != '\0' || port < 0 || port > 65535) {
        return usageError("--serve takes a port from 0 to 65535");
      }
      options.servePort = static_cast<int>(port);
    } else if (argument == "--data-dir") {
      options.dataDirectory = value();
      if (!options.dataDirectory || options.dataDirectory->empty()) return usageError("--data-dir takes a directory");
    } else {
      return usageError("unknown argument " + std::string(argument));
    }
  }
  if (options.realTime) options.speed = 1;
  return std::nullopt;
}

// Prints whole lines from any thread, each flushed at once so piped output keeps its order.
class LinePrinter {
 public:
  void print(const std::string& line) {
    std::lock_guard lock(protector_);
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
  }

 private:
  std::mutex protector_;
};

// The library's log lines: errors and warnings always reach standard error, everything
// (the streaming tagger's hit dumps included) with --verbose.
class DemoLogSink : public TavloLogSink {
 public:
  explicit DemoLogSink(bool verbose) : verbose_(verbose) {}

  void writeLine(std::string_view line, TavloLogLevel level) override {
    if (verbose_ || level != TavloLogLevel::Info) {
      std::fprintf(stderr, "library: %.*s\n", static_cast<int>(line.size()), line.data());
    }
  }

 private:
  const bool verbose_;
};

// Sits between the library and its HTTP client to show each exchange and count the
// authorisations; what became of each hit comes from the library's delivery counts.
class CountingHttpClient : public TavloHttpClient {
 public:
  using Observer = std::function<void(const TavloDemoHit& hit, const TavloHttpResponse& response)>;

  CountingHttpClient(std::shared_ptr<TavloHttpClient> client, Observer observer)
      : client_(std::move(client)), observer_(std::move(observer)) {}

  TavloHttpResponse get(const TavloHttpRequest& request) override {
    TavloHttpResponse response = client_->get(request);
    const TavloDemoHit hit = TavloDemoHit::fromURL(request.url);
    if (hit.kind == TavloDemoHit::Authorisation) ++authorisations;
    if (observer_) observer_(hit, response);
    return response;
  }

  std::atomic<int> authorisations{0};

 private:
  const std::shared_ptr<TavloHttpClient> client_;
  const Observer observer_;
};

// Stands in for a media player: its position, in whole seconds, advances while it plays.
class DemoPlayer : public TavloStreamingTaggerDelegate {
 public:
  explicit DemoPlayer(std::function<double()> now) : now_(std::move(now)) {}

  void play() {
    std::lock_guard lock(protector_);
    playingSince_ = now_();
  }
  void pause() {
    std::lock_guard lock(protector_);
    position_ = positionLocked();
    playingSince_.reset();
  }
  void stop() { pause(); }
  int64_t position() {
    std::lock_guard lock(protector_);
    return static_cast<int64_t>(std::floor(positionLocked()));
  }

  // Asked by the tagger at each event and at each of its one-second ticks.
  std::optional<int64_t> currentPositionForStreamingTagger(TavloStreamingTagger&) override { return position(); }

 private:
  double positionLocked() const { return playingSince_ ? position_ + (now_() - *playingSince_) : position_; }

  const std::function<double()> now_;
  std::mutex protector_;
  double position_ = 0;                 // guarded by protector_
  std::optional<double> playingSince_;  // guarded by protector_
};

// The data directory: the one asked for, or a new temporary one. Empty if it cannot be made.
std::string prepareDataDirectory(const Options& options) {
  std::error_code error;
  if (options.dataDirectory) {
    const std::filesystem::path directory = std::filesystem::absolute(*options.dataDirectory, error);
    if (error) return {};
    std::filesystem::create_directories(directory, error);
    return error ? std::string() : directory.lexically_normal().string();
  }
  const char* temporary = std::getenv("TMPDIR");
  std::string pattern = std::string(temporary && *temporary == '/' ? temporary : "/tmp") + "/tavlo-demo.XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) return {};
  return pattern;
}

std::string formatSeconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", seconds);
  return text;
}

}  // namespace

// The local collector: answers as the authorisation and collection server, and prints
// each hit it receives in the demo's table, until SIGINT or SIGTERM.
int serve(int port) {
  // Blocked before the server's threads start, so that they inherit it and the signal
  // reaches sigwait below instead of ending the process.
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGINT);
  sigaddset(&stopping, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
  LinePrinter printer;
  const auto started = std::chrono::steady_clock::now();
  std::atomic<int> hits{0};
  try {
    TavloDemoServer server(
        [&](const std::string& target) {
          const TavloDemoHit hit = TavloDemoHit::fromURL(target);
          if (hit.kind != TavloDemoHit::Authorisation) ++hits;
          printer.print(hit.describe(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count()));
        },
        port);
    printer.print("tavlo-demo: serving authorisation and collection at " + server.baseURL() +
                  " (give it as every endpoint's base URL); Ctrl-C stops");
    printer.print(TavloDemoHit::header());
    int received = 0;
    sigwait(&stopping, &received);
    server.stop();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tavlo-demo: cannot serve: %s\n", failure.what());
    return kExitFailed;
  }
  std::printf("%d hits received\n", hits.load());
  return kExitOK;
}

int main(int argc, char** argv) {
  Options options;
  if (const auto status = parseOptions(argc, argv, options)) return *status;
  if (options.servePort) return serve(*options.servePort);

  const std::string dataDirectory = prepareDataDirectory(options);
  if (dataDirectory.empty()) {
    std::fprintf(stderr, "tavlo-demo: cannot make the data directory\n");
    return kExitFailed;
  }
  // Read by the library's file and secure-store seams when the platform is made.
  ::setenv("XDG_DATA_HOME", dataDirectory.c_str(), 1);
  // The embedded server is on this machine: never reach it through a proxy.
  if (!options.collector) {
    for (const char* variable : {"no_proxy", "NO_PROXY"}) {
      const char* current = std::getenv(variable);
      const std::string value = std::string("127.0.0.1") + (current && *current ? std::string(",") + current : "");
      ::setenv(variable, value.c_str(), 1);
    }
  }
  const std::string queueFile = dataDirectory + "/" + kApplicationName + "/TavloCache/requests.ser";
  // Hits of this run carry it as customer data: a hit an earlier run left in the queue
  // file (sent first, at start) is told apart by it.
  const std::string customerData = "demo-run-" + std::to_string(::getpid()) + "-" +
                                   std::to_string(std::chrono::system_clock::now().time_since_epoch().count() % 1000000);

  LinePrinter printer;
  TavloApplicationInfo application;
  application.bundleName = kApplicationName;
  application.bundleVersion = TavloVersionString;
  TavloPlatform platform = TavloPlatform::linuxDefaults(application);

  // Time: the library's own clock and main queue in real time; otherwise the same seams
  // on a time line running `speed` times faster.
  const TavloTimeScale scale{TavloTimeScale::SteadyClock::now(), options.speed};
  std::shared_ptr<TavloPacedMainQueue> pacedQueue;
  if (!options.realTime) {
    platform.clock = std::make_shared<TavloScaledClock>(platform.clock, scale);
    pacedQueue = std::make_shared<TavloPacedMainQueue>(scale);
    platform.mainQueue = pacedQueue;
  }
  const std::shared_ptr<TavloClock> clock = platform.clock;
  const TavloDate origin = options.realTime ? clock->now() : std::static_pointer_cast<TavloScaledClock>(clock)->origin();
  const auto elapsed = [clock, origin] { return clock->now() - origin; };

  // Where hits go, and who reports them: the embedded server prints what it receives;
  // with a real collector, the demo prints what the library sends.
  std::unique_ptr<TavloDemoServer> server;
  std::string baseURL;
  if (options.collector) {
    baseURL = *options.collector;
  } else {
    try {
      server = std::make_unique<TavloDemoServer>([&printer, elapsed](const std::string& target) {
        printer.print(TavloDemoHit::fromURL(target).describe(elapsed()));
      });
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "tavlo-demo: cannot start the embedded server: %s\n", failure.what());
      return kExitFailed;
    }
    baseURL = server->baseURL();
  }
  platform.endpoints = TavloEndpoints::allAt(baseURL);
  CountingHttpClient::Observer sendReporter;
  if (options.collector) {
    sendReporter = [&printer, elapsed](const TavloDemoHit& hit, const TavloHttpResponse& response) {
      const std::string answer =
          response.status ? "answered " + std::to_string(*response.status) : "no answer (" + response.error + ")";
      printer.print(hit.describe(elapsed()) + "  -> " + answer);
    };
  }
  const auto counter = std::make_shared<CountingHttpClient>(platform.httpClient, sendReporter);
  platform.httpClient = counter;
  const auto logSink = std::make_shared<DemoLogSink>(options.verbose);
  platform.logSink = logSink;
  TavloPlatform::install(platform);
  const std::shared_ptr<TavloMainQueue> mainQueue = platform.mainQueue;

  std::printf("tavlo-demo %s: measuring %s against the %s at %s\n", TavloVersionString, "3 screens and a film",
              options.collector ? "collector" : "embedded collection and authorisation server", baseURL.c_str());
  if (options.realTime) {
    std::printf("time: real time, on the library's own clock and main queue (%s s of viewing)\n",
                formatSeconds(TavloDemoScenario::duration()).c_str());
  } else {
    std::printf("time: %g times faster than real time (%s s of viewing in %s s; --real-time for real time)\n",
                options.speed, formatSeconds(TavloDemoScenario::duration()).c_str(),
                formatSeconds(TavloDemoScenario::duration() / options.speed).c_str());
  }
  std::printf("data directory: %s\n\n", dataDirectory.c_str());
  printer.print(TavloDemoHit::header());
  // Each hit the library gives up on, as it happens.
  TavloSetDropHandler([&printer, elapsed](const TavloDroppedHit& drop) {
    char at[32];
    std::snprintf(at, sizeof at, "%8.1fs", elapsed());
    printer.print(std::string(at) + "  dropped: a " + (drop.requestType ? "streaming" : "audience") + " hit, " +
                  TavloDropReasonName(drop.reason) +
                  (drop.httpStatus ? " " + std::to_string(drop.httpStatus) : std::string()));
  });

  // The taggers, as an application makes them.
  const auto audience = TavloAudienceTagger::TavloAudienceTaggerWithSerial(options.serial, customerData);
  if (options.verbose) audience->setLoggingMode(0);
  const std::function<double()> playerClock =
      pacedQueue ? std::function<double()>([pacedQueue] { return pacedQueue->now(); }) : std::function<double()>(elapsed);
  const auto player = std::make_shared<DemoPlayer>(playerClock);
  const auto film = TavloDemoScenario::screens().back().level3;
  std::shared_ptr<TavloStreamingTagger> streaming = TavloStreamingTagger::TavloStreamingTaggerWithSerial(
      options.serial, film, 80, "http://media.tavlo.example/night-train.m3u8", 5400,
      TavloStreamingTypeDelegatePosition, [&](TavloStreamingConfig& config) {
        config.setLevel1("films");
        config.setLevel2("drama");
        config.setMediaGenre("drama");
        config.setMediaProvider("tavlo-demo");
        config.setCustomerData(customerData);
      });
  streaming->setDelegate(player);

  // The viewer's script runs on the main queue, as an application's events would on its
  // main loop. Every step is scheduled from one task, so they share one starting point.
  std::promise<void> scriptEnded;
  const auto perform = [&](const TavloDemoScenario::Step& step) {
    const auto say = [&](const std::string& what) {
      char at[16];
      std::snprintf(at, sizeof at, "%8.1fs", playerClock());
      printer.print(std::string(at) + "  > " + what);
    };
    const auto level = [](const std::string& text) { return text.empty() ? TavloString() : TavloString(text); };
    switch (step.action) {
      case TavloDemoScenario::ShowScreen: {
        const auto& screen = TavloDemoScenario::screens()[step.screen];
        say("the viewer opens the screen \"" + screen.level1 + "\"");
        audience->sendHitWithLevel1(level(screen.level1), level(screen.level2), level(screen.level3));
        break;
      }
      case TavloDemoScenario::Play:
        player->play();
        say("the player plays \"" + film + "\" from " + std::to_string(player->position()) + " s");
        streaming->notifyEvent(TavloStreamingEventPlay);
        break;
      case TavloDemoScenario::Pause:
        player->pause();
        say("the player pauses at " + std::to_string(player->position()) + " s");
        streaming->notifyEvent(TavloStreamingEventPause);
        break;
      case TavloDemoScenario::Stop:
        player->stop();
        say("the player stops at " + std::to_string(player->position()) + " s");
        streaming->notifyEvent(TavloStreamingEventStop);
        break;
    }
  };
  mainQueue->post([&] {
    const auto& steps = TavloDemoScenario::steps();
    for (size_t i = 0; i < steps.size(); ++i) {
      mainQueue->schedule(steps[i].at, false, [&, i] {
        perform(TavloDemoScenario::steps()[i]);
        if (i + 1 == TavloDemoScenario::steps().size()) scriptEnded.set_value();
      });
    }
  });
  // The script's own length, and as much again (at least 30 s) for a busy machine.
  const double scriptSeconds = 2 * TavloDemoScenario::duration() / options.speed + 30;
  const bool scriptDone =
      scriptEnded.get_future().wait_for(std::chrono::duration<double>(scriptSeconds)) == std::future_status::ready;
  const bool drained = scriptDone && TavloWaitForPendingHits(options.waitSeconds);

  // The summary, then a clean exit: the tagger stops its timers as it goes, the library
  // writes its queue file, and the main queue and the server end.
  streaming.reset();
  TavloShutdown();
  TavloSetDropHandler(nullptr);  // it prints through this function's objects
  // Counted once the library has stopped: every hit made is then in the queue or sent.
  const size_t queued = TavloPendingHitCount();
  if (pacedQueue) pacedQueue->stop();
  if (server) server->stop();

  uint64_t sentOfType[2] = {0, 0}, queuedInAll = 0, dropped = 0;
  std::string reasons;  // ", 2 HTTP status", ...
  uint64_t byReason[kTavloDropReasonCount] = {};
  for (const TavloDeliveryCounts& counts : TavloDeliveryStats()) {
    sentOfType[counts.requestType == 1] += counts.sent;
    queuedInAll += counts.queued;
    dropped += counts.droppedInAll();
    for (size_t reason = 0; reason < kTavloDropReasonCount; ++reason) byReason[reason] += counts.dropped[reason];
  }
  for (size_t reason = 0; reason < kTavloDropReasonCount; ++reason) {
    if (byReason[reason]) {
      reasons += (reasons.empty() ? " (" : ", ") + std::to_string(byReason[reason]) + " " +
                 TavloDropReasonName(static_cast<TavloDropReason>(reason));
    }
  }
  if (!reasons.empty()) reasons += ")";
  const uint64_t sent = sentOfType[0] + sentOfType[1];
  std::printf("\nsummary: %llu hits sent (%llu audience, %llu streaming), %llu dropped%s, %zu still queued; "
              "authorisation exchanges: %d\n",
              static_cast<unsigned long long>(sent), static_cast<unsigned long long>(sentOfType[0]),
              static_cast<unsigned long long>(sentOfType[1]), static_cast<unsigned long long>(dropped),
              reasons.c_str(), queued, counter->authorisations.load());
  // Every hit made was answered with 200: none dropped, none left waiting.
  const bool delivered = drained && dropped == 0 && queued == 0 && sent == queuedInAll;
  std::printf("queue file: %s\n", queueFile.c_str());
  std::printf("            (read it with: tavlo-queue list %s)\n", queueFile.c_str());
  std::printf("device identifier: %s/tavlo/secure-store\n", dataDirectory.c_str());

  if (!scriptDone) {
    std::printf("FAILED: the viewing did not finish within %s real seconds\n", formatSeconds(scriptSeconds).c_str());
    // Steps still scheduled on the main queue refer to this function's objects: leave
    // without running them or any destructor.
    std::fflush(stdout);
    std::_Exit(kExitFailed);
  }
  if (options.collector) {
    std::printf("the collector's side cannot be checked from here; %s\n",
                delivered  ? "every hit was answered with status 200"
                : !drained ? "FAILED: hits are still waiting to be sent (they stay in the queue file)"
                           : "FAILED: hits were dropped");
    return delivered ? kExitOK : kExitFailed;
  }
  std::vector<TavloDemoHit> received;
  for (const std::string& target : server->targets()) received.push_back(TavloDemoHit::fromURL(target));
  const std::vector<std::string> problems = TavloDemoScenario::check(received, options.serial, customerData);
  if (!problems.empty() || !delivered) {
    for (const std::string& problem : problems) std::printf("FAILED: %s\n", problem.c_str());
    if (!delivered) std::printf("FAILED: not every hit was answered with status 200\n");
    return kExitFailed;
  }
  std::printf("check: the %zu screens arrived in order, and the %zu streaming hits ranked 1 to %zu: play, polls at 10 "
              "and 20 s, pause, poll at 40 s, play, poll at 60 s, stop\n",
              TavloDemoScenario::screens().size(), TavloDemoScenario::streamingHits().size(),
              TavloDemoScenario::streamingHits().size());
  std::printf("OK: every expected hit arrived\n");
  return kExitOK;
}
