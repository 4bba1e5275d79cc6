#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "linux/TavloPosixFileSystem.h"
#include "support/TavloScopedEnvironmentVariable.h"
#include "support/TavloTemporaryDirectory.h"

namespace {

unsigned modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0xFFFFFFFF;
}

// umask is process-wide; these tests set it so the modes they check cannot come from it.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : previous(::umask(mask)) {}
  ~ScopedUmask() { ::umask(previous); }

 private:
  mode_t previous;
};

class TavloPosixFileSystemTest : public ::testing::Test {
 protected:
  std::set<std::string> entries() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) names.insert(entry.path().filename());
    return names;
  }
  std::string contentsOf(const std::string& name) {
    std::string contents;
    EXPECT_FALSE(files.readFile(directory.pathFor(name), contents, 1 << 23)) << name;
    return contents;
  }

  TavloTemporaryDirectory directory;
  TavloPosixFileSystem files{directory.path()};
};

}  // namespace

TEST(TavloPosixFileSystemDataDirectoryTest, FollowsOverrideThenXdgThenHomeThenPasswordEntry) {
  const struct passwd* entry = getpwuid(getuid());
  const std::string fromPasswordEntry = std::string(entry != nullptr ? entry->pw_dir : "") + "/.local/share";
  struct Case {
    const char* name;
    std::optional<std::string> override, xdgDataHome, home;
    std::string expected;
  };
  const Case cases[] = {
      {"override wins over the environment", "/data/app", "/xdg", "/home/viewer", "/data/app"},
      {"absolute XDG_DATA_HOME", std::nullopt, "/xdg/data", "/home/viewer", "/xdg/data"},
      {"relative XDG_DATA_HOME is ignored", std::nullopt, "relative/data", "/home/viewer", "/home/viewer/.local/share"},
      {"empty XDG_DATA_HOME is ignored", std::nullopt, "", "/home/viewer", "/home/viewer/.local/share"},
      {"no XDG_DATA_HOME", std::nullopt, std::nullopt, "/home/viewer", "/home/viewer/.local/share"},
      {"relative HOME falls to the password entry", std::nullopt, std::nullopt, "viewer", fromPasswordEntry},
      {"no HOME falls to the password entry", std::nullopt, std::nullopt, std::nullopt, fromPasswordEntry},
  };
  for (const Case& c : cases) {
    TavloScopedEnvironmentVariable xdg("XDG_DATA_HOME", c.xdgDataHome);
    TavloScopedEnvironmentVariable home("HOME", c.home);
    EXPECT_EQ(TavloPosixFileSystem(c.override).dataDirectory(), c.expected) << c.name;
  }
}

TEST_F(TavloPosixFileSystemTest, CreateDirectoriesMakesMissingLevelsWithTheExactModeAndLeavesOthersAlone) {
  ScopedUmask mask(077);
  ASSERT_FALSE(files.createDirectories(directory.pathFor("a/b/c"), 0750));
  for (const char* level : {"a", "a/b", "a/b/c"}) EXPECT_EQ(modeOf(directory.pathFor(level)), 0750u) << level;
  EXPECT_FALSE(files.createDirectories(directory.pathFor("a/b/c/"), 0755)) << "a trailing slash names the same folder";
  EXPECT_EQ(modeOf(directory.pathFor("a/b/c")), 0750u) << "an existing folder is never widened";
  ::chmod(directory.pathFor("a/b").c_str(), 0777);
  EXPECT_FALSE(files.createDirectories(directory.pathFor("a/b/c"), 0700));
  EXPECT_EQ(modeOf(directory.pathFor("a/b/c")), 0700u) << "the folder asked for is narrowed";
  EXPECT_EQ(modeOf(directory.pathFor("a/b")), 0777u) << "its parents are left as they are";
  EXPECT_FALSE(files.createDirectories(directory.pathFor("a/b"), 0700));
  EXPECT_EQ(modeOf(directory.pathFor("a/b")), 0700u) << "a loose folder made by someone else is narrowed";

  directory.writeFile("plain", "a file");
  struct Case {
    const char* name;
    std::string path;
    std::errc expected;
  };
  const Case refused[] = {
      {"the path is a file", directory.pathFor("plain"), std::errc::not_a_directory},
      {"a parent is a file", directory.pathFor("plain/below"), std::errc::not_a_directory},
      {"empty path", "", std::errc::invalid_argument},
      {"the folder is a symbolic link", directory.pathFor("link"), std::errc::too_many_symbolic_link_levels},
  };
  std::filesystem::create_directory_symlink(directory.pathFor("a"), directory.pathFor("link"));
  for (const Case& c : refused) EXPECT_EQ(files.createDirectories(c.path, 0700), c.expected) << c.name;
  EXPECT_EQ(contentsOf("plain"), "a file") << "a refused folder must not disturb the file in its way";
}

