// Representative cases only: the text fuzz target sweeps cutting and escaping.
#include <gtest/gtest.h>

#include <tuple>

#include "util/TavloStringHash.h"
#include "util/TavloText.h"

namespace {

// Levels are cut in UTF-16 code units, as the collection server's other clients count them.
TEST(TavloText, UTF16LengthAndPrefixCountCodeUnits) {
  const std::string clef = "\xF0\x9D\x84\x9E";  // U+1D11E, two UTF-16 units
  const std::tuple<std::string, size_t, size_t, std::string> cases[] = {
      {"caf\xC3\xA9", 4, 3, "caf"},
      {"a" + clef + "b", 4, 3, "a" + clef},
      {"a" + clef + "b", 4, 2, "a\xEF\xBF\xBD"},  // half a surrogate pair becomes U+FFFD
      {"\xFF\xFEz", 3, 2, "\xFF\xFE"},             // malformed bytes count one unit each
  };
  for (const auto& [text, length, cut, prefix] : cases) {
    EXPECT_EQ(length, TavloUTF16Length(text)) << text;
    EXPECT_EQ(prefix, TavloUTF16Prefix(text, cut)) << text << " cut at " << cut;
  }
}

// The journal of sent hits names its queue file by this hash: a hash that changed between
// versions would make every journal look foreign after an upgrade, and its hits be sent again.
TEST(TavloStringHash, IsFnv1aAndStableAcrossVersions) {
  EXPECT_EQ(14695981039346656037ULL, TavloStringHash(std::string_view("")));
  EXPECT_EQ(0xaf63dc4c8601ec8cULL, TavloStringHash(std::string_view("a")));
}

}  // namespace
