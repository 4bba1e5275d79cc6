// Where the viewer's identifier ("uid") lives on Linux: one private file per item, in a
// form a later version must still read, a status for every failure, and the handler that
// turns those statuses into the lines support teams search logs for.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <tuple>

#include "linux/TavloFileSecureStore.h"
#include "platform/TavloQLVRUUIDHandler.h"
#include "support/TavloLoggingFixture.h"
#include "support/TavloTestPlatform.h"

namespace {

const TavloSecureItemQuery deviceItem{"qlvr_uuid_service", "qlvr_uuid_account", std::nullopt};

// Real files, but writes can be made to fail as a full disk would make them.
struct FailingWritesFileSystem : TavloPosixFileSystem {
  std::error_code writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode) override {
    return failWrites ? make_error_code(std::errc::no_space_on_device) : TavloPosixFileSystem::writeFileAtomically(path, contents, mode);
  }
  bool failWrites = false;
};

class TavloFileSecureStoreTest : public ::testing::Test {
 protected:
  std::string readRaw(const std::string& path) {
    std::string contents;
    EXPECT_FALSE(files->readFile(path, contents, 1 << 20)) << path;
    return contents;
  }
  std::string valueOf(TavloSecureStore& from) {  // the value, or the status that kept it back
    std::string value;
    const int32_t status = from.copyMatching(deviceItem, &value);
    return status == TavloSecureStoreSuccess ? value : std::to_string(status);
  }

  TavloTemporaryDirectory directory;
  std::string folder = directory.pathFor("data/tavlo/secure-store");
  std::shared_ptr<FailingWritesFileSystem> files = std::make_shared<FailingWritesFileSystem>();
  TavloFileSecureStore store{files, folder};
};

TEST_F(TavloFileSecureStoreTest, EachItemIsOnePrivateFileUnderAnEscapedNameInAPrivateFolder) {
  ASSERT_EQ(store.add(deviceItem, std::string("5D2A1C3E\0\n\xff", 11)), TavloSecureStoreSuccess);
  const std::string path = folder + "/genp.qlvr_uuid_service.qlvr_uuid_account";
  struct stat folderStatus {}, itemStatus {};
  ASSERT_EQ(0, ::stat(folder.c_str(), &folderStatus) | ::stat(path.c_str(), &itemStatus));
  EXPECT_EQ(0700u, folderStatus.st_mode & 07777);
  EXPECT_EQ(0600u, itemStatus.st_mode & 07777);
  EXPECT_EQ(readRaw(path), std::string("TAVLO-SECURE-ITEM 1\n5D2A1C3E\0\n\xff", 31));
  // Dots are escaped too, so no two queries share a file; nothing reaches outside the folder.
  ASSERT_EQ(store.add({"../../etc", "caf\xc3\xa9 %", "group.shared"}, "value"), TavloSecureStoreSuccess);
  EXPECT_EQ(readRaw(folder + "/genp.%2E%2E%2F%2E%2E%2Fetc.caf%C3%A9%20%25.group%2Eshared"), "TAVLO-SECURE-ITEM 1\nvalue");
}

TEST_F(TavloFileSecureStoreTest, StatusesFollowTheItemAndAFailedWriteLeavesTheOldValueAndADamagedItemCanBeRepaired) {
  EXPECT_EQ(store.update(deviceItem, "NEW"), TavloSecureStoreItemNotFound);
  EXPECT_EQ(store.remove(deviceItem), TavloSecureStoreItemNotFound);
  EXPECT_EQ(valueOf(store), std::to_string(TavloSecureStoreItemNotFound));
  ASSERT_EQ(store.add(deviceItem, "OLD"), TavloSecureStoreSuccess);
  EXPECT_EQ(store.add(deviceItem, "NEW"), TavloSecureStoreDuplicateItem);
  EXPECT_EQ(store.update(deviceItem, std::string(TavloFileSecureStore::maxValueBytes + 1, 'x')), TavloSecureStoreIOError);
  files->failWrites = true;  // a full disk
  EXPECT_EQ(store.update(deviceItem, "NEW"), TavloSecureStoreIOError);
  files->failWrites = false;
  EXPECT_EQ(valueOf(store), "OLD");

  const std::string header(TavloFileSecureStore::itemHeader);
  for (const std::string& damaged : {std::string("TAVLO-SECURE-ITEM 2\nvalue"), header + std::string(TavloFileSecureStore::maxValueBytes + 1, 'x')}) {
    ASSERT_FALSE(files->writeFileAtomically(store.pathFor(deviceItem), damaged, 0600));
    EXPECT_EQ(valueOf(store), std::to_string(TavloSecureStoreDecodeError)) << damaged.size();
    EXPECT_EQ(store.add(deviceItem, "NEW"), TavloSecureStoreDuplicateItem) << damaged.size() << ": the item still exists";
    EXPECT_EQ(readRaw(store.pathFor(deviceItem)), damaged) << damaged.size() << ": a refused add must not touch it";
    EXPECT_EQ(store.update(deviceItem, "REPAIRED"), TavloSecureStoreSuccess) << damaged.size();
    EXPECT_EQ(valueOf(store), "REPAIRED") << damaged.size();
  }
}

