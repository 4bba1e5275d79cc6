#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tavlo/platform/TavloHttpClient.h"

namespace {

TEST(TavloHttpResponse, FindsTheFirstHeaderOfANameWithoutRegardToASCIICase) {
  TavloHttpResponse response;
  response.headers = {{"Date", "first"},      {"date", "second"}, {"Set-Cookie", "a"}, {"X-\xC3\x89t\xC3\xA9", "accented"},
                      {"X-Empty", ""},        {"", "nameless"}};
  struct Case {
    std::string name;
    std::optional<std::string> value;
  };
  const Case cases[] = {
      {"Date", "first"},
      {"DATE", "first"},
      {"dAtE", "first"},
      {"set-cookie", "a"},
      {"X-EMPTY", ""},
      {"X-\xC3\x89t\xC3\xA9", "accented"},
      {"x-\xC3\x89T\xC3\xA9", "accented"},
      {"X-\xC3\xA9t\xC3\xA9", std::nullopt},  // only ASCII letters fold: "\xC3\x89" is not "\xC3\xA9"
      {"", "nameless"},
      {"Dat", std::nullopt},
      {"Dates", std::nullopt},
      {"Date ", std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.value, response.header(c.name)) << "\"" << c.name << "\"";
  }
}

TEST(TavloHttpResponse, AnswersNothingWithoutHeaders) {
  const TavloHttpResponse response;
  EXPECT_EQ(std::nullopt, response.header("Date"));
  EXPECT_EQ(std::nullopt, response.header(""));
}

}  // namespace
