// Representative cases only: the text fuzz target sweeps cutting and escaping.
#include <gtest/gtest.h>

#include <tuple>

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

}  // namespace
