// The C interface over the C++ taggers. Every entry point is noexcept and runs its whole
// body inside guard(), so nothing thrown inside the library, or by a callback, reaches a
// C caller.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/TavloAgent.h"
#include "platform/TavloLogger.h"
#include "tavlo/TavloApplication.h"
#include "tavlo/TavloAudienceTagger.h"
#include "tavlo/TavloDelivery.h"
#include "tavlo/TavloStreamingTagger.h"
#include "tavlo/TavloVersion.h"
#include "tavlo/platform/TavloPlatform.h"
#include "tavlo/tavlo.h"
#include "util/TavloLogSafe.h"
#include "util/TavloText.h"

namespace {

// Logging must not throw either: a line that cannot be built or written is lost.
void logError(const char* function, const char* what) noexcept {
  try {
    TavloLogger::log(std::string(function) + " - " + TavloLogSafe(what), TavloLoggingModeError);
  } catch (...) {
  }
}

template <typename Body>
void guard(const char* function, Body&& body) noexcept {
  try {
    body();
  } catch (const std::exception& error) {
    logError(function, (std::string("Failed (") + error.what() + "): nothing done").c_str());
  } catch (...) {
    logError(function, "Failed (unknown exception): nothing done");
  }
}

// As above, answering `fallback` when the body throws.
template <typename Result, typename Body>
Result guard(const char* function, Result fallback, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& error) {
    logError(function, (std::string("Failed (") + error.what() + "): nothing done").c_str());
  } catch (...) {
    logError(function, "Failed (unknown exception): nothing done");
  }
  return fallback;
}

// False, with an error line, when the caller passed NULL for a handle.
bool given(const void* handle, const char* function, const char* what) noexcept {
  if (handle != nullptr) return true;
  try {
    logError(function, (std::string("No ") + what + " given (NULL): nothing done").c_str());
  } catch (...) {
  }
  return false;
}

TavloString fromC(const char* text) { return text ? TavloString(text) : std::nullopt; }

// A malloc'd copy for the caller, or NULL for an absent value.
char* toC(const TavloString& value) {
  if (!value) return nullptr;
  auto* copy = static_cast<char*>(std::malloc(value->size() + 1));
  if (!copy) throw std::bad_alloc();
  std::memcpy(copy, value->c_str(), value->size() + 1);
  return copy;
}

// The holder of a C callback and its release. From the call that hands them over, the
// release is ours to call whatever happens: when even the holder cannot be made, it is
// called at once, and the result is null.
template <typename Holder, typename Function>
std::shared_ptr<Holder> holdCallback(const char* function, Function callback, tavlo_release_fn release,
                                     void* user_data) noexcept {
  try {
    return std::make_shared<Holder>(callback, release, user_data);
  } catch (...) {
    logError(function, "No memory for the callback: it is released unused");
    if (release) {
      try {
        release(user_data);
      } catch (...) {
        logError("tavlo_release_fn", "The release callback threw: ignored");
      }
    }
    return nullptr;
  }
}

bool hasControlCharacter(const char* text) {
  for (const char* c = text; c && *c; ++c) {
    const auto byte = static_cast<unsigned char>(*c);
    if (byte < 0x20 || byte == 0x7f) return true;
  }
  return false;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    const char c = text[i];
    if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != prefix[i]) return false;
  }
  return true;
}

// "http://" or "https://", then a host, in characters a URL may carry as they are.
bool isUsableBaseURL(std::string_view url) {
  const size_t scheme = startsWithIgnoringCase(url, "http://") ? 7 : startsWithIgnoringCase(url, "https://") ? 8 : 0;
  if (scheme == 0 || !TavloIsURLSafeText(url)) return false;
  while (!url.empty() && url.back() == '/') url.remove_suffix(1);
  return url.size() > scheme && url[scheme] != '/';
}

// Levels by number. Plain functions rather than member pointers: GCC's flow analysis
// misreads calls through a table of member pointers as reading uninitialised memory.
using LevelGetter = TavloString (*)(const TavloTagger&);
using LevelSetter = void (*)(TavloTagger&, TavloString);
constexpr LevelGetter kLevelGetters[TavloTagger::kNewLevelCount] = {
    [](const TavloTagger& t) { return t.theNewLevel1(); }, [](const TavloTagger& t) { return t.theNewLevel2(); },
    [](const TavloTagger& t) { return t.theNewLevel3(); }, [](const TavloTagger& t) { return t.theNewLevel4(); },
    [](const TavloTagger& t) { return t.theNewLevel5(); }, [](const TavloTagger& t) { return t.theNewLevel6(); },
    [](const TavloTagger& t) { return t.theNewLevel7(); }, [](const TavloTagger& t) { return t.theNewLevel8(); },
    [](const TavloTagger& t) { return t.theNewLevel9(); }, [](const TavloTagger& t) { return t.theNewLevel10(); },
    [](const TavloTagger& t) { return t.theNewLevel11(); }};
