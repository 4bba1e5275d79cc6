#include "support/TavloTestPlatform.h"

TavloTestPlatform TavloMakeTestPlatform() {
  TavloTestPlatform test;
  test.clock = std::make_shared<TavloManualClock>(TavloTestPlatformStartDate);
  test.logSink = std::make_shared<TavloCapturingLogSink>();
  test.mainQueue = std::make_shared<TavloManualMainQueue>(test.clock, test.logSink);
  test.random = std::make_shared<TavloSequenceRandom>();
  test.secureStore = std::make_shared<TavloMemorySecureStore>();
  test.http = std::make_shared<TavloScriptedHttpClient>();
  test.deviceInfo = std::make_shared<TavloFixedDeviceInfo>();
  test.reachability = std::make_shared<TavloSettableReachabilitySource>();
  test.directory = std::make_shared<TavloTemporaryDirectory>();
  // The deleter holds the folder, so whoever keeps the file system (the platform
  // copied into a long-lived agent, say) keeps the folder it writes to.
  auto directory = test.directory;
  test.files = std::shared_ptr<TavloPosixFileSystem>(new TavloPosixFileSystem(directory->path()),
                                                     [directory](TavloPosixFileSystem* files) { delete files; });

  test.platform.clock = test.clock;
  test.platform.mainQueue = test.mainQueue;
  test.platform.random = test.random;
  test.platform.logSink = test.logSink;
  test.platform.files = test.files;
  test.platform.secureStore = test.secureStore;
  test.platform.httpClient = test.http;
  test.platform.deviceInfo = test.deviceInfo;
  test.platform.reachabilitySource = test.reachability;
  test.platform.advertisingIdProvider = nullptr;
  test.platform.endpoints = TavloEndpoints::allAt("http://127.0.0.1:1");
  return test;
}
