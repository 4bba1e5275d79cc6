// Links only the shared library and the public headers, as an application does.
#include <cstring>

#include <gtest/gtest.h>

#include "tavlo/TavloTagger.h"
#include "tavlo/TavloVersion.h"

TEST(TavloPublicApi, VersionSymbolsHoldTheirExactBytesAndTheLibraryMatchesItsHeaders) {
  const char expected[] = "@(#)PROGRAM:Tavlo_tvOS  PROJECT:TavloUniversal-1\n";
  EXPECT_EQ(0, std::memcmp(Tavlo_tvOSVersionString, expected, sizeof expected))
      << "the marker must keep both blanks, the line feed and the terminating NUL";
  EXPECT_EQ(1.0, Tavlo_tvOSVersionNumber);
  EXPECT_EQ(TAVLO_VERSION_STRING, TavloTagger::TavloVersion()) << "the library must be the one these headers describe";
  static_assert(!std::is_constructible_v<TavloTagger>, "only the concrete taggers may be made");
  static_assert(!std::is_copy_constructible_v<TavloTagger>, "taggers are identities, not values");
}
