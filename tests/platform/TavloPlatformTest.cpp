#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "TavloBuildConfig.h"
#include "platform/TavloInstalledPlatform.h"
#include "support/TavloFixedAdvertisingIdProvider.h"
#include "support/TavloScopedEnvironmentVariable.h"
#include "support/TavloTestPlatform.h"
#include "tavlo/platform/TavloPlatform.h"

namespace {

// One row per seam: how to empty it in a platform and which object it holds.
struct Seam {
  const char* name;
  std::function<void(TavloPlatform&)> clear;
  std::function<const void*(const TavloPlatform&)> held;
};
#define TAVLO_SEAM(member) \
  Seam { #member, [](TavloPlatform& p) { p.member.reset(); }, [](const TavloPlatform& p) -> const void* { return p.member.get(); } }
const Seam seams[] = {
    TAVLO_SEAM(clock),       TAVLO_SEAM(random),     TAVLO_SEAM(logSink),
    TAVLO_SEAM(files),       TAVLO_SEAM(secureStore), TAVLO_SEAM(deviceInfo),
    TAVLO_SEAM(mainQueue),   TAVLO_SEAM(httpClient), TAVLO_SEAM(reachabilitySource),
    TAVLO_SEAM(advertisingIdProvider),
};
#undef TAVLO_SEAM

// Seams Linux has no default for (the advertising identifier), or not one wired in yet.
bool linuxLeavesEmpty(const Seam& seam) {
  return std::string(seam.name) == "advertisingIdProvider" || std::string(seam.name) == "reachabilitySource";
}

unsigned modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0xFFFFFFFF;
}

}  // namespace

TEST(TavloEndpointsTest, CompiledDefaultsAndAllAtFillEachEndpoint) {
  const auto fields = [](const TavloEndpoints& e) {
    return std::vector<std::string>{e.authorisation, e.audienceCollection, e.streamingCollection, e.secondCollection,
                                    e.audienceCollectionAddress()};
  };
  EXPECT_EQ(fields(TavloEndpoints::compiledDefaults()),
            (std::vector<std::string>{TAVLO_DEFAULT_AUTHORISATION_ENDPOINT, TAVLO_DEFAULT_AUDIENCE_COLLECTION_ENDPOINT,
                                      TAVLO_DEFAULT_STREAMING_COLLECTION_ENDPOINT, TAVLO_DEFAULT_SECOND_COLLECTION_ENDPOINT,
                                      TAVLO_DEFAULT_AUDIENCE_COLLECTION_ENDPOINT "/m/web/"}));
  const std::pair<std::string, std::string> bases[] = {
      {"http://127.0.0.1:8080", "http://127.0.0.1:8080"},
      {"http://127.0.0.1:8080/", "http://127.0.0.1:8080"},
      {"http://[::1]:9//", "http://[::1]:9"},
      {"", ""},
  };
  for (const auto& [base, expected] : bases) {
    EXPECT_EQ(fields(TavloEndpoints::allAt(base)),
              (std::vector<std::string>{expected, expected, expected, expected, expected + "/m/web/"}))
        << "base \"" << base << "\"";
  }
}

TEST(TavloPlatformTest, CompletedWithFillsOnlyTheEmptySeamsAndEndpoints) {
  // Both sides hold every seam, each its own object, so any mix-up shows.
  TavloTestPlatform own = TavloMakeTestPlatform();
  own.platform.advertisingIdProvider = std::make_shared<TavloFixedAdvertisingIdProvider>("OWN");
  TavloTestPlatform fallback = TavloMakeTestPlatform();
  fallback.platform.advertisingIdProvider = std::make_shared<TavloFixedAdvertisingIdProvider>("FALLBACK");
  for (const Seam& missing : seams) {
    TavloPlatform partial = own.platform;
    missing.clear(partial);
    const TavloPlatform completed = partial.completedWith(fallback);
    for (const Seam& seam : seams) {
      const void* expected = (&seam == &missing) ? seam.held(fallback) : seam.held(own);
      EXPECT_EQ(seam.held(completed), expected) << seam.name << " with " << missing.name << " missing";
    }
    EXPECT_EQ(missing.held(partial.completedWith(TavloPlatform{})), nullptr) << "an empty fallback fills nothing";
  }

  TavloPlatform partial = own.platform;
  partial.endpoints.authorisation = "";
  partial.endpoints.secondCollection = "";
  fallback.platform.endpoints = TavloEndpoints::allAt("https://fallback.example");
  const TavloEndpoints completed = partial.completedWith(fallback).endpoints;
  EXPECT_EQ(completed.authorisation, "https://fallback.example");
  EXPECT_EQ(completed.audienceCollection, "http://127.0.0.1:1");
  EXPECT_EQ(completed.streamingCollection, "http://127.0.0.1:1");
  EXPECT_EQ(completed.secondCollection, "https://fallback.example");
}

TEST(TavloPlatformTest, LinuxDefaultsProvideTheirSeamsAndKeepSecureItemsPrivate) {
  TavloTemporaryDirectory data;
  TavloScopedEnvironmentVariable xdg("XDG_DATA_HOME", data.path());
  TavloApplicationInfo application;
  application.bundleName = "Replay";
  application.model = "Living Room Box";
  const TavloPlatform platform = TavloPlatform::linuxDefaults(application);
  for (const Seam& seam : seams) {
    EXPECT_TRUE(linuxLeavesEmpty(seam) || seam.held(platform) != nullptr) << seam.name;
  }
  EXPECT_EQ(platform.advertisingIdProvider, nullptr) << "Linux has no advertising identifier";
  EXPECT_EQ(platform.deviceInfo->bundleName(), TavloString("Replay"));
  EXPECT_EQ(platform.deviceInfo->model(), "Living Room Box");
  EXPECT_EQ(platform.endpoints.audienceCollection, TAVLO_DEFAULT_AUDIENCE_COLLECTION_ENDPOINT);
  EXPECT_EQ(platform.files->dataDirectory(), data.path());

  ASSERT_EQ(platform.secureStore->add({"service", "account", std::nullopt}, "secret"), TavloSecureStoreSuccess);
  EXPECT_EQ(modeOf(data.pathFor("tavlo/secure-store")), 0700u);
  EXPECT_EQ(modeOf(data.pathFor("tavlo/secure-store/genp.service.account")), 0600u);
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
    EXPECT_TRUE(linuxLeavesEmpty(seam) || seam.held(installed) != nullptr) << seam.name;
  }
  EXPECT_EQ(TavloPlatform::installed().secureStore, installed.secureStore) << "the defaults that fill gaps are made once";
  EXPECT_EQ(TavloInstalledLogSink(), sink);
  TavloInstalledLogSink()->writeLine("through the installed sink", TavloLogLevel::Info);
  EXPECT_TRUE(sink->contains("through the installed sink"));

  auto replacement = std::make_shared<TavloCapturingLogSink>();
  TavloPlatform next;
  next.logSink = replacement;
  TavloPlatform::install(next);
  EXPECT_EQ(TavloInstalledLogSink(), replacement) << "a new sink takes effect at once";
  EXPECT_NE(TavloPlatform::installed().clock, clock);
}
