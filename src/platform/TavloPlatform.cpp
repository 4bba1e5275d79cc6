#include "tavlo/platform/TavloPlatform.h"

#include <mutex>
#include <optional>

#include "platform/TavloInstalledPlatform.h"
#include "platform/TavloLogger.h"

namespace {

// Process-wide platform state. Allocated once and never freed, so a thread that logs
// while the process exits never meets a destroyed mutex.
struct InstalledState {
  std::mutex protector;
  std::optional<TavloPlatform> installed;   // guarded by protector
  std::optional<TavloPlatform> defaults;    // guarded by protector; made on first need
  std::shared_ptr<TavloLogSink> logSink;    // guarded by protector; the installed one
  bool taken = false;                       // guarded by protector; a singleton uses `installed`
};

InstalledState& installedState() {
  static InstalledState* state = new InstalledState();
  return *state;
}

// REQUIRES: state.protector held.
const TavloPlatform& defaultsLocked(InstalledState& state) {
  if (!state.defaults) state.defaults = TavloPlatform::linuxDefaults();
  return *state.defaults;
}

template <typename Seam>
void fillIfEmpty(std::shared_ptr<Seam>& seam, const std::shared_ptr<Seam>& fallback) {
  if (!seam) seam = fallback;
}

void fillIfEmpty(std::string& endpoint, const std::string& fallback) {
  if (endpoint.empty()) endpoint = fallback;
}

}  // namespace

std::shared_ptr<TavloLogSink> TavloInstalledLogSink() {
  InstalledState& state = installedState();
  {
    std::lock_guard<std::mutex> lock(state.protector);
    if (state.logSink) return state.logSink;
  }
  return TavloStandardErrorSink();
}

namespace {

// Hands each line to whatever sink is installed when the line is written.
class TavloFollowingLogSink final : public TavloLogSink {
 public:
  void writeLine(std::string_view line, TavloLogLevel level) override {
    TavloInstalledLogSink()->writeLine(line, level);
  }
};

}  // namespace

TavloPlatform TavloPlatformForSingleton() {
  TavloMarkInstalledPlatformTaken();
  TavloPlatform platform = TavloPlatform::installed();
  platform.logSink = std::make_shared<TavloFollowingLogSink>();
  return platform;
}

void TavloMarkInstalledPlatformTaken() {
  InstalledState& state = installedState();
  std::lock_guard<std::mutex> lock(state.protector);
  state.taken = true;
}

bool TavloPlatform::install(TavloPlatform platform) {
  InstalledState& state = installedState();
  bool tooLate = false;
  {
    std::lock_guard<std::mutex> lock(state.protector);
    state.installed = platform.completedWith(defaultsLocked(state));
    state.logSink = state.installed->logSink;
    tooLate = state.taken;
  }
  // Logged once the lock is released: the logger reads the sink under it.
  if (tooLate) {
    TavloLogger::log("TavloPlatform::install was called after the library started: only the log sink changes, "
                     "the running agent keeps the platform it started with",
                     TavloLoggingModeWarning);
  }
  return !tooLate;
}

TavloPlatform TavloPlatform::installed() {
  InstalledState& state = installedState();
  std::lock_guard<std::mutex> lock(state.protector);
  if (state.installed) return *state.installed;
  return defaultsLocked(state);
}

// An empty endpoint is as unusable as a missing seam, so it is filled the same way.
TavloPlatform TavloPlatform::completedWith(const TavloPlatform& fallback) const {
  TavloPlatform completed = *this;
  fillIfEmpty(completed.clock, fallback.clock);
  fillIfEmpty(completed.random, fallback.random);
  fillIfEmpty(completed.logSink, fallback.logSink);
  fillIfEmpty(completed.files, fallback.files);
  fillIfEmpty(completed.secureStore, fallback.secureStore);
  fillIfEmpty(completed.deviceInfo, fallback.deviceInfo);
  fillIfEmpty(completed.advertisingIdProvider, fallback.advertisingIdProvider);
  fillIfEmpty(completed.mainQueue, fallback.mainQueue);
  fillIfEmpty(completed.httpClient, fallback.httpClient);
  fillIfEmpty(completed.reachabilitySource, fallback.reachabilitySource);
  fillIfEmpty(completed.endpoints.authorisation, fallback.endpoints.authorisation);
  fillIfEmpty(completed.endpoints.audienceCollection, fallback.endpoints.audienceCollection);
  fillIfEmpty(completed.endpoints.streamingCollection, fallback.endpoints.streamingCollection);
  fillIfEmpty(completed.endpoints.secondCollection, fallback.endpoints.secondCollection);
  return completed;
}
