// How a platform is installed, the logger that writes through the installed sink (which
// lines pass the threshold, and the words they carry), the standard error sink, and the
// device facts sent as "m_os" and "m_fw".
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <map>
#include <tuple>

#include "linux/TavloLinuxDeviceInfo.h"
#include "linux/TavloStderrLogSink.h"
#include "linux/TavloSyslogLogSink.h"
#include "platform/TavloInstalledPlatform.h"
#include "platform/TavloLogger.h"
#include "support/TavloLoggingFixture.h"
#include "support/TavloScopedEnvironmentVariable.h"
#include "tavlo/TavloApplication.h"

namespace {

using TavloPlatformTest = TavloLoggingTest;

TEST_F(TavloPlatformTest, LinuxDefaultsFillTheGapsOfAnInstalledPlatformAndKeepSecureItemsUnderTheDataFolder) {
  TavloTemporaryDirectory data;
  TavloScopedEnvironmentVariable xdg("XDG_DATA_HOME", data.path());
  TavloPlatform partial;
  partial.logSink = test.logSink;
  partial.clock = test.clock;
  TavloPlatform::install(partial);
  const TavloPlatform p = TavloPlatform::installed();
  EXPECT_TRUE(p.clock == test.clock && p.random && p.files && p.secureStore && p.deviceInfo && p.mainQueue && p.httpClient && p.reachabilitySource);
  ASSERT_EQ(TavloPlatform::linuxDefaults().secureStore->add({"service", "account", std::nullopt}, "secret"), TavloSecureStoreSuccess);
  EXPECT_TRUE(std::filesystem::exists(data.pathFor("tavlo/secure-store/genp.service.account"))) << "where a later version looks";
}

// A service sets its own folder; a relative one would put the identifier wherever it started.
TEST_F(TavloPlatformTest, AChosenDataDirectoryHoldsTheLibrarysFilesAndARelativeOneIsRefusedAloud) {
  TavloTemporaryDirectory xdg, chosen;
  TavloScopedEnvironmentVariable environment("XDG_DATA_HOME", xdg.path());
  const std::tuple<std::string, std::string, size_t> cases[] = {  // option, folder used, ERROR lines
      {chosen.path(), chosen.path(), 0}, {"", xdg.path(), 0}, {"relative/data", xdg.path(), 1}};
  int account = 0;
  for (const auto& [option, folder, errors] : cases) {
    test.logSink->clear();
    TavloLinuxOptions options;
    options.dataDirectory = option;
    const TavloPlatform platform = TavloPlatform::linuxDefaults({}, options);
    EXPECT_EQ(platform.files->dataDirectory(), folder) << option;
    const std::string name = std::to_string(++account);
    EXPECT_EQ(platform.secureStore->add({"service", name, std::nullopt}, "secret"), TavloSecureStoreSuccess) << option;
    EXPECT_TRUE(std::filesystem::exists(folder + "/tavlo/secure-store/genp.service." + name)) << option;
    EXPECT_EQ(test.logSink->count("(ERROR) : The data directory \"relative/data\" is not an absolute path"), errors);
  }
  EXPECT_FALSE(std::filesystem::exists("relative")) << "nothing is made relative to the working directory";
}

// The level becomes the priority, in the sink's facility (the process's for 0), the line unchanged.
TEST_F(TavloPlatformTest, TheSyslogSinkSendsEachLineAtItsLevelsPriorityInItsFacility) {
  static std::vector<std::pair<int, std::string>> written;
  written.clear();
  const std::tuple<int, TavloLogLevel, std::string, int, std::string> cases[] = {  // facility, level, line, priority, sent
      {0, TavloLogLevel::Info, "(INFO) : Adding a request in queue", LOG_INFO, "(INFO) : Adding a request in queue"},
      {LOG_LOCAL3, TavloLogLevel::Warning, "(WARNING) : w", LOG_LOCAL3 | LOG_WARNING, "(WARNING) : w"},
      {LOG_DAEMON, TavloLogLevel::Error, "(ERROR) : e", LOG_DAEMON | LOG_ERR, "(ERROR) : e"},
      {0, TavloLogLevel::Info, "1 {\n    c = home;\n}", LOG_INFO, "1 {\n    c = home;\n}"},  // a streaming dump
      {0, static_cast<TavloLogLevel>(5), std::string("() : cut\0here", 13), LOG_NOTICE, "() : cut"},
  };
  for (const auto& [facility, level, line, priority, sent] : cases) {
    TavloSyslogLogSink(facility, [](int p, const char* text) { written.emplace_back(p, text); }).writeLine(line, level);
    ASSERT_FALSE(written.empty());
    EXPECT_EQ(written.back(), std::make_pair(priority, sent)) << line;
  }
  for (const int facility : {3, LOG_LOCAL7 + 8, -8}) EXPECT_FALSE(TavloPlatform::syslogLogSink(facility)) << facility;
  EXPECT_TRUE(TavloPlatform::syslogLogSink(LOG_LOCAL7) && TavloPlatform::syslogLogSink());
}

// The new sink is one written for 5.4, which overrides only the deprecated one-argument form.
TEST_F(TavloPlatformTest, TheLogSinkChangesAtOnceAndAnInstallAfterTheLibraryStartedSaysItComesTooLate) {
  struct OldSink : TavloLogSink {
    std::vector<std::string> lines;
    void writeLine(std::string_view line) override { lines.emplace_back(line); }
  };
  auto sink = std::make_shared<OldSink>();
  TavloPlatform other = test.platform;
  other.logSink = sink;
  TavloPlatform::install(other);
  TavloLogger::log("to the new sink", TavloLoggingModeError);
  EXPECT_EQ(std::vector<std::string>{"(ERROR) : to the new sink"}, sink->lines);
  EXPECT_FALSE(test.logSink->contains("to the new sink"));

  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeWarning);
  const TavloPlatform singleton = TavloPlatformForSingleton();  // the library starts
  EXPECT_FALSE(TavloPlatform::install(test.platform)) << "the caller learns that only the sink changed";
  EXPECT_TRUE(test.logSink->contains("(WARNING) : TavloPlatform::install was called after the library started"));
  singleton.logSink->writeLine("from the shared agent", TavloLogLevel::Error);
  EXPECT_TRUE(test.logSink->contains("from the shared agent")) << "a singleton's lines follow the sink installed late";
}