TEST_F(TavloFileSecureStoreTest, AStoreThatCannotReachItsFilesAnswersIOErrorAndTouchesNothing) {
  ASSERT_FALSE(files->createDirectories(store.pathFor(deviceItem), 0700));  // unreadable as a file, even for root
  TavloFileSecureStore relative(files, "tavlo/secure-store");  // no home to keep it in
  for (TavloSecureStore* broken : {static_cast<TavloSecureStore*>(&store), static_cast<TavloSecureStore*>(&relative)}) {
    EXPECT_EQ(valueOf(*broken), std::to_string(TavloSecureStoreIOError)) << "an unreadable item is no missing one";
    EXPECT_EQ(broken->add(deviceItem, "NEW"), TavloSecureStoreIOError);
    EXPECT_EQ(broken->update(deviceItem, "NEW"), TavloSecureStoreIOError);
    EXPECT_EQ(broken->remove(deviceItem), TavloSecureStoreIOError);
  }
  EXPECT_FALSE(std::filesystem::exists("tavlo")) << "a relative folder must never be created";
}

// The identifier's handler, over the test kit's store: each failure gives nil and its line,
// whatever the threshold; the first failure to keep an identifier also says, once, what
// it means for the hits.
using TavloQLVRUUIDHandlerTest = TavloLoggingTest;

TEST_F(TavloQLVRUUIDHandlerTest, EveryStoreFailureOfTheIdentifierIsLoggedAndTriedAgain) {
  using Op = TavloMemorySecureStore::Operation;
  const std::string once = "); every hit carries \"uid\" \"-\" until it can be";
  const std::tuple<Op, int32_t, const char*, std::string> cases[] = {
      {Op::add, TavloSecureStoreIOError, "QLVRUUIDHandler Keychain Save Error: -36",
       "(ERROR) : The device identifier cannot be stored in the secure store (status -36: it cannot be read or "
       "written: no data directory, or a folder this user may not write" + once},
      {Op::copy, TavloSecureStoreDecodeError, "QLVRUUIDHandler Unhandled Keychain Error -26275",
       "(ERROR) : The device identifier cannot be read in the secure store (status -26275: its stored item is damaged" + once},
      {Op::remove, TavloSecureStoreIOError, "QLVRUUIDHandler Keychain Delete Error: -36", ""},
  };
  for (const auto& [failing, status, line, explanation] : cases) {
    TavloTestPlatform store = TavloMakeTestPlatform();
    TavloQLVRUUIDHandler fresh(store.secureStore, store.random, test.logSink);
    if (failing == Op::remove) (void)fresh.UUID();  // something to delete
    store.secureStore->setFailure(failing, status);
    for (int attempt = 0; attempt < 2; ++attempt) {
      test.logSink->clear();
      EXPECT_FALSE(failing == Op::remove ? (fresh.reset(), TavloString()) : fresh.UUID()) << line;
      std::vector<std::string> expected{line};
      if (attempt == 0 && !explanation.empty()) expected.push_back(explanation);
      EXPECT_EQ(expected, test.logSink->lines()) << "attempt " << attempt;
    }
    store.secureStore->clearFailures();
    EXPECT_TRUE(fresh.UUID()) << line << ": nothing is remembered, the next call tries again";
  }
}

}  // namespace