constexpr LevelSetter kLevelSetters[TavloTagger::kNewLevelCount] = {
    [](TavloTagger& t, TavloString v) { t.setNewLevel1(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel2(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel3(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel4(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel5(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel6(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel7(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel8(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel9(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel10(std::move(v)); },
    [](TavloTagger& t, TavloString v) { t.setNewLevel11(std::move(v)); }};

constexpr int kStreamingLevelCount = 5;
using ConfigLevelSetter = void (*)(TavloStreamingConfig&, TavloString);
constexpr ConfigLevelSetter kConfigLevelSetters[kStreamingLevelCount] = {
    [](TavloStreamingConfig& c, TavloString v) { c.setLevel1(std::move(v)); },
    [](TavloStreamingConfig& c, TavloString v) { c.setLevel2(std::move(v)); },
    [](TavloStreamingConfig& c, TavloString v) { c.setLevel3(std::move(v)); },
    [](TavloStreamingConfig& c, TavloString v) { c.setLevel4(std::move(v)); },
    [](TavloStreamingConfig& c, TavloString v) { c.setLevel5(std::move(v)); }};
using StreamingLevelGetter = TavloString (*)(const TavloStreamingTagger&);
constexpr StreamingLevelGetter kStreamingLevelGetters[kStreamingLevelCount] = {
    [](const TavloStreamingTagger& t) { return t.level1(); }, [](const TavloStreamingTagger& t) { return t.level2(); },
    [](const TavloStreamingTagger& t) { return t.level3(); }, [](const TavloStreamingTagger& t) { return t.level4(); },
    [](const TavloStreamingTagger& t) { return t.level5(); }};

// True, with an error line, when `index` is one of 1 ... `count`.
bool inRange(int index, int count, const char* function) noexcept {
  if (index >= 1 && index <= count) return true;
  try {
    logError(
        function,
        ("Level " + std::to_string(index) + " is not one of 1 to " + std::to_string(count) + ": nothing done").c_str());
  } catch (...) {
  }
  return false;
}

// A C callback's user data and release: the release runs once, when the holder goes. What
// it throws is logged where a log can take it (`report`), and ignored either way.
class CallbackRelease {
 public:
  CallbackRelease(tavlo_release_fn release, void* userData, bool report)
      : release_(release), userData_(userData), report_(report) {}
  ~CallbackRelease() {
    if (!release_) return;
    try {
      release_(userData_);
    } catch (...) {
      if (report_) logError("tavlo_release_fn", "The release callback threw: ignored");
    }
  }
  CallbackRelease(const CallbackRelease&) = delete;
  CallbackRelease& operator=(const CallbackRelease&) = delete;
  void* userData() const { return userData_; }

 private:
  const tavlo_release_fn release_;
  void* const userData_;
  const bool report_;
};

// The C callbacks behind a streaming tagger's delegate. The C handle holds it strongly and
// the tagger weakly, so the release runs when the handle lets go of it and no call of the
// tagger is still using it: always after the last position call.
class PositionCallback final : public TavloStreamingTaggerDelegate {
 public:
  PositionCallback(tavlo_position_fn position, tavlo_release_fn release, void* userData)
      : position_(position), held_(release, userData, true) {}

  bool suppliesPositions() const { return position_ != nullptr; }

  // What the callback throws, the tagger logs and takes as an unknown position.
  std::optional<int64_t> currentPositionForStreamingTagger(TavloStreamingTagger&) override {
    int64_t position = TavloStreamingTaggerUnknownLocation;
    if (!position_ || position_(held_.userData(), &position) == 0) return std::nullopt;
    return position;
  }

 private:
  const tavlo_position_fn position_;
  const CallbackRelease held_;
};

}  // namespace

struct tavlo_tagger_t {
  std::shared_ptr<TavloTagger> rep;
};

struct tavlo_audience_tagger_t {
  tavlo_tagger_t tagger;
  std::shared_ptr<TavloAudienceTagger> rep;
};

struct tavlo_streaming_tagger_t {
  tavlo_tagger_t tagger;
  std::shared_ptr<TavloStreamingTagger> rep;
  std::mutex positionProtector;
  std::shared_ptr<PositionCallback> position;  // guarded by positionProtector; the tagger's delegate
};

struct tavlo_streaming_config_t {
  TavloStreamingConfig* rep;  // lives as long as the configuration callback runs
};

namespace {
// A C program's log callback as a sink. Its release runs with the sink's destruction,
// that is once the last holder (the platform handle, the installed platform, a line being
// written on some thread) lets go, so always after the last call.
class CallbackLogSink final : public TavloLogSink {
 public:
  // A release that throws is not reported: the sink that would carry the line is this one.
  CallbackLogSink(tavlo_log_fn log, tavlo_release_fn release, void* userData)
      : log_(log), held_(release, userData, false) {}

  void writeLine(std::string_view line, TavloLogLevel level) override {
    try {
      const std::string text(line);  // NUL-terminated for C
      log_(held_.userData(), static_cast<int>(level), text.c_str());
    } catch (...) {
      // A line the callback could not take is lost; it must not end the library's thread.
    }
  }

 private:
  const tavlo_log_fn log_;
  const CallbackRelease held_;
};
}  // namespace

/// A platform as a C program describes it: only what the C interface lets it set. The
/// TavloPlatform itself is built when installed, because the Linux device information
/// takes the application's name and version at construction.
struct tavlo_platform_t {
  TavloApplicationInfo application;
  TavloEndpoints endpoints = TavloEndpoints::compiledDefaults();
  TavloLinuxOptions options;
  /// The sink chosen with tavlo_platform_set_log_callback or _syslog; standard error while empty.
  std::shared_ptr<TavloLogSink> logSink;
};

namespace {
// The platform tavlo_platform_install installs for `platform`: the Linux defaults with
// the application's name and version and the deployment's options, and the endpoints
// and log it chose.
TavloPlatform TavloPlatformFromC(const tavlo_platform_t& platform) {
  TavloPlatform installed = TavloPlatform::linuxDefaults(platform.application, platform.options);
  installed.endpoints = platform.endpoints;
  if (platform.logSink) installed.logSink = platform.logSink;
  return installed;
}

// Printable ASCII, no space: a proxy's URL as libcurl takes it.
bool isUsableProxy(const char* proxy) {
  if (proxy == nullptr || *proxy == '\0') return false;
  for (const char* c = proxy; *c; ++c) {
    if (*c <= ' ' || *c > '~') return false;
  }
  return true;
}

// A base URL with the trailing slashes dropped, as TavloEndpoints::allAt drops them.
std::string withoutTrailingSlashes(std::string url) {
  while (!url.empty() && url.back() == '/') url.pop_back();
  return url;
}
}  // namespace

// The library, process-wide.

const char* tavlo_version(void) noexcept { return TavloVersionString; }

void tavlo_free(void* ptr) noexcept { std::free(ptr); }

int64_t tavlo_logging_mode(void) noexcept {
  return guard("tavlo_logging_mode", int64_t{TavloLoggingModeError},
               [] { return TavloLogger::sharedLogger().loggingMode(); });
}

void tavlo_set_logging_mode(int64_t mode) noexcept {
  guard("tavlo_set_logging_mode", [&] { TavloLogger::sharedLogger().setLoggingMode(mode); });
}

void tavlo_application_will_enter_foreground(void) noexcept {
  guard("tavlo_application_will_enter_foreground", [] { TavloApplicationWillEnterForeground(); });
}

size_t tavlo_pending_hit_count(void) noexcept {
  return guard("tavlo_pending_hit_count", size_t{0}, [] { return TavloPendingHitCount(); });
}

uint8_t tavlo_wait_for_pending_hits(double timeout_seconds) noexcept {
  // Deadlines are computed on the steady clock: keep them finite and representable.
  constexpr double kLongestWait = 1e9;
  const double timeout = std::isnan(timeout_seconds) || timeout_seconds < 0 ? 0
                         : timeout_seconds > kLongestWait                   ? kLongestWait
                                                                            : timeout_seconds;
  return guard("tavlo_wait_for_pending_hits", uint8_t{0},
               [&] { return static_cast<uint8_t>(TavloWaitForPendingHits(timeout) ? 1 : 0); });
}

void tavlo_shutdown(void) noexcept {
  guard("tavlo_shutdown", [] { TavloShutdown(); });
}

// Consent, delivery counts, flushing.

uint8_t tavlo_set_consent(int consent, uint8_t reset_device_identifier) noexcept {
  return guard("tavlo_set_consent", uint8_t{0}, [&] {
    if (consent < tavlo_consent_granted || consent > tavlo_consent_revoked) {
      logError("tavlo_set_consent", ("Consent " + std::to_string(consent) +
                                     " is not granted (0), pending (1) or revoked (2): nothing done")
                                        .c_str());
      return uint8_t{0};
    }
    TavloSetConsent(static_cast<TavloConsent>(consent), reset_device_identifier != 0);
    return uint8_t{1};
  });
}

int tavlo_consent(void) noexcept {
  return guard("tavlo_consent", static_cast<int>(tavlo_consent_granted), [] { return static_cast<int>(TavloGetConsent()); });
}

const char* tavlo_drop_reason_name(int reason) noexcept {
  if (reason < 0 || reason >= tavlo_drop_reason_count) return "unknown";
  return TavloDropReasonName(static_cast<TavloDropReason>(reason));
}

struct tavlo_stats_snapshot {
  std::vector<TavloDeliveryCounts> counts;
  std::vector<tavlo_delivery_counts> entries;  // pointing into `counts`
};

namespace {
tavlo_delivery_counts toC(const TavloDeliveryCounts& counts) {
  tavlo_delivery_counts entry{};
  entry.serial = counts.serial.c_str();
  entry.request_type = counts.requestType;
  entry.queued = counts.queued;
  entry.sent = counts.sent;
  entry.dropped_in_all = counts.droppedInAll();
  static_assert(tavlo_drop_reason_count == kTavloDropReasonCount, "the C reasons mirror the C++ ones");
  for (size_t reason = 0; reason < kTavloDropReasonCount; ++reason) entry.dropped[reason] = counts.dropped[reason];
  return entry;
}
}  // namespace

tavlo_stats_t* tavlo_stats(void) noexcept {
  return guard("tavlo_stats", static_cast<tavlo_stats_t*>(nullptr), [] {
    auto stats = std::make_unique<tavlo_stats_snapshot>();
    stats->counts = TavloDeliveryStats();
    for (const TavloDeliveryCounts& counts : stats->counts) stats->entries.push_back(toC(counts));
    return stats.release();
  });
}

size_t tavlo_stats_count(const tavlo_stats_t* stats) noexcept {
  return given(stats, "tavlo_stats_count", "statistics") ? stats->entries.size() : 0;
}

const tavlo_delivery_counts* tavlo_stats_entry(const tavlo_stats_t* stats, size_t index) noexcept {
  if (!given(stats, "tavlo_stats_entry", "statistics")) return nullptr;
  if (index >= stats->entries.size()) {
    logError("tavlo_stats_entry", ("Index " + std::to_string(index) + " is out of range: nothing done").c_str());
    return nullptr;
  }
  return &stats->entries[index];
}

tavlo_delivery_counts tavlo_stats_total(const tavlo_stats_t* stats) noexcept {
  tavlo_delivery_counts total{};
  total.serial = "";
  if (!given(stats, "tavlo_stats_total", "statistics")) return total;
  for (const tavlo_delivery_counts& entry : stats->entries) {
    total.queued += entry.queued;
    total.sent += entry.sent;
    total.dropped_in_all += entry.dropped_in_all;
    for (size_t reason = 0; reason < kTavloDropReasonCount; ++reason) total.dropped[reason] += entry.dropped[reason];
  }
  return total;
}

void tavlo_stats_free(tavlo_stats_t* stats) noexcept { delete stats; }

void tavlo_set_drop_callback(tavlo_drop_fn callback, void* user_data) noexcept {
  guard("tavlo_set_drop_callback", [&] {
    if (!callback) {
      TavloSetDropHandler(nullptr);
      return;
    }
    TavloSetDropHandler([callback, user_data](const TavloDroppedHit& drop) {
      callback(user_data, drop.serial.c_str(), drop.requestType, static_cast<int>(drop.reason), drop.httpStatus);
    });
  });
}

tavlo_flush_result tavlo_flush(double timeout_seconds) noexcept {
  return guard("tavlo_flush", tavlo_flush_result{}, [&] {
    const TavloFlushResult done = TavloFlush(timeout_seconds);
    return tavlo_flush_result{done.sent, done.dropped, done.stillQueued};
  });
}

// Platform.

tavlo_platform_t* tavlo_platform_create(void) noexcept {
  return guard("tavlo_platform_create", static_cast<tavlo_platform_t*>(nullptr), [] { return new tavlo_platform_t(); });
}

void tavlo_platform_destroy(tavlo_platform_t* platform) noexcept { delete platform; }

uint8_t tavlo_platform_set_application(tavlo_platform_t* platform, const char* name, const char* version) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_set_application";
  if (!given(platform, kFunction, "platform")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    if (hasControlCharacter(name) || hasControlCharacter(version)) {
      logError(kFunction, "The name or version holds a control character: the application stays as it was");
      return 0;
    }
    TavloString newName = fromC(name);
    TavloString newVersion = fromC(version);
    platform->application.bundleName = std::move(newName);
    platform->application.bundleVersion = std::move(newVersion);
    return 1;
  });
}

uint8_t tavlo_platform_set_endpoints_base_url(tavlo_platform_t* platform, const char* base_url) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_set_endpoints_base_url";
  if (!given(platform, kFunction, "platform")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    if (!base_url || !isUsableBaseURL(base_url)) {
      logError(kFunction, "The base URL is not an http or https address: the endpoints stay as they were");
      return 0;
    }
    platform->endpoints = TavloEndpoints::allAt(base_url);
    return 1;
  });
}

uint8_t tavlo_platform_set_endpoints(tavlo_platform_t* platform, const char* authorisation,
                                     const char* audience_collection, const char* streaming_collection,
                                     const char* second_collection) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_set_endpoints";
  if (!given(platform, kFunction, "platform")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    const std::pair<const char*, std::string TavloEndpoints::*> endpoints[] = {
        {authorisation, &TavloEndpoints::authorisation},
        {audience_collection, &TavloEndpoints::audienceCollection},
        {streaming_collection, &TavloEndpoints::streamingCollection},
        {second_collection, &TavloEndpoints::secondCollection}};
    TavloEndpoints chosen = platform->endpoints;
    for (const auto& [url, endpoint] : endpoints) {
      if (url == nullptr) continue;
      if (!isUsableBaseURL(url)) {
        logError(kFunction, "An endpoint is not an http or https address: the endpoints stay as they were");
        return 0;
      }
      chosen.*endpoint = withoutTrailingSlashes(url);
    }
    platform->endpoints = std::move(chosen);
    return 1;
  });
}

uint8_t tavlo_platform_set_data_directory(tavlo_platform_t* platform, const char* path) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_set_data_directory";
  if (!given(platform, kFunction, "platform")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    if (path != nullptr && (path[0] != '/' || hasControlCharacter(path))) {
      logError(kFunction, "The data directory is not an absolute path without control characters: it stays as it was");
      return 0;
    }
    platform->options.dataDirectory = path ? path : "";
    return 1;
  });
}

