#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"
#include "util/TavloStringHash.h"
#include "identity/TavloTaggerID.h"
#include "identity/TavloTaggerIdentifier.h"

namespace {

TEST(TavloStringHash, IsFnv1aOverUtf8AndStableAcrossRuns) {
  // Pinned values: a change here would change every persisted hash-derived decision.
  EXPECT_EQ(14695981039346656037ULL, TavloStringHash(std::string_view("")));
  EXPECT_EQ(0xaf63dc4c8601ec8cULL, TavloStringHash(std::string_view("a")));
  EXPECT_EQ(0ULL, TavloStringHash(TavloString()));
  EXPECT_NE(TavloStringHash(TavloString("")), TavloStringHash(TavloString()));
}

TEST(TavloTaggerID, HashFollowsThePolynomialInWrappingArithmetic) {
  struct Case {
    TavloString serial;
    int64_t partialID;
    bool stream;
  };
  const Case cases[] = {
      {"123", 0, false},
      {"123", TavloTaggerID::kAudiencePartialID, false},
      {"abc", -1, true},
      {std::nullopt, 7, true},
      {"", std::numeric_limits<int64_t>::min(), false},
  };
  for (const Case& c : cases) {
    const TavloTaggerID id(c.serial, c.partialID, c.stream);
    const uint64_t expected = 29791ULL + 961ULL * TavloStringHash(c.serial) +
                              31ULL * static_cast<uint64_t>(c.partialID) + (c.stream ? 1231ULL : 1237ULL);
    EXPECT_EQ(expected, id.hash()) << "serial " << c.serial.value_or("(nil)") << " partial " << c.partialID;
  }
}

TEST(TavloTaggerID, EqualityComparesAllThreeFieldsAndNeverMatchesANilSerial) {
  const TavloTaggerID base("s1", 4, false);
  struct Case {
    TavloTaggerID other;
    bool equal;
    const char* why;
  };
  const Case cases[] = {
      {TavloTaggerID("s1", 4, false), true, "same fields"},
      {TavloTaggerID("s2", 4, false), false, "other serial"},
      {TavloTaggerID("s1", 5, false), false, "other partial id"},
      {TavloTaggerID("s1", 4, true), false, "other stream flag"},
      {TavloTaggerID(std::nullopt, 4, false), false, "nil serial on the other side"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.equal, base.isEqual(c.other)) << c.why;
  }
  const TavloTaggerID nilSerial(std::nullopt, 1, false);
  EXPECT_FALSE(nilSerial.isEqual(nilSerial)) << "a nil serial never compares equal, not even to itself";

  const TavloTaggerID stream("s1", 4, true);
  EXPECT_EQ(6u, base.hash() - stream.hash()) << "the stream flag contributes 1231 against 1237";
}

TEST(TavloTaggerID, CopyIsADistinctEqualObject) {
  const TavloTaggerID id("s", 9, true);
  const auto copied = id.copy();
  EXPECT_NE(&id, copied.get());
  EXPECT_TRUE(id.isEqual(*copied));
  EXPECT_EQ(id.hash(), copied->hash());
}

TEST(TavloTaggerID, SurvivesAKeyedArchiveWithEveryField) {
  for (const TavloTaggerID& original : {TavloTaggerID("serial-1", TavloTaggerID::kAudiencePartialID, false),
                                        TavloTaggerID("serial-2", 0, true), TavloTaggerID("", -42, true)}) {
    const std::string data = TavloKeyedArchiver::archivedDataWithRootObject(original);
    const auto decoded =
        std::dynamic_pointer_cast<TavloTaggerID>(TavloKeyedUnarchiver::unarchivedObjectWithData(data, TavloRecordClasses()));
    ASSERT_TRUE(decoded) << "serial " << *original.serial();
    EXPECT_EQ(original.serial(), decoded->serial());
    EXPECT_EQ(original.partialID(), decoded->partialID());
    EXPECT_EQ(original.isStreamTagger(), decoded->isStreamTagger());
  }
}

TEST(TavloTaggerIdentifier, NilCustomerDataFindsItselfButIsNotTheEmptyString) {
  struct Case {
    TavloTaggerIdentifier a, b;
    bool equal;
    const char* why;
  };
  const Case cases[] = {
      {{"s", std::nullopt}, {"s", std::nullopt}, true, "both customer data nil"},
      {{"s", std::nullopt}, {"s", ""}, false, "nil against empty customer data"},
      {{"s", "a"}, {"s", "a"}, true, "same customer data"},
      {{"s", "a"}, {"s", "b"}, false, "other customer data"},
      {{std::nullopt, "a"}, {std::nullopt, "a"}, true, "both serials nil"},
      {{"s", "a"}, {"t", "a"}, false, "other serial"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.equal, c.a.isEqual(c.b)) << c.why;
    if (c.equal) {
      EXPECT_EQ(c.a.hash(), c.b.hash()) << c.why;
    }
  }
}

TEST(TavloTaggerIdentifier, HashIsThirtyOneTimesSerialPlusCustomerDataPlus961) {
  const TavloTaggerIdentifier id("serial", "crm");
  EXPECT_EQ(31ULL * TavloStringHash(TavloString("serial")) + TavloStringHash(TavloString("crm")) + 961ULL, id.hash());
  EXPECT_EQ(961ULL, TavloTaggerIdentifier(std::nullopt, std::nullopt).hash());
  const auto copied = id.copy();
  EXPECT_TRUE(copied->isEqual(id));
  EXPECT_NE(copied.get(), &id);
}

}  // namespace
