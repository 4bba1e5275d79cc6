#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "TavloBuildConfig.h"
#include "platform/TavloInstalledPlatform.h"
#include "support/TavloFixedAdvertisingIdProvider.h"
#include "support/TavloScopedEnvironmentVariable.h"
#include "support/TavloTestPlatform.h"
#include "tavlo/platform/TavloPlatform.h"

namespace {

// One row per seam: how to empty it in a platform and how to see which object it holds.
struct Seam {
  const char* name;
  std::function<void(TavloPlatform&)> clear;
  std::function<const void*(const TavloPlatform&)> held;
};

const Seam seams[] = {
    {"clock", [](TavloPlatform& p) { p.clock.reset(); }, [](const TavloPlatform& p) -> const void* { return p.clock.get(); }},
    {"random", [](TavloPlatform& p) { p.random.reset(); }, [](const TavloPlatform& p) -> const void* { return p.random.get(); }},
    {"logSink", [](TavloPlatform& p) { p.logSink.reset(); }, [](const TavloPlatform& p) -> const void* { return p.logSink.get(); }},
    {"files", [](TavloPlatform& p) { p.files.reset(); }, [](const TavloPlatform& p) -> const void* { return p.files.get(); }},
    {"secureStore", [](TavloPlatform& p) { p.secureStore.reset(); },
     [](const TavloPlatform& p) -> const void* { return p.secureStore.get(); }},
    {"deviceInfo", [](TavloPlatform& p) { p.deviceInfo.reset(); },
     [](const TavloPlatform& p) -> const void* { return p.deviceInfo.get(); }},
    {"advertisingIdProvider", [](TavloPlatform& p) { p.advertisingIdProvider.reset(); },
     [](const TavloPlatform& p) -> const void* { return p.advertisingIdProvider.get(); }},
    {"mainQueue", [](TavloPlatform& p) { p.mainQueue.reset(); },
     [](const TavloPlatform& p) -> const void* { return p.mainQueue.get(); }},
    {"httpClient", [](TavloPlatform& p) { p.httpClient.reset(); },
     [](const TavloPlatform& p) -> const void* { return p.httpClient.get(); }},
    {"reachabilitySource", [](TavloPlatform& p) { p.reachabilitySource.reset(); },
     [](const TavloPlatform& p) -> const void* { return p.reachabilitySource.get(); }},
};

// Seams Linux has no default for (the advertising identifier), or not one wired in yet.
bool linuxLeavesEmpty(const Seam& seam) {
  const std::string name = seam.name;
  return name == "advertisingIdProvider" || name == "reachabilitySource";
}

// Stand-ins that only need an identity: which object ends up where.
class IdleQueue : public TavloMainQueue {
 public:
  void post(std::function<void()>) override {}
  TavloTimerID schedule(double, bool, std::function<void()>) override { return 1; }
  void cancel(TavloTimerID) override {}
  bool isCurrent() override { return false; }
};

class SilentHttpClient : public TavloHttpClient {
 public:
  TavloHttpResponse get(const TavloHttpRequest&) override { return {}; }
};

class NoReachability : public TavloReachabilitySource {
 public:
  std::shared_ptr<TavloReachabilityHandle> handleForAddress(const sockaddr_in&) override { return nullptr; }
  std::shared_ptr<TavloReachabilityHandle> handleForHostName(const std::string&) override { return nullptr; }
};

void fillEverySeam(TavloPlatform& platform, const std::string& identifier) {
  platform.advertisingIdProvider = std::make_shared<TavloFixedAdvertisingIdProvider>(identifier);
  platform.mainQueue = std::make_shared<IdleQueue>();
  platform.httpClient = std::make_shared<SilentHttpClient>();
  platform.reachabilitySource = std::make_shared<NoReachability>();
}

unsigned modeOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return 0xFFFFFFFF;
  return status.st_mode & 07777;
}

}  // namespace

TEST(TavloEndpointsTest, CompiledDefaultsAreTheConfiguredOnes) {
  const TavloEndpoints endpoints = TavloEndpoints::compiledDefaults();
  EXPECT_EQ(endpoints.authorisation, TAVLO_DEFAULT_AUTHORISATION_ENDPOINT);
  EXPECT_EQ(endpoints.audienceCollection, TAVLO_DEFAULT_AUDIENCE_COLLECTION_ENDPOINT);
  EXPECT_EQ(endpoints.streamingCollection, TAVLO_DEFAULT_STREAMING_COLLECTION_ENDPOINT);
  EXPECT_EQ(endpoints.secondCollection, TAVLO_DEFAULT_SECOND_COLLECTION_ENDPOINT);
  EXPECT_EQ(endpoints.audienceCollectionAddress(), std::string(TAVLO_DEFAULT_AUDIENCE_COLLECTION_ENDPOINT) + "/m/web/");
}

TEST(TavloEndpointsTest, AllAtPutsEveryEndpointAtOneBaseWithoutTrailingSlash) {
  struct Case {
    std::string base;
    std::string expected;
  };
  const Case cases[] = {
      {"http://127.0.0.1:8080", "http://127.0.0.1:8080"},
      {"http://127.0.0.1:8080/", "http://127.0.0.1:8080"},
      {"http://[::1]:9//", "http://[::1]:9"},
      {"", ""},
  };
  for (const Case& c : cases) {
    const TavloEndpoints endpoints = TavloEndpoints::allAt(c.base);
    EXPECT_EQ(endpoints.authorisation, c.expected) << c.base;
    EXPECT_EQ(endpoints.audienceCollection, c.expected) << c.base;
    EXPECT_EQ(endpoints.streamingCollection, c.expected) << c.base;
    EXPECT_EQ(endpoints.secondCollection, c.expected) << c.base;
    EXPECT_EQ(endpoints.audienceCollectionAddress(), c.expected + "/m/web/") << c.base;
  }
}

