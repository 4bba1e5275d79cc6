// The files behind the request queue and the secure store: where they live, their exact
// modes whatever the umask, whole replacement, and no link planted at a name followed.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <set>

#include "linux/TavloPosixFileSystem.h"
#include "support/TavloTemporaryDirectory.h"

namespace {

// umask is process-wide; set here so the modes checked cannot come from it.
class TavloPosixFileSystemTest : public ::testing::Test {
 protected:
  ~TavloPosixFileSystemTest() override { ::umask(previousMask); }
  std::string at(const std::string& name) { return directory.pathFor(name); }
  unsigned modeOf(const std::string& name) {
    struct stat status {};
    return ::stat(at(name).c_str(), &status) == 0 ? status.st_mode & 07777 : 0xFFFFFFFF;
  }

  const mode_t previousMask = ::umask(077);
  TavloTemporaryDirectory directory;
  TavloPosixFileSystem files{directory.path()};
};

TEST_F(TavloPosixFileSystemTest, CreateDirectoriesGivesTheExactModeNarrowsTheFolderAskedForAndRefusesLinks) {
  ASSERT_FALSE(files.createDirectories(at("a/b/c"), 0750));
  EXPECT_EQ((std::vector<unsigned>{0750, 0750, 0750}), (std::vector<unsigned>{modeOf("a"), modeOf("a/b"), modeOf("a/b/c")}));
  ::chmod(at("a/b").c_str(), 0777);
  ASSERT_FALSE(files.createDirectories(at("a/b/c/"), 0700));
  EXPECT_EQ(0700u, modeOf("a/b/c")) << "the folder asked for is narrowed";
  EXPECT_EQ(0777u, modeOf("a/b")) << "its parents are left as they are";
  directory.writeFile("plain", "a file");
  std::filesystem::create_directory_symlink(at("a"), at("link"));
  const std::pair<std::string, std::errc> refused[] = {
      {at("plain/below"), std::errc::not_a_directory}, {"", std::errc::invalid_argument}, {at("link"), std::errc::too_many_symbolic_link_levels}};
  for (const auto& [path, expected] : refused) EXPECT_EQ(files.createDirectories(path, 0700), expected) << path;
}

TEST_F(TavloPosixFileSystemTest, ReadFileAnswersContentsOrARefusalAndNeverBlocks) {
  directory.writeFile("ten", "0123456789");
  ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
  const std::tuple<std::string, size_t, std::error_code, std::string> cases[] = {
      {at("ten"), 10, {}, "0123456789"},
      {at("ten"), 9, make_error_code(std::errc::file_too_large), ""},
      {at("missing"), 100, make_error_code(std::errc::no_such_file_or_directory), ""},
      {at("fifo"), 100, make_error_code(std::errc::invalid_argument), ""},      // nobody writes: must not block
      {"/proc/self/status", 8, make_error_code(std::errc::file_too_large), ""},  // its size shows only when read
  };
  for (const auto& [path, maxBytes, error, expected] : cases) {
    std::string contents = "stale";
    EXPECT_EQ(files.readFile(path, contents, maxBytes), error) << path << " " << maxBytes;
    EXPECT_EQ(contents, expected) << path << " " << maxBytes;
  }
}

TEST_F(TavloPosixFileSystemTest, WriteFileAtomicallyReplacesTheFileWholeWithTheExactModeOrLeavesItAlone) {
  std::string large(3 * 1024 * 1024 + 7, '\0'), contents;
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 31 + 7);
  directory.writeFile("item", "open to all");
  ::chmod(at("item").c_str(), 0666);
  for (const std::string& text : {large, std::string()}) {
    ASSERT_FALSE(files.writeFileAtomically(at("item"), text, 0640));
    EXPECT_TRUE(!files.readFile(at("item"), contents, 1 << 23) && contents == text) << "the new " << text.size() << " bytes replace the old ones whole";
    EXPECT_EQ(0640u, modeOf("item"));
  }
  ASSERT_EQ(0, ::mkdir(at("folder").c_str(), 0700));
  const std::pair<std::string, std::errc> refused[] = {
      {at("missing/item"), std::errc::no_such_file_or_directory}, {at("folder"), std::errc::is_a_directory}, {at("item/"), std::errc::invalid_argument}};
  for (const auto& [path, expected] : refused) EXPECT_EQ(files.writeFileAtomically(path, "new", 0600), expected) << path;
  std::set<std::string> entries;
  for (const auto& entry : std::filesystem::directory_iterator(directory.path())) entries.insert(entry.path().filename());
  EXPECT_EQ(entries, (std::set<std::string>{"item", "folder"})) << "no temporary file may stay behind";
}

