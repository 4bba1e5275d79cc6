// Every platform service the library uses, in one value.
#pragma once

#include <memory>

#include "tavlo/TavloExport.h"
#include "tavlo/platform/TavloAdvertisingIdProvider.h"
#include "tavlo/platform/TavloClock.h"
#include "tavlo/platform/TavloDeviceInfo.h"
#include "tavlo/platform/TavloEndpoints.h"
#include "tavlo/platform/TavloFileSystem.h"
#include "tavlo/platform/TavloHttpClient.h"
#include "tavlo/platform/TavloLinuxOptions.h"
#include "tavlo/platform/TavloLogSink.h"
#include "tavlo/platform/TavloMainQueue.h"
#include "tavlo/platform/TavloRandom.h"
#include "tavlo/platform/TavloReachabilitySource.h"
#include "tavlo/platform/TavloSecureStore.h"

/// The library's whole view of the system it runs on. Nothing in the core reaches the
/// operating system except through these seams, so a tvOS or Android TV shim, or a test,
/// supplies its own implementations and the core stays the same.
///
/// Each component receives a platform at construction and keeps it unchanged, and writes
/// its log lines to that platform's sink: an agent's lines and those of the taggers made
/// on it (parameter dumps included) go to one place. The process-wide singletons use the
/// platform installed with `install` before their first use, except for the log sink,
/// which they take from the installed platform at every line. An application that wants
/// to change anything (its name and version, its own log sink, an advertising-identifier
/// provider, other endpoints) installs a platform before it touches its first tagger.
///
/// To replace one seam and keep the rest, copy `linuxDefaults()` and assign one member.
struct TAVLO_EXPORT TavloPlatform {
  std::shared_ptr<TavloClock> clock;          ///< wall-clock time
  std::shared_ptr<TavloRandom> random;        ///< random numbers and UUIDs
  std::shared_ptr<TavloLogSink> logSink;      ///< where diagnostic lines go
  std::shared_ptr<TavloFileSystem> files;     ///< the queue file and its folder
  std::shared_ptr<TavloSecureStore> secureStore;  ///< the device identifier's store
  std::shared_ptr<TavloDeviceInfo> deviceInfo;    ///< device and application facts
  /// May be empty: no advertising identifier is available.
  std::shared_ptr<TavloAdvertisingIdProvider> advertisingIdProvider;
  std::shared_ptr<TavloMainQueue> mainQueue;    ///< the application's main thread, for timers and notifications
  std::shared_ptr<TavloHttpClient> httpClient;  ///< sends authorisation requests and hits
  std::shared_ptr<TavloReachabilitySource> reachabilitySource;  ///< tells whether the network is reachable
  TavloEndpoints endpoints = TavloEndpoints::compiledDefaults();  ///< where requests go

  /// The Linux implementations of every seam: system clock, a seeded generator and
  /// libuuid, standard error, POSIX files under $XDG_DATA_HOME (or ~/.local/share), a
  /// file-backed secure store there, device facts from /proc, /sys and /etc/os-release
  /// completed by `application`, no advertising identifier, the compiled-in endpoints.
  static TavloPlatform linuxDefaults(const TavloApplicationInfo& application = {});

  /// The same, with the deployment's choices (`TavloLinuxOptions`): its data directory,
  /// the CA certificates HTTPS is verified against, its proxy. Empty fields keep the
  /// defaults above.
  static TavloPlatform linuxDefaults(const TavloApplicationInfo& application, const TavloLinuxOptions& options);

  /// A log sink that hands each line to syslog(3), as it is, at the priority of its
  /// level: LOG_INFO, LOG_WARNING or LOG_ERR. `facility` is a syslog facility (LOG_USER,
  /// LOG_DAEMON, LOG_LOCAL0 ... LOG_LOCAL7); 0 keeps the one of the process, which
  /// openlog(3) sets and which is LOG_USER if the application never called it. The
  /// sink never calls openlog: the name and options the lines are sent with stay the
  /// application's. Null for a value that is not a facility. Callable from any thread.
  static std::shared_ptr<TavloLogSink> syslogLogSink(int facility = 0);

  /// Makes `platform` the one the process-wide singletons use. Missing seams are filled
  /// from `linuxDefaults()`. The log sink takes effect at once for every later line; the
  /// other seams only for singletons not made yet. True when every seam took effect;
  /// false when the library had already started, so only the log sink changed (also said
  /// in a WARNING line).
  static bool install(TavloPlatform platform);

  /// The installed platform (the Linux defaults if none was installed).
  static TavloPlatform installed();

  /// This platform with every empty seam taken from `fallback`.
  TavloPlatform completedWith(const TavloPlatform& fallback) const;
};
