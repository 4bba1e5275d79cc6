#include <limits>

#include "support/TavloLoggingFixture.h"
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
    TavloLogger::sharedLogger().setLoggingMode(c.threshold);
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
  TavloPlatform::install(test.platform);
  EXPECT_FALSE(test.logSink->contains("called after the library started")) << "nothing has started yet";
  TavloMarkInstalledPlatformTaken();
  TavloPlatform::install(test.platform);
  EXPECT_TRUE(test.logSink->contains("(WARNING) : TavloPlatform::install was called after the library started"));
}

}  // namespace
