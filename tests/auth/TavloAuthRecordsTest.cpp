// The authorisation records. Their round trip through the queue file, under its keys, is
// in tests/request/TavloRequestTest.cpp, with the request that carries them.
#include <gtest/gtest.h>

#include "archive/TavloKeyedArchiver.h"
#include "auth/TavloAuth.h"
#include "support/TavloArchiveTestKit.h"

namespace {

// Restricted access lets one audience hit through, then streaming hits only; the first
// hit's mark must reach every copy the agent holds, and copies made later.
TEST(TavloAccess, WhatMaySendFollowsTheModeAndTheFirstHitOnEveryCopy) {
  struct Case {
    int32_t mode;
    bool firstHitSent, audience, streaming;
  };
  const Case cases[] = {
      {TavloAccessModeFull, false, true, true},       {TavloAccessModeFull, true, true, true},
      {TavloAccessModeRestricted, false, true, true}, {TavloAccessModeRestricted, true, false, true},
      {TavloAccessModeDenied, false, false, false},   {TavloAccessModeDenied, true, false, false},
      {7, true, true, true},
  };
  for (const Case& c : cases) {
    auto auth = TavloAuth::TavloAuthWithSession(nullptr, TavloAccess::TavloAccessWithSerial("s", c.mode, "h/"), false);
    const auto shared = auth->copy();
    if (c.firstHitSent) shared->currentAccess()->hitSuccessfullySent();
    for (const auto& access : {auth->currentAccess(), shared->currentAccess()->copy()}) {
      EXPECT_EQ(c.audience, access->canSendRequestFor(0)) << "mode " << c.mode << " sent " << c.firstHitSent;
      EXPECT_EQ(c.streaming, access->canSendRequestFor(1)) << "mode " << c.mode << " sent " << c.firstHitSent;
    }
  }
}

// An authorisation as the queue file holds the defaults: the cache asks the server again
// only for records that claim them, and a record made in memory never does.
class TavloDefaultAuth final : public TavloCodable {
 public:
  std::vector<std::string> classChain() const override { return {"TavloAuth", "NSObject"}; }
  void encodeWithCoder(TavloKeyedArchiver& coder) const override { coder.encodeBool(true, "TavloAuth_defaultValues"); }
};

TEST(TavloAuthArchive, OnlyARecordReadFromAFileClaimsDefaults) {
  const auto auth = TavloRoundTrip<TavloAuth>(TavloDefaultAuth());
  ASSERT_TRUE(auth);
  EXPECT_TRUE(auth->isDefaultValues());
  EXPECT_FALSE(auth->currentAccess()) << "a missing key reads as nil";
  EXPECT_FALSE(auth->copy()->isDefaultValues());
  EXPECT_FALSE(TavloAuth::TavloAuthWithSession(nullptr, nullptr, true)->isDefaultValues());
}

}  // namespace