TEST_F(TavloPosixFileSystemTest, NeitherTheLockNorAnAppendFollowsALinkPlantedAtItsName) {
  std::error_code error;
  std::filesystem::create_symlink(at("target"), at("planted.lock"));
  std::filesystem::create_symlink(at("target"), at("planted.sent"));
  EXPECT_FALSE(files.tryLockFile(at("planted.lock"), error));
  EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
  EXPECT_EQ(files.appendToFile(at("planted.sent"), "entry", 0600), std::errc::too_many_symbolic_link_levels);
  EXPECT_FALSE(files.openForAppending(at("planted.sent"), 0600, error));
  EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
  EXPECT_FALSE(std::filesystem::exists(at("target"))) << "a link's target must not be created";
}

// A platform that only knows how to append by path: it gets the default appender.
class TavloAppendByPathOnly : public TavloFileSystem {
 public:
  explicit TavloAppendByPathOnly(TavloPosixFileSystem& files) : files(files) {}
  std::string dataDirectory() override { return files.dataDirectory(); }
  std::error_code createDirectories(const std::string& path, unsigned mode) override {
    return files.createDirectories(path, mode);
  }
  std::error_code readFile(const std::string& path, std::string& contents, std::size_t maxBytes) override {
    return files.readFile(path, contents, maxBytes);
  }
  std::error_code writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode) override {
    return files.writeFileAtomically(path, contents, mode);
  }
  std::error_code removeFile(const std::string& path) override { return files.removeFile(path); }

 private:
  TavloPosixFileSystem& files;
};

TEST_F(TavloPosixFileSystemTest, AppendsLandAtTheEndWhetherMadeByPathOrThroughAnAppender) {
  TavloAppendByPathOnly byPathOnly(files);
  const auto throughAppenderOf = [](TavloFileSystem& system) {
    return [&system](const std::string& path) {
      std::error_code error;
      const auto appender = system.openForAppending(path, 0600, error);
      ASSERT_TRUE(appender) << error.message();
      for (const char* part : {"ab", "cd"}) ASSERT_FALSE(appender->append(part));
    };
  };
  const std::pair<const char*, std::function<void(const std::string&)>> ways[] = {
      {"by path",
       [&](const std::string& path) {
         for (const char* part : {"ab", "cd"}) ASSERT_FALSE(files.appendToFile(path, part, 0600));
       }},
      {"through the descriptor kept open", throughAppenderOf(files)},
      {"through the default appender", throughAppenderOf(byPathOnly)},
  };
  for (const auto& [way, append] : ways) {
    const std::string existing = std::string("existing ") + way, fresh = std::string("fresh ") + way;
    directory.writeFile(existing, "x");
    append(at(existing));
    append(at(fresh));
    std::string contents;
    EXPECT_TRUE(!files.readFile(at(existing), contents, 100) && contents == "xabcd") << way << ": " << contents;
    EXPECT_TRUE(!files.readFile(at(fresh), contents, 100) && contents == "abcd") << way << ": " << contents;
    EXPECT_EQ(0600u, modeOf(fresh)) << way;
  }
}

}  // namespace
