// Tagger identities are the authorisation cache's keys: tests/auth covers them there.
#include <gtest/gtest.h>

#include "util/TavloStringHash.h"

namespace {

// The journal of sent hits names its queue file by this hash: a hash that changed between
// versions would make every journal look foreign after an upgrade, and its hits be sent again.
TEST(TavloStringHash, IsFnv1aOverUtf8AndStableAcrossVersions) {
  EXPECT_EQ(14695981039346656037ULL, TavloStringHash(std::string_view("")));
  EXPECT_EQ(0xaf63dc4c8601ec8cULL, TavloStringHash(std::string_view("a")));
}

}  // namespace
