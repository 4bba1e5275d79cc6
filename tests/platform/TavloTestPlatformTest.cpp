#include <gtest/gtest.h>

#include <filesystem>

#include "support/TavloTestPlatform.h"

// The fakes stand in for the platform in every other suite; if one of them lies, those
// suites prove nothing.

TEST(TavloTestPlatformTest, TheKitAndThePlatformHoldTheSameFakes) {
  const TavloTestPlatform test = TavloMakeTestPlatform();
  const TavloPlatform& platform = test;
  EXPECT_EQ(platform.clock, test.clock);
  EXPECT_EQ(platform.random, test.random);
  EXPECT_EQ(platform.logSink, test.logSink);
  EXPECT_EQ(platform.files, test.files);
  EXPECT_EQ(platform.secureStore, test.secureStore);
  EXPECT_EQ(platform.deviceInfo, test.deviceInfo);
  EXPECT_EQ(platform.advertisingIdProvider, nullptr);
  EXPECT_EQ(platform.clock->now(), TavloTestPlatformStartDate);
  EXPECT_EQ(platform.clock->utcOffsetAt(TavloTestPlatformStartDate), 0);
  EXPECT_EQ(platform.endpoints.audienceCollectionAddress(), "http://127.0.0.1:1/m/web/");
  EXPECT_EQ(platform.files->dataDirectory(), test.directory->path());
  EXPECT_TRUE(std::filesystem::is_directory(test.directory->path()));
  EXPECT_NE(TavloMakeTestPlatform().directory->path(), test.directory->path()) << "each kit gets its own folder";
}

TEST(TavloTestPlatformTest, TheTemporaryFolderLivesAsLongAsItsFileSystem) {
  std::string folder;
  TavloPlatform kept;
  {
    TavloTestPlatform test = TavloMakeTestPlatform();
    folder = test.directory->path();
    kept = test.platform;
  }
  EXPECT_FALSE(kept.files->writeFileAtomically(folder + "/queue", "still here", 0600));
  kept = TavloPlatform{};
  EXPECT_FALSE(std::filesystem::exists(folder)) << "the folder and its files go with the last holder";
}

TEST(TavloSequenceRandomTest, UUIDsComeFromTheScriptThenFromACounter) {
  TavloSequenceRandom random({}, {"SCRIPTED-1", "SCRIPTED-2"});
  EXPECT_EQ(random.newUUIDString(), "SCRIPTED-1");
  EXPECT_EQ(random.newUUIDString(), "SCRIPTED-2");
  EXPECT_EQ(random.newUUIDString(), "00000000-0000-4000-8000-000000000001");
  EXPECT_EQ(random.newUUIDString(), "00000000-0000-4000-8000-000000000002");
  EXPECT_EQ(TavloSequenceRandom::countedUUID(0xABCDEF), "00000000-0000-4000-8000-000000ABCDEF");
  random.setUUIDs({"AGAIN"});
  EXPECT_EQ(random.newUUIDString(), "AGAIN");
  EXPECT_EQ(random.uuidCount(), 5u);
}

TEST(TavloManualClockTest, UtcOffsetIsFixedOrFollowsARule) {
  TavloManualClock clock;
  EXPECT_EQ(clock.utcOffsetAt(0), 0);
  clock.setUtcOffset(3600);
  EXPECT_EQ(clock.utcOffsetAt(12345), 3600);
  clock.setUtcOffsetRule([](TavloDate date) { return date < 1000 ? 3600L : 7200L; });
  EXPECT_EQ(clock.utcOffsetAt(999), 3600);
  EXPECT_EQ(clock.utcOffsetAt(1000), 7200);
  clock.setUtcOffset(-18000);
  EXPECT_EQ(clock.utcOffsetAt(1000), -18000) << "a fixed offset replaces the rule";
}

TEST(TavloMemorySecureStoreTest, InjectedFailuresAnswerTheirStatusAndChangeNothing) {
  using Operation = TavloMemorySecureStore::Operation;
  const TavloSecureItemQuery query{"service", "account", std::nullopt};
  TavloMemorySecureStore store;
  store.setItem(query, "OLD");
  store.setFailure(Operation::copy, TavloSecureStoreIOError);
  store.setFailure(Operation::add, TavloSecureStoreIOError);
  store.setFailure(Operation::update, TavloSecureStoreDecodeError);
  store.setFailure(Operation::remove, -1);
  std::string value = "untouched";
  EXPECT_EQ(store.copyMatching(query, &value), TavloSecureStoreIOError);
  EXPECT_EQ(value, "untouched");
  EXPECT_EQ(store.add({"other", "account", std::nullopt}, "NEW"), TavloSecureStoreIOError);
  EXPECT_EQ(store.update(query, "NEW"), TavloSecureStoreDecodeError);
  EXPECT_EQ(store.remove(query), -1);
  EXPECT_EQ(store.item(query), std::optional<std::string>("OLD"));
  EXPECT_EQ(store.itemCount(), 1u);

  store.clearFailure(Operation::copy);
  EXPECT_EQ(store.copyMatching(query, &value), TavloSecureStoreSuccess);
  EXPECT_EQ(store.update(query, "NEW"), TavloSecureStoreDecodeError) << "other failures stay set";
  store.clearFailures();
  EXPECT_EQ(store.update(query, "NEW"), TavloSecureStoreSuccess);

  EXPECT_EQ(store.calls(Operation::copy), 2);
  EXPECT_EQ(store.calls(Operation::add), 1);
  EXPECT_EQ(store.calls(Operation::update), 3);
  EXPECT_EQ(store.calls(Operation::remove), 1);
  store.resetCalls();
  EXPECT_EQ(store.calls(Operation::update), 0);
}