uint8_t tavlo_platform_set_ca_certificates(tavlo_platform_t* platform, const char* bundle_file,
                                           const char* directory) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_set_ca_certificates";
  if (!given(platform, kFunction, "platform")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    if (hasControlCharacter(bundle_file) || hasControlCharacter(directory)) {
      logError(kFunction, "A CA certificate path holds a control character: the CA certificates stay as they were");
      return 0;
    }
    platform->options.caBundleFile = bundle_file ? bundle_file : "";
    platform->options.caBundleDirectory = directory ? directory : "";
    return 1;
  });
}

uint8_t tavlo_platform_set_proxy(tavlo_platform_t* platform, const char* proxy) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_set_proxy";
  if (!given(platform, kFunction, "platform")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    if (proxy != nullptr && !isUsableProxy(proxy)) {
      logError(kFunction, "The proxy is empty or holds a space or a byte outside printable ASCII: it stays as it was");
      return 0;
    }
    platform->options.proxy = proxy ? proxy : "";
    return 1;
  });
}

void tavlo_platform_set_log_callback(tavlo_platform_t* platform, tavlo_log_fn log, tavlo_release_fn release,
                                     void* user_data) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_set_log_callback";
  std::shared_ptr<CallbackLogSink> sink = holdCallback<CallbackLogSink>(kFunction, log, release, user_data);
  if (!sink) return;
  if (!given(platform, kFunction, "platform")) return;  // `sink` goes, and releases
  guard(kFunction, [&] {
    std::shared_ptr<TavloLogSink> previous = std::move(platform->logSink);
    if (log != nullptr) platform->logSink = std::move(sink);
    // `previous`, and `sink` when it has no log to call, release here.
  });
}

