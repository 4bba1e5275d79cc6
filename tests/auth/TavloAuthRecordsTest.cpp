#include <gtest/gtest.h>

#include "support/TavloArchiveTestKit.h"
#include "auth/TavloAuth.h"
#include "archive/TavloKeyedArchiver.h"

namespace {

TEST(TavloAccess, CanSendRequestForFollowsModeAndFirstHit) {
  struct Case {
    int32_t mode;
    bool firstHitSent;
    bool audience;
    bool streaming;
  };
  const Case cases[] = {
      {TavloAccessModeFull, false, true, true},       {TavloAccessModeFull, true, true, true},
      {TavloAccessModeRestricted, false, true, true}, {TavloAccessModeRestricted, true, false, true},
      {TavloAccessModeDenied, false, false, false},   {TavloAccessModeDenied, true, false, false},
      {7, false, true, true},                         {-1, true, true, true},
  };
  for (const Case& c : cases) {
    auto access = TavloAccess::TavloAccessWithSerial("s", c.mode, "https://h/m/web/");
    if (c.firstHitSent) access->hitSuccessfullySent();
    EXPECT_EQ(c.audience, access->canSendRequestFor(0)) << "mode " << c.mode << " sent " << c.firstHitSent;
    EXPECT_EQ(c.streaming, access->canSendRequestFor(1)) << "mode " << c.mode << " sent " << c.firstHitSent;
  }
}

TEST(TavloAccess, HostIsBaseURLFollowedDirectlyBySerial) {
  struct Case {
    TavloString serial, baseURL, host;
  };
  const Case cases[] = {
      {"123", "https://collect.example/m/web/", "https://collect.example/m/web/123"},
      {"123", "https://collect.example", "https://collect.example123"},
      {std::nullopt, "https://b/", "https://b/"},
      {"123", std::nullopt, std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.host, TavloAccess(c.serial, 0, c.baseURL).host()) << c.baseURL.value_or("(nil)");
  }
}

TEST(TavloAccess, HitSuccessfullySentMarksTheSameRecordAndCopiesKeepIt) {
  auto access = TavloAccess::TavloAccessWithSerial("s", TavloAccessModeRestricted, "b/");
  EXPECT_EQ(access.get(), &access->hitSuccessfullySent());
  EXPECT_TRUE(access->firstHitSuccessfullySent());
  const auto copied = access->copy();
  EXPECT_NE(access.get(), copied.get());
  EXPECT_TRUE(copied->firstHitSuccessfullySent());
  EXPECT_FALSE(TavloAccess("s", 0, "b/").copy()->firstHitSuccessfullySent());
}

TEST(TavloAuth, RecordsMadeInMemoryNeverClaimDefaultValues) {
  auto session = TavloSession::TavloSessionWithSerial("s", "42");
  auto access = TavloAccess::TavloAccessWithSerial("s", 0, "b/");
  EXPECT_FALSE(TavloAuth::TavloAuthWithSession(session, access, true)->isDefaultValues());
  EXPECT_FALSE(TavloAuth(session, access, true).copy()->isDefaultValues());
}

TEST(TavloAuth, CopiesShareSessionAndAccessSoMarkingOneMarksBoth) {
  auto auth = TavloAuth::TavloAuthWithSession(TavloSession::TavloSessionWithSerial("s", "1"),
                                              TavloAccess::TavloAccessWithSerial("s", 1, "b/"), false);
  const auto copied = auth->copy();
  EXPECT_EQ(auth->currentSession(), copied->currentSession());
  EXPECT_EQ(auth->currentAccess(), copied->currentAccess());
  copied->currentAccess()->hitSuccessfullySent();
  EXPECT_FALSE(auth->currentAccess()->canSendRequestFor(0));
}

TEST(TavloAuthArchive, EveryRecordRoundTripsThroughAFileUnderItsOwnKeys) {
  auto access = TavloAccess::TavloAccessWithSerial("987", TavloAccessModeRestricted, "https://c.example/m/web/");
  access->hitSuccessfullySent();
  const TavloAuth auth(TavloSession::TavloSessionWithSerial("987", "4242"), access, false);

  const auto decoded = TavloRoundTrip<TavloAuth>(auth);
  ASSERT_TRUE(decoded);
  ASSERT_TRUE(decoded->currentSession());
  ASSERT_TRUE(decoded->currentAccess());
  EXPECT_EQ("987", decoded->currentSession()->serial());
  EXPECT_EQ("4242", decoded->currentSession()->cmsVI());
  EXPECT_EQ("987", decoded->currentAccess()->serial());
  EXPECT_EQ(TavloAccessModeRestricted, decoded->currentAccess()->accessMode());
  EXPECT_EQ("https://c.example/m/web/", decoded->currentAccess()->baseURL());
  EXPECT_EQ("https://c.example/m/web/987", decoded->currentAccess()->host());
  EXPECT_TRUE(decoded->currentAccess()->firstHitSuccessfullySent());
  EXPECT_FALSE(decoded->isDefaultValues());

  const std::string data = TavloKeyedArchiver::archivedDataWithRootObject(auth);
  EXPECT_EQ("TavloSesion_cmsVI,TavloSesion_serial", TavloArchivedKeysOfClass(data, "TavloSession"));
  EXPECT_EQ(
      "TavloAccess_accessMode,TavloAccess_baseURL,TavloAccess_firstHitSuccessfullySent,TavloAccess_host,"
      "TavloAccess_serial",
      TavloArchivedKeysOfClass(data, "TavloAccess"));
  EXPECT_EQ("TavloAuth_currentAccess,TavloAuth_currentSession,TavloAuth_defaultValues",
            TavloArchivedKeysOfClass(data, "TavloAuth"));
}

// An archived access whose stored host disagrees with base URL and serial: reading keeps
// the stored host, copying recomputes it.
class TavloForgedAccess final : public TavloCodable {
 public:
  std::vector<std::string> classChain() const override { return {"TavloAccess", "NSObject"}; }
  void encodeWithCoder(TavloKeyedArchiver& coder) const override {
    coder.encodeString("5", "TavloAccess_serial");
    coder.encodeInteger(0, "TavloAccess_accessMode");
    coder.encodeString("https://new/", "TavloAccess_baseURL");
    coder.encodeBool(false, "TavloAccess_firstHitSuccessfullySent");
    coder.encodeString("https://old/5", "TavloAccess_host");
  }
};

class TavloDefaultAuth final : public TavloCodable {
 public:
  std::vector<std::string> classChain() const override { return {"TavloAuth", "NSObject"}; }
  void encodeWithCoder(TavloKeyedArchiver& coder) const override { coder.encodeBool(true, "TavloAuth_defaultValues"); }
};

TEST(TavloAuthArchive, DecodedRecordsKeepWhatWasStored) {
  const auto access = TavloRoundTrip<TavloAccess>(TavloForgedAccess());
  ASSERT_TRUE(access);
  EXPECT_EQ("https://old/5", access->host());
  EXPECT_EQ("https://new/5", access->copy()->host());

  const auto auth = TavloRoundTrip<TavloAuth>(TavloDefaultAuth());
  ASSERT_TRUE(auth);
  EXPECT_TRUE(auth->isDefaultValues()) << "only an archived record carries the flag";
  EXPECT_FALSE(auth->currentAccess()) << "a missing key reads as nil";
  EXPECT_FALSE(auth->copy()->isDefaultValues()) << "a copy is made in memory";
}

}  // namespace
