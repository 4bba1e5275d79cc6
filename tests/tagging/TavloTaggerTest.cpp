#include "platform/TavloLogger.h"
#include "support/TavloLoggingFixture.h"
#include "tavlo/TavloTagger.h"

namespace {

// The base is abstract; this stands in for the concrete taggers.
class TestTagger : public TavloTagger {
 public:
  explicit TestTagger(TavloString serial) : TavloTagger(std::move(serial), std::nullopt) {}
};

using TavloTagger_ = TavloLoggingTest;

// The threshold is the process's: the last tagger set decides what every tagger prints,
// and making a tagger leaves it as the application set it.
TEST_F(TavloTagger_, TheLastTaggerSetDecidesWhatAllPrintAndMakingOneChangesNothing) {
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeError);
  TestTagger first("a");
  TestTagger second("b");
  EXPECT_EQ(TavloLoggingModeError, TavloLogger::sharedLogger().loggingMode());
  first.setLoggingMode(0);
  TavloLogger::log("info line", TavloLoggingModeInfo);
  EXPECT_TRUE(test.logSink->contains("(INFO) : info line"));

  second.setLoggingMode(3);
  TavloLogger::log("error line", TavloLoggingModeError);
  EXPECT_FALSE(test.logSink->contains("error line"));
}

}  // namespace
