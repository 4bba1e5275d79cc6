// A whole platform of fakes for one test.
#pragma once

#include <memory>

#include "linux/TavloPosixFileSystem.h"
#include "support/TavloFixedDeviceInfo.h"
#include "support/TavloSequenceRandom.h"
#include "support/TavloTemporaryDirectory.h"
#include "tavlo/platform/TavloPlatform.h"
#include "tavlo/testkit/TavloCapturingLogSink.h"
#include "tavlo/testkit/TavloManualClock.h"
#include "tavlo/testkit/TavloManualMainQueue.h"
#include "tavlo/testkit/TavloMemorySecureStore.h"
#include "tavlo/testkit/TavloScriptedHttpClient.h"
#include "tavlo/testkit/TavloSettableReachabilitySource.h"

/// The platform handed to the code under test, together with typed handles to the same
/// fakes so the test can drive and inspect them:
///
///   TavloTestPlatform test = TavloMakeTestPlatform();
///   auto agent = TavloAgent::make(test.platform);
///   test.clock->advance(60);
///   EXPECT_TRUE(test.logSink->contains("(ERROR)"));
///
/// Each typed member points to the very object in `platform`; a test that replaces a
/// seam in `platform` should reset the matching member too. When a seam is added to
/// TavloPlatform, its fake goes here as one more member, filled by TavloMakeTestPlatform.
struct TavloTestPlatform {
  TavloPlatform platform;

  std::shared_ptr<TavloManualClock> clock;
  /// Virtual time: advanceBy() runs due work and moves `clock` along.
  std::shared_ptr<TavloManualMainQueue> mainQueue;
  std::shared_ptr<TavloSequenceRandom> random;
  std::shared_ptr<TavloCapturingLogSink> logSink;
  std::shared_ptr<TavloMemorySecureStore> secureStore;
  /// Records every request; answers "no scripted answer" until the test scripts it.
  std::shared_ptr<TavloScriptedHttpClient> http;
  std::shared_ptr<TavloFixedDeviceInfo> deviceInfo;
  /// Reachable over WiFi (0x2) until the test calls setFlags().
  std::shared_ptr<TavloSettableReachabilitySource> reachability;
  /// Real files, with dataDirectory() answering `directory->path()`.
  std::shared_ptr<TavloPosixFileSystem> files;
  /// Owned by `files` too, so the folder lives as long as anything holds the platform.
  std::shared_ptr<TavloTemporaryDirectory> directory;

  /// Lets a test pass the whole kit where a TavloPlatform is expected.
  operator const TavloPlatform&() const { return platform; }
};

/// The date the manual clock starts at: 2023-11-14 22:13:20 UTC.
inline constexpr TavloDate TavloTestPlatformStartDate = 1700000000;

/// A fresh platform of fakes: a manual clock at TavloTestPlatformStartDate (UTC), a
/// sequence random with no script (1, 2, 3, ... and counted UUIDs), a capturing log
/// sink, an empty in-memory secure store, a scripted HTTP client with no script,
/// fixed device info with its defaults, no
/// advertising identifier provider, POSIX files in a fresh temporary folder, and every
/// endpoint at "http://127.0.0.1:1", where nothing listens.
TavloTestPlatform TavloMakeTestPlatform();