uint8_t tavlo_platform_set_log_syslog(tavlo_platform_t* platform, int facility) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_set_log_syslog";
  if (!given(platform, kFunction, "platform")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    std::shared_ptr<TavloLogSink> sink = TavloPlatform::syslogLogSink(facility);
    if (!sink) {
      logError(kFunction, ("Facility " + std::to_string(facility) + " is not a syslog facility: the log stays as it was").c_str());
      return 0;
    }
    platform->logSink = std::move(sink);
    return 1;
  });
}

uint8_t tavlo_platform_install(const tavlo_platform_t* platform) noexcept {
  static constexpr const char* kFunction = "tavlo_platform_install";
  if (!given(platform, kFunction, "platform")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    if (TavloAgent::sharedAgentIfMade()) {
      logError(kFunction, "The library has started already: it keeps the platform it started with");
      return 0;
    }
    TavloPlatform::install(TavloPlatformFromC(*platform));
    return 1;
  });
}

// Every tagger.

char* tavlo_tagger_serial(const tavlo_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_tagger_serial", "tagger")) return nullptr;
  return guard("tavlo_tagger_serial", static_cast<char*>(nullptr), [&] { return toC(tagger->rep->serial()); });
}

char* tavlo_tagger_customer_data(const tavlo_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_tagger_customer_data", "tagger")) return nullptr;
  return guard("tavlo_tagger_customer_data", static_cast<char*>(nullptr),
               [&] { return toC(tagger->rep->customerData()); });
}

