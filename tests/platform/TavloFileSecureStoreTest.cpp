#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "linux/TavloFileSecureStore.h"
#include "linux/TavloPosixFileSystem.h"
#include "tavlo/testkit/TavloMemorySecureStore.h"
#include "support/TavloTemporaryDirectory.h"

namespace {

const TavloSecureItemQuery deviceItem{"qlvr_uuid_service", "qlvr_uuid_account", std::nullopt};
const std::string header(TavloFileSecureStore::itemHeader);

unsigned modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0xFFFFFFFF;
}

// Real files, but writes can be made to fail as a full disk would make them.
class FailingWritesFileSystem : public TavloPosixFileSystem {
 public:
  std::error_code writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode) override {
    if (failWrites) return make_error_code(std::errc::no_space_on_device);
    return TavloPosixFileSystem::writeFileAtomically(path, contents, mode);
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
  std::string valueOf(const TavloSecureItemQuery& query) {
    std::string value = "<absent>";
    const int32_t status = store.copyMatching(query, &value);
    return status == TavloSecureStoreSuccess ? value : "<status " + std::to_string(status) + ">";
  }

  TavloTemporaryDirectory directory;
  std::string folder = directory.pathFor("data/tavlo/secure-store");
  std::shared_ptr<FailingWritesFileSystem> files = std::make_shared<FailingWritesFileSystem>();
  TavloFileSecureStore store{files, folder};
};

// The same statuses must come from the file store and from the in-memory fake that
// stands in for it elsewhere, or tests on the fake would prove nothing.
class SecureStoreContractTest : public ::testing::TestWithParam<const char*> {
 protected:
  std::shared_ptr<TavloSecureStore> makeStore() {
    if (std::string(GetParam()) == "memory") return std::make_shared<TavloMemorySecureStore>();
    return std::make_shared<TavloFileSecureStore>(std::make_shared<TavloPosixFileSystem>(), directory.pathFor("store"));
  }
  TavloTemporaryDirectory directory;
};

}  // namespace

TEST_P(SecureStoreContractTest, StatusesFollowWhetherTheItemIsPresent) {
  using Operation = std::function<int32_t(TavloSecureStore&)>;
  std::string ignored;
  const Operation copy = [&](TavloSecureStore& s) { return s.copyMatching(deviceItem, &ignored); };
  const Operation probe = [](TavloSecureStore& s) { return s.copyMatching(deviceItem, nullptr); };
  const Operation add = [](TavloSecureStore& s) { return s.add(deviceItem, "NEW"); };
  const Operation update = [](TavloSecureStore& s) { return s.update(deviceItem, "NEW"); };
  const Operation remove = [](TavloSecureStore& s) { return s.remove(deviceItem); };
  struct Case {
    const char* name;
    bool present;
    Operation operation;
    int32_t expectedStatus;
    std::optional<std::string> expectedValue;  // the item afterwards; nothing = absent
  };
  const Case cases[] = {
      {"copy present", true, copy, TavloSecureStoreSuccess, "OLD"},
      {"copy missing", false, copy, TavloSecureStoreItemNotFound, std::nullopt},
      {"probe present", true, probe, TavloSecureStoreSuccess, "OLD"},
      {"probe missing", false, probe, TavloSecureStoreItemNotFound, std::nullopt},
      {"add present", true, add, TavloSecureStoreDuplicateItem, "OLD"},
      {"add missing", false, add, TavloSecureStoreSuccess, "NEW"},
      {"update present", true, update, TavloSecureStoreSuccess, "NEW"},
      {"update missing", false, update, TavloSecureStoreItemNotFound, std::nullopt},
      {"remove present", true, remove, TavloSecureStoreSuccess, std::nullopt},
      {"remove missing", false, remove, TavloSecureStoreItemNotFound, std::nullopt},
  };
  for (const Case& c : cases) {
    auto store = makeStore();
    ASSERT_TRUE(!c.present || store->add(deviceItem, "OLD") == TavloSecureStoreSuccess) << c.name;
    EXPECT_EQ(c.operation(*store), c.expectedStatus) << c.name;
    std::string value;
    EXPECT_EQ(store->copyMatching(deviceItem, &value),
              c.expectedValue ? TavloSecureStoreSuccess : TavloSecureStoreItemNotFound) << c.name;
    EXPECT_EQ(value, c.expectedValue.value_or("")) << c.name;
    store->remove(deviceItem);
  }

  // Queries that differ in any part name different items.
  auto store = makeStore();
  const TavloSecureItemQuery queries[] = {
      {"a.b", "c", std::nullopt}, {"a", "b.c", std::nullopt}, {"a", "b", "c"},
      {"a", "b", ""},             {"a", "b", std::nullopt},   {"a", "b", "c.d"},
  };
  for (size_t i = 0; i < std::size(queries); ++i) {
    ASSERT_EQ(store->add(queries[i], std::to_string(i)), TavloSecureStoreSuccess) << i;
  }
  for (size_t i = 0; i < std::size(queries); ++i) {
    std::string value;
    EXPECT_EQ(store->copyMatching(queries[i], &value), TavloSecureStoreSuccess) << i;
    EXPECT_EQ(value, std::to_string(i)) << "query " << i << " must keep its own value";
  }
}

