#include "support/TavloLoggingFixture.h"
#include "support/TavloFixedAdvertisingIdProvider.h"
#include "agent/TavloDefaultParameters.h"
#include "platform/TavloLogger.h"
#include "tavlo/TavloVersion.h"

namespace {

using TavloDefaultParameters_ = TavloLoggingTest;

TEST_F(TavloDefaultParameters_, HoldsTheElevenDefaultsPairedAsDesigned) {
  test.random->setValues({4294967295u});
  test.deviceInfo->modelValue = "Box 4K";
  test.deviceInfo->systemVersionValue = "12";
  TavloDefaultParameters defaults(test.platform);
  const TavloParameters expected = {
      {"scp", "32"},      {"tag_type", "apps"}, {"v", TAVLO_VERSION_STRING},  {"n", "4294967295"},
      {"uid", TavloSequenceRandom::countedUUID(1)},              {"scw", "1920"},
      {"sch", "1080"},    {"m_os", "Box 4K"},   {"m_fw", "12"},  {"ds", "16.7"},
      {"tn", "tvOS"},
  };
  EXPECT_EQ(expected, *defaults.defaultParametersForRequest());
}

TEST_F(TavloDefaultParameters_, MissingUUIDAndScreenHaveTheirStandIns) {
  test.secureStore->setFailure(TavloMemorySecureStore::Operation::copy, TavloSecureStoreIOError);
  test.deviceInfo->mainScreenValue.reset();
  TavloDefaultParameters defaults(test.platform);
  const auto parameters = defaults.defaultParametersForRequest();
  EXPECT_EQ("-", parameters->at("uid"));
  EXPECT_EQ("0", parameters->at("scw"));
  EXPECT_EQ("0", parameters->at("sch"));
  EXPECT_EQ("0.0", parameters->at("ds"));
}

TEST_F(TavloDefaultParameters_, ScreenDiagonalUsesTheIdiomsPixelDensity) {
  struct Case {
    std::optional<int32_t> idiom;
    TavloScreen screen;
    const char* diagonal;
  };
  const Case cases[] = {
      {TavloUserInterfaceIdiomTV, {1920, 1080, 1, std::nullopt}, "16.7"},
      {TavloUserInterfaceIdiomTV, {1920, 1080, 2, 3.0}, "16.7"},  // the scale cancels out
      {TavloUserInterfaceIdiomPhone, {320, 568, 2, std::nullopt}, "4.0"},
      {std::nullopt, {320, 568, 2, std::nullopt}, "4.0"},  // no idiom counts as a phone
      {TavloUserInterfaceIdiomPad, {768, 1024, 2, std::nullopt}, "9.7"},
      {TavloUserInterfaceIdiomTV, {1920, 1080, 0, std::nullopt}, "16.7"},  // a zero scale is ignored
  };
  for (const Case& c : cases) {
    test.deviceInfo->userInterfaceIdiomValue = c.idiom;
    test.deviceInfo->mainScreenValue = c.screen;
    TavloDefaultParameters defaults(test.platform);
    EXPECT_EQ(c.diagonal, defaults.defaultParametersForRequest()->at("ds"))
        << "idiom " << c.idiom.value_or(-1) << " screen " << c.screen.width << "x" << c.screen.height;
  }
}

TEST_F(TavloDefaultParameters_, UserAgentNamesTheAppAndTheDeviceWord) {
  struct Case {
    TavloString name, version;
    std::optional<int32_t> idiom;
    const char* userAgent;
  };
  const Case cases[] = {
      {"TestApp", "1.2.3", TavloUserInterfaceIdiomTV, "TestApp/1.2.3 Tavlo SDK v" TAVLO_VERSION_STRING " apple tv"},
      {"A", "9", TavloUserInterfaceIdiomPad, "A/9 Tavlo SDK v" TAVLO_VERSION_STRING " apple ipad"},
      {"A", "9", TavloUserInterfaceIdiomPhone, "A/9 Tavlo SDK v" TAVLO_VERSION_STRING " apple iphone"},
      {"A", "9", 7, "A/9 Tavlo SDK v" TAVLO_VERSION_STRING " apple iphone"},
      {std::nullopt, std::nullopt, std::nullopt, "(null)/(null) Tavlo SDK v" TAVLO_VERSION_STRING " apple iphone"},
      {"Te\tst", "1.0\r\nX-Injected: 1", TavloUserInterfaceIdiomTV, "Te st/1.0  X-Injected: 1 Tavlo SDK v" TAVLO_VERSION_STRING " apple tv"},
  };
  for (const Case& c : cases) {
    test.deviceInfo->bundleNameValue = c.name;
    test.deviceInfo->bundleVersionValue = c.version;
    test.deviceInfo->userInterfaceIdiomValue = c.idiom;
    EXPECT_EQ(c.userAgent, TavloDefaultParameters(test.platform).userAgent());
  }
}

TEST_F(TavloDefaultParameters_, AppleDIDComesOnlyFromARegisteredProvider) {
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeInfo);
  EXPECT_FALSE(TavloDefaultParameters(test.platform).appleDID());
  EXPECT_TRUE(test.logSink->contains("(INFO) : Can't get did"));

  test.platform.advertisingIdProvider =
      std::make_shared<TavloFixedAdvertisingIdProvider>("6d92078a-8246-4ba4-ae5b-76104861e7dc");
  EXPECT_EQ("6D92078A-8246-4BA4-AE5B-76104861E7DC", TavloDefaultParameters(test.platform).appleDID());
  EXPECT_TRUE(test.logSink->contains("(INFO) : Using did : 6D92078A-8246-4BA4-AE5B-76104861E7DC"));
}

}  // namespace