uint8_t tavlo_tagger_can_send(const tavlo_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_tagger_can_send", "tagger")) return 0;
  return guard("tavlo_tagger_can_send", uint8_t{0}, [&] { return static_cast<uint8_t>(tagger->rep->canSend()); });
}

char* tavlo_tagger_level(const tavlo_tagger_t* tagger, int index) noexcept {
  static constexpr const char* kFunction = "tavlo_tagger_level";
  if (!given(tagger, kFunction, "tagger") || !inRange(index, TavloTagger::kNewLevelCount, kFunction)) return nullptr;
  return guard(kFunction, static_cast<char*>(nullptr), [&] { return toC(kLevelGetters[index - 1](*tagger->rep)); });
}

uint8_t tavlo_tagger_set_level(tavlo_tagger_t* tagger, int index, const char* value) noexcept {
  static constexpr const char* kFunction = "tavlo_tagger_set_level";
  if (!given(tagger, kFunction, "tagger") || !inRange(index, TavloTagger::kNewLevelCount, kFunction)) return 0;
  return guard(kFunction, uint8_t{0}, [&] {
    kLevelSetters[index - 1](*tagger->rep, fromC(value));
    return uint8_t{1};
  });
}

#define TAVLO_C_TAGGER_STRING_PROPERTY(cName, getter, setter)                                                      \
  char* tavlo_tagger_##cName(const tavlo_tagger_t* tagger) noexcept {                                              \
    if (!given(tagger, "tavlo_tagger_" #cName, "tagger")) return nullptr;                                          \
    return guard("tavlo_tagger_" #cName, static_cast<char*>(nullptr), [&] { return toC(tagger->rep->getter()); }); \
  }                                                                                                                \
  void tavlo_tagger_set_##cName(tavlo_tagger_t* tagger, const char* value) noexcept {                              \
    if (!given(tagger, "tavlo_tagger_set_" #cName, "tagger")) return;                                              \
    guard("tavlo_tagger_set_" #cName, [&] { tagger->rep->setter(fromC(value)); });                                 \
  }

TAVLO_C_TAGGER_STRING_PROPERTY(media_content_id, mediaContentId, setMediaContentId)
TAVLO_C_TAGGER_STRING_PROPERTY(media_diff_mode, mediaDiffMode, setMediaDiffMode)
TAVLO_C_TAGGER_STRING_PROPERTY(media_channel, mediaChannel, setMediaChannel)
TAVLO_C_TAGGER_STRING_PROPERTY(net_measurement, netMeasurement, setNetMeasurement)

#undef TAVLO_C_TAGGER_STRING_PROPERTY

uint8_t tavlo_tagger_use_idfa(const tavlo_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_tagger_use_idfa", "tagger")) return 0;
  return guard("tavlo_tagger_use_idfa", uint8_t{0}, [&] { return static_cast<uint8_t>(tagger->rep->useIDFA()); });
}

void tavlo_tagger_set_use_idfa(tavlo_tagger_t* tagger, uint8_t use_idfa) noexcept {
  if (!given(tagger, "tavlo_tagger_set_use_idfa", "tagger")) return;
  guard("tavlo_tagger_set_use_idfa", [&] { tagger->rep->setUseIDFA(use_idfa != 0); });
}

int64_t tavlo_tagger_logging_mode(const tavlo_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_tagger_logging_mode", "tagger")) return -1;
  return guard("tavlo_tagger_logging_mode", int64_t{-1}, [&] { return tagger->rep->loggingMode(); });
}

void tavlo_tagger_set_logging_mode(tavlo_tagger_t* tagger, int64_t mode) noexcept {
  if (!given(tagger, "tavlo_tagger_set_logging_mode", "tagger")) return;
  guard("tavlo_tagger_set_logging_mode", [&] { tagger->rep->setLoggingMode(mode); });
}

// Audience tagger.

tavlo_audience_tagger_t* tavlo_audience_tagger_with_serial(const char* serial, const char* customer_data) noexcept {
  static constexpr const char* kFunction = "tavlo_audience_tagger_with_serial";
  return guard(kFunction, static_cast<tavlo_audience_tagger_t*>(nullptr), [&]() -> tavlo_audience_tagger_t* {
    auto tagger = TavloAudienceTagger::TavloAudienceTaggerWithSerial(fromC(serial), fromC(customer_data));
    if (!tagger) {
      logError(kFunction, "No tagger could be made: no handle returned");
      return nullptr;
    }
    auto* handle = new tavlo_audience_tagger_t();
    handle->tagger.rep = tagger;
    handle->rep = std::move(tagger);
    return handle;
  });
}

void tavlo_audience_tagger_release(tavlo_audience_tagger_t* tagger) noexcept { delete tagger; }

tavlo_tagger_t* tavlo_audience_tagger_as_tagger(tavlo_audience_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_audience_tagger_as_tagger", "tagger")) return nullptr;
  return &tagger->tagger;
}

void tavlo_audience_tagger_send_hit(tavlo_audience_tagger_t* tagger, const char* level1, const char* level2,
                                    const char* level3, const char* level4) noexcept {
  if (!given(tagger, "tavlo_audience_tagger_send_hit", "tagger")) return;
  guard("tavlo_audience_tagger_send_hit",
        [&] { tagger->rep->sendHitWithLevel1(fromC(level1), fromC(level2), fromC(level3), fromC(level4)); });
}

// Streaming configuration.

uint8_t tavlo_streaming_config_set_level(tavlo_streaming_config_t* config, int index, const char* value) noexcept {
  static constexpr const char* kFunction = "tavlo_streaming_config_set_level";
  if (!given(config, kFunction, "configuration") || !inRange(index, kStreamingLevelCount, kFunction)) return 0;
  return guard(kFunction, uint8_t{0}, [&] {
    kConfigLevelSetters[index - 1](*config->rep, fromC(value));
    return uint8_t{1};
  });
}

void tavlo_streaming_config_set_customer_data(tavlo_streaming_config_t* config, const char* value) noexcept {
  if (!given(config, "tavlo_streaming_config_set_customer_data", "configuration")) return;
  guard("tavlo_streaming_config_set_customer_data", [&] { config->rep->setCustomerData(fromC(value)); });
}

void tavlo_streaming_config_set_media_genre(tavlo_streaming_config_t* config, const char* value) noexcept {
  if (!given(config, "tavlo_streaming_config_set_media_genre", "configuration")) return;
  guard("tavlo_streaming_config_set_media_genre", [&] { config->rep->setMediaGenre(fromC(value)); });
}

void tavlo_streaming_config_set_media_provider(tavlo_streaming_config_t* config, const char* value) noexcept {
  if (!given(config, "tavlo_streaming_config_set_media_provider", "configuration")) return;
  guard("tavlo_streaming_config_set_media_provider", [&] { config->rep->setMediaProvider(fromC(value)); });
}

// Streaming tagger.

tavlo_streaming_tagger_t* tavlo_streaming_tagger_with_serial(const char* serial, const char* media_name,
                                                             int64_t media_volume, const char* media_url,
                                                             int64_t media_length, int streaming_type,
                                                             tavlo_configure_fn configure, void* user_data) noexcept {
  return guard("tavlo_streaming_tagger_with_serial", static_cast<tavlo_streaming_tagger_t*>(nullptr), [&] {
    TavloStreamingTagger::ConfigurationBlock block;
    if (configure) {
      // The tagger catches what the callback throws and keeps what it set before.
      block = [configure, user_data](TavloStreamingConfig& config) {
        tavlo_streaming_config_t handle{&config};
        configure(user_data, &handle);
      };
    }
    // Any int is kept as given, as the C++ enumeration keeps any 64-bit value.
    const auto type = static_cast<TavloStreamingType>(static_cast<uint64_t>(static_cast<int64_t>(streaming_type)));
    auto handle = std::make_unique<tavlo_streaming_tagger_t>();
    handle->rep = TavloStreamingTagger::TavloStreamingTaggerWithSerial(
        fromC(serial), fromC(media_name), media_volume, fromC(media_url), media_length, type, std::move(block));
    handle->tagger.rep = handle->rep;
    return handle.release();
  });
}

void tavlo_streaming_tagger_release(tavlo_streaming_tagger_t* tagger) noexcept {
  if (!tagger) return;
  guard("tavlo_streaming_tagger_release", [&] {
    // The tagger first, so its timers stop and it asks the callback for nothing more.
    tagger->tagger.rep.reset();
    tagger->rep.reset();
    std::shared_ptr<PositionCallback> position;
    {
      std::lock_guard lock(tagger->positionProtector);
      position = std::move(tagger->position);
    }
  });
  delete tagger;
}

tavlo_tagger_t* tavlo_streaming_tagger_as_tagger(tavlo_streaming_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_streaming_tagger_as_tagger", "tagger")) return nullptr;
  return &tagger->tagger;
}

void tavlo_streaming_tagger_notify_event(tavlo_streaming_tagger_t* tagger, int event) noexcept {
  if (!given(tagger, "tavlo_streaming_tagger_notify_event", "tagger")) return;
  guard("tavlo_streaming_tagger_notify_event", [&] {
    tagger->rep->notifyEvent(static_cast<TavloStreamingEvent>(static_cast<uint64_t>(static_cast<int64_t>(event))));
  });
}

void tavlo_streaming_tagger_notify_event_at(tavlo_streaming_tagger_t* tagger, int event, int64_t position) noexcept {
  if (!given(tagger, "tavlo_streaming_tagger_notify_event_at", "tagger")) return;
  guard("tavlo_streaming_tagger_notify_event_at", [&] {
    tagger->rep->notifyEvent(static_cast<TavloStreamingEvent>(static_cast<uint64_t>(static_cast<int64_t>(event))),
                             position);
  });
}

void tavlo_streaming_tagger_set_position_callback(tavlo_streaming_tagger_t* tagger, tavlo_position_fn position,
                                                  tavlo_release_fn release, void* user_data) noexcept {
  static constexpr const char* kFunction = "tavlo_streaming_tagger_set_position_callback";
  std::shared_ptr<PositionCallback> callback = holdCallback<PositionCallback>(kFunction, position, release, user_data);
  if (!callback) return;
  if (!given(tagger, kFunction, "tagger")) return;  // `callback` goes, and releases
  guard(kFunction, [&] {
    if (!callback->suppliesPositions()) callback.reset();
    std::shared_ptr<PositionCallback> previous;
    {
      std::lock_guard lock(tagger->positionProtector);
      previous = std::move(tagger->position);
      tagger->position = callback;
      tagger->rep->setDelegate(callback);
    }
    // `previous` and an unused `callback` release here, outside the lock.
  });
}

int tavlo_streaming_tagger_sending_mode(const tavlo_streaming_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_streaming_tagger_sending_mode", "tagger")) return -1;
  return guard("tavlo_streaming_tagger_sending_mode", -1, [&] { return static_cast<int>(tagger->rep->sendingMode()); });
}

uint8_t tavlo_streaming_tagger_set_sending_mode(tavlo_streaming_tagger_t* tagger, int mode) noexcept {
  static constexpr const char* kFunction = "tavlo_streaming_tagger_set_sending_mode";
  if (!given(tagger, kFunction, "tagger")) return 0;
  return guard(kFunction, uint8_t{0}, [&]() -> uint8_t {
    const bool known =
        mode == TavloSendingModeTimestamped || mode == TavloSendingModeLive || mode == TavloSendingModeDisconnected;
    // The tagger logs an unknown mode itself; one that cannot send ignores every mode.
    tagger->rep->setSendingMode(static_cast<TavloSendingMode>(mode));
    return known && tagger->rep->canSend() ? 1 : 0;
  });
}

int tavlo_streaming_tagger_current_mode(const tavlo_streaming_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_streaming_tagger_current_mode", "tagger")) return -1;
  return guard("tavlo_streaming_tagger_current_mode", -1,
               [&] { return static_cast<int>(tagger->rep->getCurrentMode()); });
}

int tavlo_streaming_tagger_streaming_type(const tavlo_streaming_tagger_t* tagger) noexcept {
  if (!given(tagger, "tavlo_streaming_tagger_streaming_type", "tagger")) return -1;
  return guard("tavlo_streaming_tagger_streaming_type", -1,
               [&] { return static_cast<int>(static_cast<int64_t>(tagger->rep->streamingType())); });
}

char* tavlo_streaming_tagger_level(const tavlo_streaming_tagger_t* tagger, int index) noexcept {
  static constexpr const char* kFunction = "tavlo_streaming_tagger_level";
  if (!given(tagger, kFunction, "tagger") || !inRange(index, kStreamingLevelCount, kFunction)) return nullptr;
  return guard(kFunction, static_cast<char*>(nullptr),
               [&] { return toC(kStreamingLevelGetters[index - 1](*tagger->rep)); });
}

#define TAVLO_C_STREAMING_STRING_PROPERTY(cName, getter, setter)                                          \
  char* tavlo_streaming_tagger_##cName(const tavlo_streaming_tagger_t* tagger) noexcept {                 \
    if (!given(tagger, "tavlo_streaming_tagger_" #cName, "tagger")) return nullptr;                       \
    return guard("tavlo_streaming_tagger_" #cName, static_cast<char*>(nullptr),                           \
                 [&] { return toC(tagger->rep->getter()); });                                             \
  }                                                                                                       \
  void tavlo_streaming_tagger_set_##cName(tavlo_streaming_tagger_t* tagger, const char* value) noexcept { \
    if (!given(tagger, "tavlo_streaming_tagger_set_" #cName, "tagger")) return;                           \
    guard("tavlo_streaming_tagger_set_" #cName, [&] { tagger->rep->setter(fromC(value)); });              \
  }

TAVLO_C_STREAMING_STRING_PROPERTY(media_name, mediaName, setMediaName)
TAVLO_C_STREAMING_STRING_PROPERTY(media_url, mediaURL, setMediaURL)
TAVLO_C_STREAMING_STRING_PROPERTY(media_genre, mediaGenre, setMediaGenre)
TAVLO_C_STREAMING_STRING_PROPERTY(media_provider, mediaProvider, setMediaProvider)

#undef TAVLO_C_STREAMING_STRING_PROPERTY

#define TAVLO_C_STREAMING_INTEGER_PROPERTY(cName, getter, setter)                                      \
  int64_t tavlo_streaming_tagger_##cName(const tavlo_streaming_tagger_t* tagger) noexcept {            \
    if (!given(tagger, "tavlo_streaming_tagger_" #cName, "tagger")) return 0;                          \
    return guard("tavlo_streaming_tagger_" #cName, int64_t{0}, [&] { return tagger->rep->getter(); }); \
  }                                                                                                    \
  void tavlo_streaming_tagger_set_##cName(tavlo_streaming_tagger_t* tagger, int64_t value) noexcept {  \
    if (!given(tagger, "tavlo_streaming_tagger_set_" #cName, "tagger")) return;                        \
    guard("tavlo_streaming_tagger_set_" #cName, [&] { tagger->rep->setter(value); });                  \
  }

TAVLO_C_STREAMING_INTEGER_PROPERTY(media_volume, mediaVolume, setMediaVolume)
TAVLO_C_STREAMING_INTEGER_PROPERTY(media_length, mediaLength, setMediaLength)

#undef TAVLO_C_STREAMING_INTEGER_PROPERTY