TEST_F(TavloPosixFileSystemTest, ReadFileAnswersContentsOrAClearRefusal) {
  directory.writeFile("ten", "0123456789");
  directory.writeFile("empty", "");
  directory.writeFile("binary", std::string("a\0b\nc\xff", 6));
  ASSERT_EQ(::mkdir(directory.pathFor("folder").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo(directory.pathFor("fifo").c_str(), 0600), 0);
  struct Case {
    const char* name;
    std::string path;
    size_t maxBytes;
    std::errc expectedError;  // errc{} for none
    std::string expectedContents;
  };
  const Case cases[] = {
      {"exactly at the cap", directory.pathFor("ten"), 10, {}, "0123456789"},
      {"one byte over the cap", directory.pathFor("ten"), 9, std::errc::file_too_large, ""},
      {"empty file with no room", directory.pathFor("empty"), 0, {}, ""},
      {"bytes kept as they are", directory.pathFor("binary"), 100, {}, std::string("a\0b\nc\xff", 6)},
      {"missing file", directory.pathFor("missing"), 100, std::errc::no_such_file_or_directory, ""},
      {"a directory", directory.pathFor("folder"), 100, std::errc::is_a_directory, ""},
      {"a FIFO nobody writes to", directory.pathFor("fifo"), 100, std::errc::invalid_argument, ""},
      {"through a file", directory.pathFor("ten/below"), 100, std::errc::not_a_directory, ""},
      {"a kernel file reporting no size, over the cap", "/proc/self/status", 8, std::errc::file_too_large, ""},
  };
  for (const Case& c : cases) {
    std::string contents = "stale";
    const std::error_code expected = c.expectedError == std::errc{} ? std::error_code{} : make_error_code(c.expectedError);
    EXPECT_EQ(files.readFile(c.path, contents, c.maxBytes), expected) << c.name;
    EXPECT_EQ(contents, c.expectedContents) << c.name;
  }
  std::string status;
  ASSERT_FALSE(files.readFile("/proc/self/status", status, 1 << 20));
  EXPECT_NE(status.find("Pid:"), std::string::npos) << "a kernel file reports no size until read";
}

TEST_F(TavloPosixFileSystemTest, WriteFileAtomicallyReplacesContentsWholeWithTheExactMode) {
  ScopedUmask mask(077);
  std::string large(3 * 1024 * 1024 + 7, '\0');
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 31 + 7);
  for (const std::string& text : {large, std::string("short"), std::string()}) {
    ASSERT_FALSE(files.writeFileAtomically(directory.pathFor("item"), text, 0640));
    EXPECT_TRUE(contentsOf("item") == text) << "the new " << text.size() << " bytes replace the old ones whole";
    EXPECT_EQ(modeOf(directory.pathFor("item")), 0640u);
  }
  directory.writeFile("old", "open to all");
  ::chmod(directory.pathFor("old").c_str(), 0666);
  ASSERT_FALSE(files.writeFileAtomically(directory.pathFor("old"), "private", 0600));
  EXPECT_EQ(modeOf(directory.pathFor("old")), 0600u) << "a replaced file takes the new mode";
  EXPECT_EQ(entries(), (std::set<std::string>{"item", "old"})) << "no temporary file may stay behind";
}

TEST_F(TavloPosixFileSystemTest, WriteFileAtomicallyFailsCleanlyAndKeepsWhatWasThere) {
  ASSERT_EQ(::mkdir(directory.pathFor("folder").c_str(), 0700), 0);
  directory.writeFile("folder/inside", "kept");
  struct Case {
    const char* name;
    std::string path;
    std::errc expected;
  };
  const Case cases[] = {
      {"missing parent folder", directory.pathFor("missing/item"), std::errc::no_such_file_or_directory},
      {"target is a directory", directory.pathFor("folder"), std::errc::is_a_directory},
      {"target names a folder", directory.pathFor("folder/"), std::errc::invalid_argument},
      {"empty path", "", std::errc::invalid_argument},
  };
  for (const Case& c : cases) EXPECT_EQ(files.writeFileAtomically(c.path, "new", 0600), c.expected) << c.name;
  EXPECT_EQ(entries(), std::set<std::string>{"folder"}) << "no temporary file may stay behind";
  EXPECT_EQ(contentsOf("folder/inside"), "kept");
}

TEST_F(TavloPosixFileSystemTest, ConcurrentWritersEachLeaveAWholeFile) {
  std::set<std::string> written;
  for (int w = 0; w < 6; ++w) written.insert(std::string(1000 + w * 100, static_cast<char>('a' + w)));
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (const std::string& text : written) {
    threads.emplace_back([&, text] {
      for (int round = 0; round < 25; ++round) {
        if (files.writeFileAtomically(directory.pathFor("shared"), text, 0600)) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(written.count(contentsOf("shared")), 1u) << "the file must be one writer's contents, whole";
  EXPECT_EQ(entries(), std::set<std::string>{"shared"});
}

TEST_F(TavloPosixFileSystemTest, ALockNeverFollowsALinkPlantedAtItsName) {
  std::filesystem::create_symlink(directory.pathFor("target"), directory.pathFor("planted.lock"));
  std::error_code error;
  EXPECT_FALSE(files.tryLockFile(directory.pathFor("planted.lock"), error));
  EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
  EXPECT_FALSE(std::filesystem::exists(directory.pathFor("target"))) << "the link's target must not be created";
}

TEST_F(TavloPosixFileSystemTest, RemoveFileRemovesOnceThenReportsMissing) {
  directory.writeFile("doomed", "x");
  EXPECT_FALSE(files.removeFile(directory.pathFor("doomed")));
  EXPECT_EQ(files.removeFile(directory.pathFor("doomed")), std::errc::no_such_file_or_directory);
  EXPECT_FALSE(std::filesystem::exists(directory.pathFor("doomed")));
}