INSTANTIATE_TEST_SUITE_P(FileAndMemory, SecureStoreContractTest, ::testing::Values("file", "memory"));

TEST_F(TavloFileSecureStoreTest, EachItemIsOnePrivateFileUnderAnEscapedNameInAPrivateFolder) {
  ASSERT_EQ(store.add(deviceItem, "5D2A1C3E-0000-4000-8000-000000000001"), TavloSecureStoreSuccess);
  const std::string path = folder + "/genp.qlvr_uuid_service.qlvr_uuid_account";
  EXPECT_EQ(store.pathFor(deviceItem), path);
  EXPECT_EQ(modeOf(folder), 0700u);
  EXPECT_EQ(modeOf(path), 0600u);
  EXPECT_EQ(readRaw(path), header + "5D2A1C3E-0000-4000-8000-000000000001");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1) << "one file per item, no leftovers";

  const std::pair<TavloSecureItemQuery, std::string> names[] = {
      {{"svc", "acct", "group.shared"}, "genp.svc.acct.group%2Eshared"},
      {{"svc", "acct", ""}, "genp.svc.acct."},
      {{"../../etc", "passwd", std::nullopt}, "genp.%2E%2E%2F%2E%2E%2Fetc.passwd"},
      {{"", "", std::nullopt}, "genp.."},
      {{"caf\xc3\xa9 tv", "a%b", std::nullopt}, "genp.caf%C3%A9%20tv.a%25b"},
      {{std::string("nul\0in", 6), "x", std::nullopt}, "genp.nul%00in.x"},
  };
  for (const auto& [query, name] : names) {
    EXPECT_EQ(store.pathFor(query), folder + "/" + name) << name;
    ASSERT_EQ(store.add(query, "v"), TavloSecureStoreSuccess) << name;
    EXPECT_EQ(readRaw(folder + "/" + name), header + "v") << name;
  }
}

TEST_F(TavloFileSecureStoreTest, ValuesRoundTripByteForByteUpToTheLimitAndNoFurther) {
  const std::string values[] = {
      "",
      std::string("\0\n\r\xff TAVLO-SECURE-ITEM 1\n", 26),
      std::string(TavloFileSecureStore::maxValueBytes, 'x'),
  };
  for (const std::string& value : values) {
    ASSERT_EQ(store.add(deviceItem, value), TavloSecureStoreSuccess) << value.size();
    EXPECT_TRUE(valueOf(deviceItem) == value) << "value of " << value.size() << " bytes changed on the way";
    ASSERT_EQ(store.remove(deviceItem), TavloSecureStoreSuccess);
  }

  const std::string tooLarge(TavloFileSecureStore::maxValueBytes + 1, 'x');
  EXPECT_EQ(store.add(deviceItem, tooLarge), TavloSecureStoreIOError);
  EXPECT_EQ(store.copyMatching(deviceItem, nullptr), TavloSecureStoreItemNotFound);
  ASSERT_EQ(store.add(deviceItem, "OLD"), TavloSecureStoreSuccess);
  EXPECT_EQ(store.update(deviceItem, tooLarge), TavloSecureStoreIOError);
  EXPECT_EQ(valueOf(deviceItem), "OLD") << "a refused value must leave the old one";
}

