// What input may become part of a request target, and how input reaches a log line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/TavloLogSafe.h"
#include "util/TavloUrlSafety.h"

namespace {

using namespace std::string_literals;

TEST(TavloUrlSafety, ASerialMustStandAsOnePathSegment) {
  const std::vector<std::string> usable = {"123", "S1", "a-b_c.d~e", "x:y@z!$&'()*+,;=", "..."};
  // The URL safety fuzz target traps on anything let through that could leave its place; a
  // few of those stay here as examples, beside the refusals it cannot see.
  const std::vector<std::string> unusable = {"", "..", "S2/../../admin", "caf\xC3\xA9", "a|b", "[v6]"};
  for (const std::string& serial : usable) EXPECT_TRUE(TavloIsUsableSerial(serial)) << TavloLogSafe(serial);
  for (const std::string& serial : unusable) EXPECT_FALSE(TavloIsUsableSerial(serial)) << TavloLogSafe(serial);
}

TEST(TavloUrlSafety, AHostMustBeAnAbsoluteHttpAddressWithoutQueryOrFragment) {
  const std::vector<std::string> usable = {"https://c.example/m/web/", "http://127.0.0.1:8080/m/web/",
                                           "https://c.example", "https://u@c.example:443/a;b=c/%7E/"};
  const std::vector<std::string> unusable = {  // the same split as for serials
      "c.example/m/web/", "javascript:alert(1)", "https://c.example/m/web/?x=1", "https://c.example/\r\nX-Injected: 1",
      "https://",         "https:///m/web/",     "https://c.example/\xC3\xA9/",  "https://c.example/a|b",
  };
  for (const std::string& host : usable) EXPECT_TRUE(TavloIsUsableHostURL(host)) << TavloLogSafe(host);
  for (const std::string& host : unusable) EXPECT_FALSE(TavloIsUsableHostURL(host)) << TavloLogSafe(host);
}

TEST(TavloLogSafe, EscapesWhatCouldEndOrDisguiseALineAndKeepsTheRest) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Serial 123 on host https://c.example/", "Serial 123 on host https://c.example/"},
      {"S\n(ERROR) : forged", "S\\n(ERROR) : forged"},
      {"a\r\nb\tc", "a\\r\\nb\\tc"},
      {"\0\x01\x1B[2J\x1F\x7F"s, "\\u0000\\u0001\\u001B[2J\\u001F\\u007F"},
      {"next\xC2\x85line \xC2\x9F", "next\\u0085line \\u009F"},
      {"\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAE\xE2\x81\xA6\xE2\x81\xA9", "\\u2028\\u2029\\u202E\\u2066\\u2069"},
      {"caf\xC3\xA9 \xE2\x82\xAC \xE2\x80\x94 \xE2\x80\xAF \xC2\xA0", "caf\xC3\xA9 \xE2\x82\xAC \xE2\x80\x94 \xE2\x80\xAF \xC2\xA0"},
      {"literal \\n and \\u000A", "literal \\n and \\u000A"},
      {"broken \xFF\xC2 \xE2\x80", "broken \xFF\xC2 \xE2\x80"},
  };
  for (const auto& [input, expected] : cases) {
    const std::string escaped = TavloLogSafe(input);
    EXPECT_EQ(expected, escaped) << TavloLogSafe(input);
    EXPECT_EQ(escaped, TavloLogSafe(escaped)) << "escaping twice changed " << escaped;
  }
}

}  // namespace