// Applications set any int64, from C too: a signed comparison would print what the threshold hides.
TEST_F(TavloPlatformTest, TheLoggerComparesThresholdAndLevelAsUnsignedNumbers) {
  const std::tuple<int64_t, int64_t, const char*> cases[] = {  // threshold, level, line (null: none)
      {2, 1, nullptr}, {2, 2, "(ERROR) : message"}, {0, 1, "(WARNING) : message"}, {0, 5, "() : message"},
      {-1, 2, nullptr}, {std::numeric_limits<int64_t>::min(), 2, nullptr}, {2, -1, "() : message"}};
  for (const auto& [threshold, level, line] : cases) {
    test.logSink->clear();
    TavloSetLoggingMode(threshold);
    TavloLogger::log("message", level);
    EXPECT_EQ(line ? std::vector<std::string>{line} : std::vector<std::string>{}, test.logSink->lines()) << threshold << " " << level;
  }
}

// The default sink: the line as a system log shows it, and no SIGPIPE when nobody reads.
TEST_F(TavloPlatformTest, TheStderrSinkPrefixesEachLineAndSurvivesAPipeWithoutReader) {
  TavloScopedEnvironmentVariable zone("TZ", std::string("UTC0"));
  EXPECT_EQ(TavloStderrLogSink::prefixAt(1700000000, 5), "2023-11-14 22:13:20.005 Tavlo[" + std::to_string(getpid()) + "] ");
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  errno = ENOENT;
  TavloStderrLogSink(ends[1]).writeLine("nobody reads this", TavloLogLevel::Info);
  EXPECT_EQ(errno, ENOENT) << "the caller's errno must survive a log line";
  sigset_t pending;
  ASSERT_EQ(sigpending(&pending), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0) << "the sink's own SIGPIPE must not stay pending";
  ::close(ends[1]);
}

TEST_F(TavloPlatformTest, LinuxDeviceInfoGivesModelAndSystemVersionFromTheApplicationThenTheSystemFiles) {
  const std::string model = "proc/device-tree/model", dmi = "sys/class/dmi/id/product_name", osRelease = "etc/os-release";
  const std::tuple<std::map<std::string, std::string>, std::string, std::string, std::string> cases[] = {  // files, application's model, m_os, m_fw
      {{{model, std::string("Box One\0Box Family\0", 19)}, {osRelease, "# VERSION_ID=0\nVERSION_IDX=9\n  VERSION_ID=\"1\\\"2\"\n"}}, "", "Box One", "1\"2"},
      {{{model, std::string(" \n\0", 3)}, {dmi, "OptiPlex 7070\n"}, {"usr/lib/os-release", "VERSION_ID='3.18'"}}, "", "OptiPlex 7070", "3.18"},
      {{{model, std::string(8192, 'M')}, {dmi, "  \n"}, {osRelease, "VERSION_ID=12"}}, "", "Linux", "12"},
      {{{model, "ARM Box"}, {osRelease, "VERSION_ID=12"}}, "Living Room Box", "Living Room Box", "12"},
  };
  for (const auto& [files, applicationModel, expectedModel, expectedVersion] : cases) {
    TavloTemporaryDirectory root;
    for (const auto& [path, contents] : files) root.writeFile(path, contents);
    TavloApplicationInfo application;
    application.model = applicationModel;
    TavloLinuxDeviceInfo info(application, root.path());
    root.writeFile(model, "read again");  // the files are read once, when made
    EXPECT_EQ(info.model(), expectedModel) << expectedModel;
    EXPECT_EQ(info.systemVersion(), expectedVersion) << expectedModel;
  }
}

}  // namespace
