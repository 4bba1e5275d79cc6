// The default platform: the Linux implementation of every seam, assembled. The only code
// that names the classes of src/linux; the core reaches them through the seams.
#include "tavlo/platform/TavloPlatform.h"

#include <memory>
#include <optional>
#include <string>

#include "linux/TavloCurlHttpClient.h"
#include "linux/TavloFileSecureStore.h"
#include "linux/TavloLinuxDeviceInfo.h"
#include "linux/TavloNetlinkReachabilitySource.h"
#include "linux/TavloPosixFileSystem.h"
#include "linux/TavloStderrLogSink.h"
#include "linux/TavloSyslogLogSink.h"
#include "linux/TavloSystemClock.h"
#include "linux/TavloSystemRandom.h"
#include "platform/TavloInstalledPlatform.h"
#include "platform/TavloLogger.h"
#include "platform/TavloMainLoopQueue.h"
#include "util/TavloLogSafe.h"

// One standard error sink serves the whole process; it has no state to share badly.
std::shared_ptr<TavloLogSink> TavloStandardErrorSink() {
  static auto* sink = new std::shared_ptr<TavloLogSink>(std::make_shared<TavloStderrLogSink>());
  return *sink;
}

std::shared_ptr<TavloLogSink> TavloPlatform::syslogLogSink(int facility) {
  if (!TavloSyslogLogSink::isFacility(facility)) return nullptr;
  return std::make_shared<TavloSyslogLogSink>(facility);
}

TavloPlatform TavloPlatform::linuxDefaults(const TavloApplicationInfo& application) {
  return linuxDefaults(application, TavloLinuxOptions{});
}

namespace {
// The folder the deployment chose, when it is one the library can use: a relative path
// would put the viewer's identifier wherever the process happened to start.
std::optional<std::string> chosenDataDirectory(const TavloLinuxOptions& options) {
  if (options.dataDirectory.empty()) return std::nullopt;
  if (options.dataDirectory.front() == '/') return options.dataDirectory;
  TavloLogger::log("The data directory \"" + TavloLogSafe(options.dataDirectory) +
                       "\" is not an absolute path; the default one ($XDG_DATA_HOME or ~/.local/share) is used",
                   TavloLoggingModeError);
  return std::nullopt;
}
}  // namespace

TavloPlatform TavloPlatform::linuxDefaults(const TavloApplicationInfo& application, const TavloLinuxOptions& options) {
  auto files = std::make_shared<TavloPosixFileSystem>(chosenDataDirectory(options));
  // With no home at all the folder stays empty, and the store answers every call with
  // an I/O error rather than writing the device identifier somewhere public.
  const std::string dataDirectory = files->dataDirectory();
  const std::string secureFolder = dataDirectory.empty() ? std::string() : dataDirectory + "/tavlo/secure-store";

  TavloPlatform platform;
  platform.clock = std::make_shared<TavloSystemClock>();
  platform.random = std::make_shared<TavloSystemRandom>();
  platform.logSink = TavloStandardErrorSink();
  platform.files = files;
  platform.secureStore = std::make_shared<TavloFileSecureStore>(files, secureFolder);
  platform.deviceInfo = std::make_shared<TavloLinuxDeviceInfo>(application);
  platform.mainQueue = std::make_shared<TavloMainLoopQueue>();  // its thread starts on first use
  // libcurl starts on the first exchange.
  platform.httpClient = std::make_shared<TavloCurlHttpClient>(TavloCurlHttpClient::defaultMaxBodyBytes,
                                                              TavloCurlHttpClient::Settings::from(options));
  platform.reachabilitySource = std::make_shared<TavloNetlinkReachabilitySource>();  // no thread until watched
  platform.endpoints = TavloEndpoints::compiledDefaults();
  return platform;
}
