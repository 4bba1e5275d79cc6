#include <gtest/gtest.h>

#include "util/TavloText.h"

namespace {

TEST(TavloText, UTF16LengthAndPrefixCountCodeUnits) {
  const std::string clef = "\xF0\x9D\x84\x9E";  // U+1D11E, two UTF-16 units
  struct Case {
    std::string text;
    size_t length;
    size_t cut;
    std::string prefix;
  };
  const Case cases[] = {
      {"hello", 5, 3, "hel"},
      {"caf\xC3\xA9", 4, 4, "caf\xC3\xA9"},
      {"caf\xC3\xA9", 4, 3, "caf"},
      {"a" + clef + "b", 4, 3, "a" + clef},
      {"a" + clef + "b", 4, 2, "a\xEF\xBF\xBD"},  // half a surrogate pair becomes U+FFFD
      {"\xFF\xFEz", 3, 2, "\xFF\xFE"},             // malformed bytes count one unit each
      {"", 0, 5, ""},
      {"short", 5, 256, "short"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.length, TavloUTF16Length(c.text)) << c.text;
    EXPECT_EQ(c.prefix, TavloUTF16Prefix(c.text, c.cut)) << c.text << " cut at " << c.cut;
  }
}

TEST(TavloText, ValidUTF8RejectsOverlongsSurrogatesAndTruncation) {
  struct Case {
    std::string text;
    bool valid;
  };
  const Case cases[] = {
      {"plain", true},          {"\xC3\xA9", true},          {"\xF0\x9D\x84\x9E", true}, {"\xC3", false},
      {"\xC0\xAF", false},      {"\xED\xA0\x80", false},     {"\xF4\x90\x80\x80", false}, {"\xFF", false},
      {"\xE2\x82\xAC", true},   {std::string("\0", 1), true},
  };
  for (const Case& c : cases) EXPECT_EQ(c.valid, TavloIsValidUTF8(c.text)) << testing::PrintToString(c.text);
}

TEST(TavloText, LeadingIntegerReadsLikeANumberParser) {
  struct Case {
    const char* text;
    int64_t value;
  };
  const Case cases[] = {{"7", 7},   {"  42abc", 42}, {"-3", -3}, {"+5", 5}, {"abc", 0}, {"", 0},
                        {"99999999999999999999", INT64_MAX}, {"-99999999999999999999", INT64_MIN}};
  for (const Case& c : cases) EXPECT_EQ(c.value, TavloLeadingInteger(c.text)) << c.text;
}

}  // namespace
