#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "platform/TavloPosixFileSystem.h"
#include "support/TavloScopedEnvironmentVariable.h"
#include "support/TavloTemporaryDirectory.h"

namespace {

unsigned modeOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return 0xFFFFFFFF;
  return status.st_mode & 07777;
}

std::set<std::string> entriesOf(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename());
  return names;
}

std::string passwordHome() {
  const struct passwd* entry = getpwuid(getuid());
  return entry != nullptr ? entry->pw_dir : "";
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
  TavloTemporaryDirectory directory;
  TavloPosixFileSystem files{directory.path()};
};

}  // namespace

TEST(TavloPosixFileSystemDataDirectoryTest, FollowsOverrideThenXdgThenHomeThenPasswordEntry) {
  const std::string fromPasswordEntry = passwordHome() + "/.local/share";
  struct Case {
    const char* name;
    std::optional<std::string> override;
    std::optional<std::string> xdgDataHome;
    std::optional<std::string> home;
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

TEST_F(TavloPosixFileSystemTest, CreateDirectoriesMakesEveryMissingLevelWithTheExactMode) {
  ScopedUmask mask(077);
  const std::string deepest = directory.pathFor("a/b/c");
  ASSERT_FALSE(files.createDirectories(deepest, 0750));
  for (const char* level : {"a", "a/b", "a/b/c"}) {
    EXPECT_EQ(modeOf(directory.pathFor(level)), 0750u) << level;
  }
  EXPECT_FALSE(files.createDirectories(deepest + "/", 0700)) << "a trailing slash names the same folder";
}

TEST_F(TavloPosixFileSystemTest, CreateDirectoriesLeavesAnExistingFolderAsItIs) {
  ASSERT_EQ(::mkdir(directory.pathFor("kept").c_str(), 0755), 0);
  ::chmod(directory.pathFor("kept").c_str(), 0755);
  EXPECT_FALSE(files.createDirectories(directory.pathFor("kept"), 0700));
  EXPECT_EQ(modeOf(directory.pathFor("kept")), 0755u);
}

TEST_F(TavloPosixFileSystemTest, CreateDirectoriesRefusesWhatCannotBeAFolder) {
  directory.writeFile("plain", "a file");
  struct Case {
    const char* name;
    std::string path;
    std::errc expected;
  };
  const Case cases[] = {
      {"the path is a file", directory.pathFor("plain"), std::errc::not_a_directory},
      {"a parent is a file", directory.pathFor("plain/below"), std::errc::not_a_directory},
      {"empty path", "", std::errc::invalid_argument},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(files.createDirectories(c.path, 0700), c.expected) << c.name;
  }
  std::string contents;
  ASSERT_FALSE(files.readFile(directory.pathFor("plain"), contents, 100));
  EXPECT_EQ(contents, "a file") << "a refused folder must not disturb the file in its way";
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
    std::error_code expectedError;
    std::string expectedContents;
  };
  const Case cases[] = {
      {"exactly at the cap", directory.pathFor("ten"), 10, {}, "0123456789"},
      {"one byte over the cap", directory.pathFor("ten"), 9, make_error_code(std::errc::file_too_large), ""},
      {"empty file with no room", directory.pathFor("empty"), 0, {}, ""},
      {"bytes kept as they are", directory.pathFor("binary"), 100, {}, std::string("a\0b\nc\xff", 6)},
      {"missing file", directory.pathFor("missing"), 100, make_error_code(std::errc::no_such_file_or_directory), ""},
      {"a directory", directory.pathFor("folder"), 100, make_error_code(std::errc::is_a_directory), ""},
      {"a FIFO nobody writes to", directory.pathFor("fifo"), 100, make_error_code(std::errc::invalid_argument), ""},
      {"through a file", directory.pathFor("ten/below"), 100, make_error_code(std::errc::not_a_directory), ""},
  };
  for (const Case& c : cases) {
    std::string contents = "stale";
    EXPECT_EQ(files.readFile(c.path, contents, c.maxBytes), c.expectedError) << c.name;
    EXPECT_EQ(contents, c.expectedContents) << c.name;
  }
}

TEST_F(TavloPosixFileSystemTest, ReadFileReadsKernelFilesThatReportNoSize) {
  std::string contents;
  ASSERT_FALSE(files.readFile("/proc/self/status", contents, 1 << 20));
  EXPECT_NE(contents.find("Pid:"), std::string::npos);
  EXPECT_EQ(files.readFile("/proc/self/status", contents, 8), std::errc::file_too_large)
      << "the cap must hold even when the size is unknown until read";
}

TEST_F(TavloPosixFileSystemTest, WriteFileAtomicallyReplacesContentsAndLeavesNoTemporaryFile) {
  const std::string target = directory.pathFor("item");
  for (const std::string& text : {std::string("first, rather long contents"), std::string("short"), std::string()}) {
    ASSERT_FALSE(files.writeFileAtomically(target, text, 0600));
    std::string contents;
    ASSERT_FALSE(files.readFile(target, contents, 1000));
    EXPECT_EQ(contents, text) << "the new contents replace the old ones whole";
  }
  EXPECT_EQ(entriesOf(directory.path()), std::set<std::string>{"item"});
}

TEST_F(TavloPosixFileSystemTest, WriteFileAtomicallyGivesTheExactModeToNewAndReplacedFiles) {
  ScopedUmask mask(077);
  ASSERT_FALSE(files.writeFileAtomically(directory.pathFor("new"), "x", 0640));
  EXPECT_EQ(modeOf(directory.pathFor("new")), 0640u);

  directory.writeFile("old", "open to all");
  ::chmod(directory.pathFor("old").c_str(), 0666);
  ASSERT_FALSE(files.writeFileAtomically(directory.pathFor("old"), "private", 0600));
  EXPECT_EQ(modeOf(directory.pathFor("old")), 0600u);
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
  for (const Case& c : cases) {
    EXPECT_EQ(files.writeFileAtomically(c.path, "new", 0600), c.expected) << c.name;
  }
  EXPECT_EQ(entriesOf(directory.path()), std::set<std::string>{"folder"}) << "no temporary file may stay behind";
  std::string contents;
  ASSERT_FALSE(files.readFile(directory.pathFor("folder/inside"), contents, 100));
  EXPECT_EQ(contents, "kept");
}

TEST_F(TavloPosixFileSystemTest, WriteFileAtomicallyRoundTripsLargeContents) {
  std::string large(3 * 1024 * 1024 + 7, '\0');
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 31 + 7);
  ASSERT_FALSE(files.writeFileAtomically(directory.pathFor("large"), large, 0600));
  std::string contents;
  ASSERT_FALSE(files.readFile(directory.pathFor("large"), contents, large.size()));
  EXPECT_TRUE(contents == large);
}

