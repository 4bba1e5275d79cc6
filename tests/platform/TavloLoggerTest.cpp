#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/TavloLoggingFixture.h"
#include "tavlo/TavloApplication.h"
#include "platform/TavloInstalledPlatform.h"
#include "platform/TavloLogger.h"

namespace {

using TavloLogger_ = TavloLoggingTest;

TEST_F(TavloLogger_, ThresholdAndLevelCompareAsUnsignedNumbers) {
  struct Case {
    int64_t threshold;
    int64_t mode;
    const char* printed;  // null: nothing
  };
  const Case cases[] = {
      {2, 0, nullptr},
      {2, 1, nullptr},
      {2, 2, "(ERROR) : message"},
      {0, 0, "(INFO) : message"},
      {0, 1, "(WARNING) : message"},
      {1, 0, nullptr},
      {1, 1, "(WARNING) : message"},
      {0, 5, "() : message"},
      {3, 2, nullptr},
      {-1, 2, nullptr},  // a negative threshold is a huge unsigned one
      {std::numeric_limits<int64_t>::min(), 2, nullptr},
      {2, -1, "() : message"},  // a negative level is a huge unsigned one
  };
  for (const Case& c : cases) {
    test.logSink->clear();
    TavloSetLoggingMode(c.threshold);  // no tagger needed
    ASSERT_EQ(c.threshold, TavloGetLoggingMode());
    TavloLogger::log("message", c.mode);
    const auto lines = test.logSink->lines();
    if (c.printed == nullptr) {
      EXPECT_TRUE(lines.empty()) << "threshold " << c.threshold << " mode " << c.mode;
    } else {
      EXPECT_EQ(std::vector<std::string>{c.printed}, lines) << "threshold " << c.threshold << " mode " << c.mode;
    }
  }
}

TEST_F(TavloLogger_, StartsWithErrorsOnlyAndFollowsTheInstalledSink) {
  EXPECT_EQ(TavloLoggingModeError, TavloLogger::sharedLogger().loggingMode());
  auto other = TavloMakeTestPlatform();
  TavloPlatform::install(other.platform);
  TavloLogger::log("to the new sink", TavloLoggingModeError);
  EXPECT_TRUE(other.logSink->contains("(ERROR) : to the new sink"));
  EXPECT_FALSE(test.logSink->contains("to the new sink"));
}

TEST_F(TavloLogger_, InstallingAfterTheLibraryStartedSaysItComesTooLate) {
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeWarning);
  EXPECT_TRUE(TavloPlatform::install(test.platform));
  EXPECT_FALSE(test.logSink->contains("called after the library started")) << "nothing has started yet";
  TavloMarkInstalledPlatformTaken();
  EXPECT_FALSE(TavloPlatform::install(test.platform)) << "the caller learns that only the sink changed";
  EXPECT_TRUE(test.logSink->contains("(WARNING) : TavloPlatform::install was called after the library started"));
}

// A sink of each form gets every line: one written for 5.4 through the deprecated
// one-argument form, a current one with the line's level.
TEST_F(TavloLogger_, SinksGetEachLineWithItsLevelOrThroughTheOldForm) {
  struct LevelledSink : TavloLogSink {
    std::vector<std::pair<std::string, TavloLogLevel>> lines;
    void writeLine(std::string_view line, TavloLogLevel level) override { lines.emplace_back(line, level); }
  };
  struct OldSink : TavloLogSink {
    std::vector<std::string> lines;
    void writeLine(std::string_view line) override { lines.emplace_back(line); }
  };
  const std::pair<TavloLoggingMode, TavloLogLevel> cases[] = {
      {TavloLoggingModeInfo, TavloLogLevel::Info},
      {TavloLoggingModeWarning, TavloLogLevel::Warning},
      {TavloLoggingModeError, TavloLogLevel::Error},
  };
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeInfo);
  for (const auto& [mode, level] : cases) {
    auto levelled = std::make_shared<LevelledSink>();
    auto old = std::make_shared<OldSink>();
    for (const std::shared_ptr<TavloLogSink>& sink : std::initializer_list<std::shared_ptr<TavloLogSink>>{levelled, old}) {
      test.platform.logSink = sink;
      TavloPlatform::install(test.platform);
      TavloLogger::log("message", mode);
    }
    const std::string line = std::string("(") + TavloLogger::levelWord(mode) + ") : message";
    // Installing may itself log (once the library has started), so only the last line counts.
    ASSERT_FALSE(levelled->lines.empty() || old->lines.empty());
    EXPECT_EQ(levelled->lines.back(), std::make_pair(line, level));
    EXPECT_EQ(old->lines.back(), line);
  }
}

}  // namespace