TEST_F(TavloFileSecureStoreTest, DamagedItemIsReportedAndCanBeRepairedOrRemoved) {
  const std::string damagedForms[] = {
      "",
      "5D2A1C3E-0000-4000-8000-000000000001",
      "TAVLO-SECURE-ITEM",
      "TAVLO-SECURE-ITEM 2\nvalue",
      "tavlo-secure-item 1\nvalue",
      std::string(TavloFileSecureStore::maxValueBytes + header.size() + 1, 'x'),
      header + std::string(TavloFileSecureStore::maxValueBytes + 1, 'x'),
  };
  ASSERT_FALSE(files->createDirectories(folder, 0700));
  for (const std::string& damaged : damagedForms) {
    const std::string label = "damaged form of " + std::to_string(damaged.size()) + " bytes";
    ASSERT_FALSE(files->writeFileAtomically(store.pathFor(deviceItem), damaged, 0600));
    std::string value = "untouched";
    EXPECT_EQ(store.copyMatching(deviceItem, &value), TavloSecureStoreDecodeError) << label;
    EXPECT_EQ(value, "untouched") << label;
    EXPECT_EQ(store.copyMatching(deviceItem, nullptr), TavloSecureStoreDecodeError) << label;
    EXPECT_EQ(store.add(deviceItem, "NEW"), TavloSecureStoreDuplicateItem) << label << ": the item still exists";
    EXPECT_EQ(readRaw(store.pathFor(deviceItem)), damaged) << label << ": a refused add must not touch it";
    EXPECT_EQ(store.update(deviceItem, "REPAIRED"), TavloSecureStoreSuccess) << label;
    EXPECT_EQ(valueOf(deviceItem), "REPAIRED") << label;

    ASSERT_FALSE(files->writeFileAtomically(store.pathFor(deviceItem), damaged, 0600));
    EXPECT_EQ(store.remove(deviceItem), TavloSecureStoreSuccess) << label;
    EXPECT_EQ(store.copyMatching(deviceItem, nullptr), TavloSecureStoreItemNotFound) << label;
  }
}

TEST_F(TavloFileSecureStoreTest, StoreThatCannotReachItsFilesAnswersIOErrorAndTouchesNothing) {
  struct Case {
    const char* name;
    std::function<void()> prepare;
    std::shared_ptr<TavloFileSystem> files;
    std::string folder;
  };
  const Case cases[] = {
      // Tests run as root, for whom file modes stop nothing; a folder where the item
      // file should be cannot be read as one by anybody.
      {"the item is a folder", [&] { ASSERT_FALSE(files->createDirectories(store.pathFor(deviceItem), 0700)); }, files,
       folder},
      {"no home: empty folder", [] {}, files, ""},
      {"relative folder", [] {}, files, "tavlo/secure-store"},
      {"no file system", [] {}, nullptr, folder},
      // Last, so that its file is still there to check after the loop.
      {"the folder is a file", [&] { ASSERT_FALSE(files->writeFileAtomically(folder, "someone else's", 0600)); },
       files, folder},
  };
  for (const Case& c : cases) {
    std::filesystem::remove_all(folder);
    ASSERT_FALSE(files->createDirectories(directory.pathFor("data/tavlo"), 0700));
    c.prepare();
    TavloFileSecureStore broken(c.files, c.folder);
    std::string value = "untouched";
    EXPECT_EQ(broken.copyMatching(deviceItem, &value), TavloSecureStoreIOError) << c.name;
    EXPECT_EQ(value, "untouched") << c.name;
    EXPECT_EQ(broken.copyMatching(deviceItem, nullptr), TavloSecureStoreIOError) << c.name;
    EXPECT_EQ(broken.add(deviceItem, "NEW"), TavloSecureStoreIOError) << c.name;
    EXPECT_EQ(broken.update(deviceItem, "NEW"), TavloSecureStoreIOError) << c.name;
    EXPECT_EQ(broken.remove(deviceItem), TavloSecureStoreIOError) << c.name;
  }
  EXPECT_EQ(readRaw(folder), "someone else's") << "the file in the folder's place survives";
  EXPECT_FALSE(std::filesystem::exists("tavlo")) << "a relative folder must never be created";
}

TEST_F(TavloFileSecureStoreTest, FailedWriteKeepsTheStoredValue) {
  ASSERT_EQ(store.add(deviceItem, "OLD"), TavloSecureStoreSuccess);
  files->failWrites = true;
  EXPECT_EQ(store.update(deviceItem, "NEW"), TavloSecureStoreIOError);
  EXPECT_EQ(store.add({"other", "item", std::nullopt}, "NEW"), TavloSecureStoreIOError);
  files->failWrites = false;
  EXPECT_EQ(valueOf(deviceItem), "OLD");
  EXPECT_EQ(store.copyMatching({"other", "item", std::nullopt}, nullptr), TavloSecureStoreItemNotFound);
}

TEST_F(TavloFileSecureStoreTest, ConcurrentAddsOfOneItemLetExactlyOneWin) {
  constexpr int contenders = 8;
  std::atomic<int> successes{0};
  std::atomic<int> duplicates{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < contenders; ++i) {
    threads.emplace_back([&, i] {
      const int32_t status = store.add(deviceItem, "value-" + std::to_string(i));
      if (status == TavloSecureStoreSuccess) ++successes;
      if (status == TavloSecureStoreDuplicateItem) ++duplicates;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(successes.load(), 1);
  EXPECT_EQ(duplicates.load(), contenders - 1);
  EXPECT_EQ(valueOf(deviceItem).rfind("value-", 0), 0u);
}