TEST(TavloPlatformTest, CompletedWithFillsOnlyTheEmptySeams) {
  // Both sides hold every seam, each its own object, so any mix-up shows.
  TavloTestPlatform own = TavloMakeTestPlatform();
  fillEverySeam(own.platform, "OWN");
  TavloTestPlatform fallback = TavloMakeTestPlatform();
  fillEverySeam(fallback.platform, "FALLBACK");
  for (const Seam& missing : seams) {
    TavloPlatform partial = own.platform;
    missing.clear(partial);
    const TavloPlatform completed = partial.completedWith(fallback);
    for (const Seam& seam : seams) {
      const void* expected = (&seam == &missing) ? seam.held(fallback) : seam.held(own);
      EXPECT_EQ(seam.held(completed), expected) << seam.name << " with " << missing.name << " missing";
    }
  }
}

TEST(TavloPlatformTest, CompletedWithFillsEmptyEndpointsOneByOne) {
  TavloPlatform partial = TavloMakeTestPlatform();
  partial.endpoints.authorisation = "";
  partial.endpoints.secondCollection = "";
  TavloPlatform fallback = TavloMakeTestPlatform();
  fallback.endpoints = TavloEndpoints::allAt("https://fallback.example");
  const TavloEndpoints completed = partial.completedWith(fallback).endpoints;
  EXPECT_EQ(completed.authorisation, "https://fallback.example");
  EXPECT_EQ(completed.audienceCollection, "http://127.0.0.1:1");
  EXPECT_EQ(completed.streamingCollection, "http://127.0.0.1:1");
  EXPECT_EQ(completed.secondCollection, "https://fallback.example");
}

TEST(TavloPlatformTest, CompletedWithAnEmptyFallbackLeavesGapsEmpty) {
  TavloPlatform partial;
  const TavloPlatform completed = partial.completedWith(TavloPlatform{});
  for (const Seam& seam : seams) EXPECT_EQ(seam.held(completed), nullptr) << seam.name;
}

TEST(TavloPlatformTest, LinuxDefaultsProvideTheirSeams) {
  TavloTemporaryDirectory data;
  TavloScopedEnvironmentVariable xdg("XDG_DATA_HOME", data.path());
  TavloApplicationInfo application;
  application.bundleName = "Replay";
  application.model = "Living Room Box";
  const TavloPlatform platform = TavloPlatform::linuxDefaults(application);
  for (const Seam& seam : seams) {
    if (!linuxLeavesEmpty(seam)) {
      EXPECT_NE(seam.held(platform), nullptr) << seam.name;
    }
  }
  EXPECT_EQ(platform.advertisingIdProvider, nullptr) << "Linux has no advertising identifier";
  EXPECT_EQ(platform.deviceInfo->bundleName(), TavloString("Replay"));
  EXPECT_EQ(platform.deviceInfo->model(), "Living Room Box");
  EXPECT_EQ(platform.endpoints.audienceCollection, TAVLO_DEFAULT_AUDIENCE_COLLECTION_ENDPOINT);
  EXPECT_EQ(platform.files->dataDirectory(), data.path());
}

TEST(TavloPlatformTest, LinuxDefaultsKeepSecureItemsInAPrivateFolderOfTheDataDirectory) {
  TavloTemporaryDirectory data;
  TavloScopedEnvironmentVariable xdg("XDG_DATA_HOME", data.path());
  const TavloPlatform platform = TavloPlatform::linuxDefaults();
  ASSERT_EQ(platform.secureStore->add({"service", "account", std::nullopt}, "secret"), TavloSecureStoreSuccess);
  const std::string folder = data.pathFor("tavlo/secure-store");
  EXPECT_EQ(modeOf(folder), 0700u);
  EXPECT_EQ(modeOf(folder + "/genp.service.account"), 0600u);
}

TEST(TavloPlatformTest, InstallCompletesThePlatformAndRoutesTheLogSink) {
  auto sink = std::make_shared<TavloCapturingLogSink>();
  auto clock = std::make_shared<TavloManualClock>(42);
  TavloPlatform partial;
  partial.logSink = sink;
  partial.clock = clock;
  partial.endpoints = TavloEndpoints::allAt("http://127.0.0.1:2");
  TavloPlatform::install(partial);

  const TavloPlatform installed = TavloPlatform::installed();
  EXPECT_EQ(installed.logSink, sink);
  EXPECT_EQ(installed.clock, clock);
  EXPECT_EQ(installed.endpoints.authorisation, "http://127.0.0.1:2");
  for (const Seam& seam : seams) {
    if (!linuxLeavesEmpty(seam)) {
      EXPECT_NE(seam.held(installed), nullptr) << seam.name;
    }
  }
  const TavloPlatform again = TavloPlatform::installed();
  EXPECT_EQ(again.secureStore, installed.secureStore) << "the defaults that fill gaps are made once";

  EXPECT_EQ(TavloInstalledLogSink(), sink);
  TavloInstalledLogSink()->writeLine("through the installed sink");
  EXPECT_TRUE(sink->contains("through the installed sink"));

  auto replacement = std::make_shared<TavloCapturingLogSink>();
  TavloPlatform next;
  next.logSink = replacement;
  TavloPlatform::install(next);
  EXPECT_EQ(TavloInstalledLogSink(), replacement) << "a new sink takes effect at once";
  EXPECT_NE(TavloPlatform::installed().clock, clock);
}
