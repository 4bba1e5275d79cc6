#include "support/TavloLoggingFixture.h"
#include "platform/TavloLogger.h"
#include "tagging/TavloTaggerState.h"
#include "tavlo/TavloTagger.h"

namespace {

// The base is abstract; this stands in for the concrete taggers.
class TestTagger : public TavloTagger {
 public:
  TestTagger(TavloString serial, TavloString customerData) : TavloTagger(std::move(serial), std::move(customerData)) {}
  TavloString newLevel(int index) const { return state().newLevel(index); }
  void setCanSend(bool canSend) { state().setCanSend(canSend); }
};

using TavloTagger_ = TavloLoggingTest;

TEST_F(TavloTagger_, StartsEmptyWithLoggingModeTwoWithoutTouchingTheLogger) {
  TavloLogger::sharedLogger().setLoggingMode(0);
  const TestTagger tagger("123", std::nullopt);
  EXPECT_EQ("123", tagger.serial());
  EXPECT_FALSE(tagger.customerData());
  EXPECT_FALSE(tagger.canSend());
  EXPECT_FALSE(tagger.useIDFA());
  EXPECT_EQ(2, tagger.loggingMode());
  EXPECT_EQ(0, TavloLogger::sharedLogger().loggingMode()) << "making a tagger must not reset the threshold";
  for (int i = 1; i <= TavloTagger::kNewLevelCount; ++i) EXPECT_FALSE(tagger.newLevel(i)) << "level " << i;
  EXPECT_FALSE(tagger.mediaContentId());
}

TEST_F(TavloTagger_, EachLevelAccessorPairReachesItsOwnLevel) {
  TestTagger tagger("s", "c");
  using Getter = TavloString (TavloTagger::*)() const;
  using Setter = void (TavloTagger::*)(TavloString);
  const std::pair<Getter, Setter> accessors[] = {
      {&TavloTagger::theNewLevel1, &TavloTagger::setNewLevel1},   {&TavloTagger::theNewLevel2, &TavloTagger::setNewLevel2},
      {&TavloTagger::theNewLevel3, &TavloTagger::setNewLevel3},   {&TavloTagger::theNewLevel4, &TavloTagger::setNewLevel4},
      {&TavloTagger::theNewLevel5, &TavloTagger::setNewLevel5},   {&TavloTagger::theNewLevel6, &TavloTagger::setNewLevel6},
      {&TavloTagger::theNewLevel7, &TavloTagger::setNewLevel7},   {&TavloTagger::theNewLevel8, &TavloTagger::setNewLevel8},
      {&TavloTagger::theNewLevel9, &TavloTagger::setNewLevel9},   {&TavloTagger::theNewLevel10, &TavloTagger::setNewLevel10},
      {&TavloTagger::theNewLevel11, &TavloTagger::setNewLevel11},
  };
  for (int i = 0; i < TavloTagger::kNewLevelCount; ++i) {
    (tagger.*accessors[i].second)("level" + std::to_string(i + 1));
  }
  for (int i = 0; i < TavloTagger::kNewLevelCount; ++i) {
    const std::string expected = "level" + std::to_string(i + 1);
    EXPECT_EQ(expected, (tagger.*accessors[i].first)()) << "getter " << i + 1;
    EXPECT_EQ(expected, tagger.newLevel(i + 1)) << "index " << i + 1;
  }
  EXPECT_FALSE(tagger.newLevel(0));
  EXPECT_FALSE(tagger.newLevel(12));

  const std::pair<void (TavloTagger::*)(TavloString), TavloString (TavloTagger::*)() const> media[] = {
      {&TavloTagger::setMediaContentId, &TavloTagger::mediaContentId},
      {&TavloTagger::setMediaDiffMode, &TavloTagger::mediaDiffMode},
      {&TavloTagger::setMediaChannel, &TavloTagger::mediaChannel},
      {&TavloTagger::setNetMeasurement, &TavloTagger::netMeasurement},
  };
  for (size_t i = 0; i < std::size(media); ++i) (tagger.*media[i].first)("m" + std::to_string(i));
  for (size_t i = 0; i < std::size(media); ++i) EXPECT_EQ("m" + std::to_string(i), (tagger.*media[i].second)());
}

TEST_F(TavloTagger_, SettingTheLoggingModeOnOneTaggerChangesWhatAllPrint) {
  TestTagger first("a", std::nullopt);
  TestTagger second("b", std::nullopt);
  first.setLoggingMode(0);
  TavloLogger::log("info line", TavloLoggingModeInfo);
  EXPECT_TRUE(test.logSink->contains("(INFO) : info line"));
  EXPECT_EQ(2, second.loggingMode()) << "the other tagger's own field is untouched";

  second.setLoggingMode(3);
  TavloLogger::log("error line", TavloLoggingModeError);
  EXPECT_FALSE(test.logSink->contains("error line")) << "the last tagger set decides for all";
  EXPECT_EQ(0, first.loggingMode());
}

TEST_F(TavloTagger_, CanSendIsWrittenOnlyBySubclasses) {
  TestTagger tagger("s", std::nullopt);
  tagger.setCanSend(true);
  EXPECT_TRUE(tagger.canSend());
}

}  // namespace