TEST_F(TavloPosixFileSystemTest, ConcurrentWritersEachLeaveAWholeFile) {
  const std::string target = directory.pathFor("shared");
  constexpr int writers = 6;
  constexpr int rounds = 25;
  std::set<std::string> written;
  for (int w = 0; w < writers; ++w) written.insert(std::string(1000 + w * 100, static_cast<char>('a' + w)));
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (const std::string& text : written) {
    threads.emplace_back([&, text] {
      for (int r = 0; r < rounds; ++r) {
        if (files.writeFileAtomically(target, text, 0600)) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  std::string contents;
  ASSERT_FALSE(files.readFile(target, contents, 1 << 20));
  EXPECT_EQ(written.count(contents), 1u) << "the file must be one writer's contents, whole";
  EXPECT_EQ(entriesOf(directory.path()), std::set<std::string>{"shared"});
}

TEST_F(TavloPosixFileSystemTest, RemoveFileRemovesOnceThenReportsMissing) {
  directory.writeFile("doomed", "x");
  EXPECT_FALSE(files.removeFile(directory.pathFor("doomed")));
  EXPECT_EQ(files.removeFile(directory.pathFor("doomed")), std::errc::no_such_file_or_directory);
  std::string contents;
  EXPECT_EQ(files.readFile(directory.pathFor("doomed"), contents, 10), std::errc::no_such_file_or_directory);
}
