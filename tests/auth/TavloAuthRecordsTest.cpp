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
  const std::tuple<int32_t, bool, bool, bool> cases[] = {  // mode, first hit sent, audience, streaming
      {TavloAccessModeFull, false, true, true},       {TavloAccessModeFull, true, true, true},
      {TavloAccessModeRestricted, false, true, true}, {TavloAccessModeRestricted, true, false, true},
      {TavloAccessModeDenied, false, false, false},   {TavloAccessModeDenied, true, false, false},
      {7, true, true, true},
  };
  for (const auto& [mode, firstHitSent, audience, streaming] : cases) {
    auto auth = TavloAuth::TavloAuthWithSession(nullptr, TavloAccess::TavloAccessWithSerial("s", mode, "h/"), false);
    if (firstHitSent) auth->copy()->currentAccess()->hitSuccessfullySent();
    for (const auto& access : {auth->currentAccess(), auth->copy()->currentAccess()->copy()}) {
      EXPECT_EQ(audience, access->canSendRequestFor(0)) << "mode " << mode << " sent " << firstHitSent;
      EXPECT_EQ(streaming, access->canSendRequestFor(1)) << "mode " << mode << " sent " << firstHitSent;
    }
  }
}

// The cache asks the server again only for records that claim to hold the defaults,
// which only a record read from a file can: one made in memory, or copied, never does.
TEST(TavloAuthArchive, OnlyARecordReadFromAFileClaimsDefaults) {
  struct DefaultAuth final : TavloCodable {  // as the queue file holds the defaults
    std::vector<std::string> classChain() const override { return {"TavloAuth", "NSObject"}; }
    void encodeWithCoder(TavloKeyedArchiver& coder) const override { coder.encodeBool(true, "TavloAuth_defaultValues"); }
  };
  const auto auth = TavloRoundTrip<TavloAuth>(DefaultAuth());
  ASSERT_TRUE(auth);
  EXPECT_TRUE(auth->isDefaultValues());
  EXPECT_FALSE(auth->currentAccess()) << "a missing key reads as nil";
  EXPECT_FALSE(auth->copy()->isDefaultValues());
  EXPECT_FALSE(TavloAuth::TavloAuthWithSession(nullptr, nullptr, true)->isDefaultValues());
}

}  // namespace
