// What tavlo-queue's runs (check_queue_tool.py) and its fuzz target leave open: the exact
// escapes, dates at the calendar's edges, and what the report calls wrong in a sound file.
#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "TavloJsonWriter.h"
#include "TavloQueueReport.h"
#include "TavloToolText.h"
#include "archive/TavloKeyedArchiver.h"
#include "request/TavloClearCache.h"
#include "request/TavloRequest.h"

namespace {

// The fuzz target checks that nothing raw gets through; this, what is shown instead. JSON
// replaces damaged UTF-8, the terminal shows its bytes, so nothing the file held is hidden.
TEST(TavloQueueToolText, EscapesEveryStringForJsonAndForTerminals) {
  using namespace std::string_literals;
  const struct {
    std::string input, json, printable;
  } cases[] = {
      {R"(a"b\c)", R"("a\"b\\c")", R"("a\"b\\c")"},
      {"\n\r\t\b\f", R"("\n\r\t\b\f")", R"("\n\r\t\u0008\u000C")"},
      {"\0\x1f\x7f\x1b[2J"s, R"("\u0000\u001F\u007F\u001B[2J")", R"("\u0000\u001F\u007F\u001B[2J")"},
      {"caf\xC3\xA9 \xF0\x9F\x93\xBA", "\"caf\xC3\xA9 \xF0\x9F\x93\xBA\"", "\"caf\xC3\xA9 \xF0\x9F\x93\xBA\""},
      {"\xE2\x80\xAE", R"("\u202E")", R"("\u202E")"},      // reverses the rest of a terminal's line
      {"a\x80z\xFF", R"("a\uFFFDz\uFFFD")", R"("a\x80z\xFF")"},  // which bytes are damaged is the text fuzz target's
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.json, TavloJsonWriter::quoted(c.input)) << c.printable;
    EXPECT_EQ(c.printable, TavloPrintable(c.input));
  }
}

TEST(TavloQueueToolText, ShowsDatesAsUTCWithinFourDigitYears) {
  const std::pair<double, std::optional<std::string>> cases[] = {
      {-0.5, "1969-12-31T23:59:59.500Z"},      {-62135596800.0, "0001-01-01T00:00:00Z"},
      {253402300799.0, "9999-12-31T23:59:59Z"}, {-62135596801.0, std::nullopt},
      {253402300799.9996, std::nullopt} /* rounds up into year 10000 */, {std::nan(""), std::nullopt},
  };
  for (const auto& [seconds, expected] : cases) EXPECT_EQ(expected, TavloISO8601(seconds)) << seconds;
}

// Every element the agent would drop without a word, named by its index; sound ones pass.
TEST(TavloQueueToolReport, FindsWhatTheAgentWouldSilentlyDrop) {
  const auto request = [](int32_t type, int64_t mode, bool complete) {
    return TavloRequest::TavloRequestWithParameters(
        complete ? std::make_shared<const TavloParameters>() : nullptr, type, mode, "s",
        complete ? std::make_shared<TavloTaggerID>("s", 0, true) : nullptr, 1);
  };
  auto failed = request(TavloRequestTypeStreaming, TavloSendingModeLive, true);
  failed->setStatus(2);
  auto undated = request(TavloRequestTypeAudience, TavloSendingModeTimestamped, true);
  undated->setCreationDate(std::nullopt);
  const std::vector<std::shared_ptr<TavloCodable>> elements = {
      request(TavloRequestTypeStreaming, TavloSendingModeDisconnected, true), TavloClearCache::make(),
      request(7, TavloSendingModeLive, true), request(TavloRequestTypeAudience, 9, true), failed, undated,
      request(TavloRequestTypeAudience, TavloSendingModeLive, false), TavloSession::TavloSessionWithSerial("s", "1")};
  const TavloQueueReport report = TavloQueueReport::fromData(TavloKeyedArchiver::archivedDataWithRootArray(elements));
  EXPECT_TRUE(report.isReadable() && report.elements().size() == elements.size()) << "every element listed";
  EXPECT_EQ((std::vector<std::string>{"element #2 has an unknown request type 7",
                                      "element #3 has an unknown sending mode 9", "element #4 has an unknown status 2",
                                      "element #5 has no creation date", "element #6 has no tagger identity",
                                      "element #6 has no parameters", "element #7 is a TavloSession, not a request"}),
            report.problems());
}

}  // namespace
