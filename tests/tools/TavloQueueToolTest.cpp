// The pieces of tavlo-queue: escaping for terminals and JSON, dates, the checks it
// adds to the library's reader, and the queue location it shares with the agent.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "TavloJsonWriter.h"
#include "agent/TavloQueueLocation.h"
#include "TavloQueueReport.h"
#include "TavloToolText.h"
#include "agent/TavloAgent.h"
#include "platform/TavloNotificationCenter.h"
#include "request/TavloClearCache.h"
#include "archive/TavloKeyedArchiver.h"
#include "request/TavloRequest.h"
#include "support/TavloTestPlatform.h"
#include "util/TavloCalendar.h"

namespace {

struct EscapeCase {
  const char* name;
  std::string input;
  std::string json;       // TavloJsonWriter::quoted
  std::string printable;  // TavloPrintable
};

TEST(TavloQueueToolText, EscapesEveryStringForJsonAndForTerminals) {
  using namespace std::string_literals;
  const std::vector<EscapeCase> cases = {
      {"empty", "", R"("")", R"("")"},
      {"plain", "home", R"("home")", R"("home")"},
      {"quote and backslash", R"(a"b\c)", R"("a\"b\\c")", R"("a\"b\\c")"},
      {"named controls", "\n\r\t\b\f", R"("\n\r\t\b\f")", R"("\n\r\t\u0008\u000C")"},
      {"NUL, unit separator, DEL", "\0\x1f\x7f"s, R"("\u0000\u001F\u007F")", R"("\u0000\u001F\u007F")"},
      {"terminal escape", "\x1b[2J", R"("\u001B[2J")", R"("\u001B[2J")"},
      {"two-byte character kept", "caf\xC3\xA9", "\"caf\xC3\xA9\"", "\"caf\xC3\xA9\""},
      {"four-byte character kept", "\xF0\x9F\x93\xBA", "\"\xF0\x9F\x93\xBA\"", "\"\xF0\x9F\x93\xBA\""},
      {"C1 control", "\xC2\x85", R"("\u0085")", R"("\u0085")"},
      {"line separator", "\xE2\x80\xA8", R"("\u2028")", "\"\xE2\x80\xA8\""},
      {"right-to-left override", "\xE2\x80\xAE", "\"\xE2\x80\xAE\"", R"("\u202E")"},
      {"byte that never starts UTF-8", "\xFF", R"("\uFFFD")", R"("\xFF")"},
      {"lone continuation byte", "a\x80z", R"("a\uFFFDz")", R"("a\x80z")"},
      {"overlong slash", "\xC0\xAF", R"("\uFFFD\uFFFD")", R"("\xC0\xAF")"},
      {"overlong three bytes", "\xE0\x80\x80", R"("\uFFFD\uFFFD\uFFFD")", R"("\xE0\x80\x80")"},
      {"surrogate", "\xED\xA0\x80", R"("\uFFFD\uFFFD\uFFFD")", R"("\xED\xA0\x80")"},
      {"past U+10FFFF", "\xF4\x90\x80\x80", R"("\uFFFD\uFFFD\uFFFD\uFFFD")", R"("\xF4\x90\x80\x80")"},
      {"cut at the end", "a\xF0\x9F\x93", R"("a\uFFFD")", R"("a\xF0\x9F\x93")"},
      {"cut before ASCII", "\xE2\x82x", R"("\uFFFDx")", R"("\xE2\x82x")"},
  };
  for (const EscapeCase& c : cases) {
    EXPECT_EQ(c.json, TavloJsonWriter::quoted(c.input)) << c.name;
    EXPECT_EQ(c.printable, TavloPrintable(c.input)) << c.name;
  }
}

TEST(TavloQueueToolText, ShowsDatesAsUTCWithinFourDigitYears) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  const std::vector<std::pair<double, std::optional<std::string>>> cases = {
      {0, "1970-01-01T00:00:00Z"},
      {1700000000.5, "2023-11-14T22:13:20.500Z"},
      {1700000000.1, "2023-11-14T22:13:20.100Z"},
      {kTavloSecondsFrom1970To2001, "2001-01-01T00:00:00Z"},
      {951782400, "2000-02-29T00:00:00Z"},
      {-1, "1969-12-31T23:59:59Z"},
      {-0.5, "1969-12-31T23:59:59.500Z"},
      {-62135596800.0, "0001-01-01T00:00:00Z"},
      {253402300799.0, "9999-12-31T23:59:59Z"},
      {-62135596801.0, std::nullopt},
      {253402300799.9996, std::nullopt},  // rounds up into year 10000
      {1e300, std::nullopt},
      {nan, std::nullopt},
      {infinity, std::nullopt},
  };
  for (const auto& [seconds, expected] : cases) EXPECT_EQ(expected, TavloISO8601(seconds)) << seconds;

  EXPECT_EQ("1700000000.5", TavloShortestNumber(1700000000.5));
  EXPECT_EQ("978307200", TavloShortestNumber(978307200));
  EXPECT_EQ("-0.25", TavloShortestNumber(-0.25));
  EXPECT_EQ("1e+300", TavloShortestNumber(1e300));
}

TEST(TavloQueueToolJson, PutsCommasAndIndentationAndWritesNullForWhatJsonCannotHold) {
  TavloJsonWriter json;
  json.beginObject().key("a").beginArray().endArray().key("b").beginObject().endObject();
  json.key("c").beginArray().integer(-1).stringOrNull(std::nullopt).stringOrNull(std::string()).number(NAN);
  json.number(0.5).boolean(true).null().endArray().endObject();
  EXPECT_EQ(
      "{\n  \"a\": [],\n  \"b\": {},\n  \"c\": [\n    -1,\n    null,\n    \"\",\n    null,\n    0.5,\n"
      "    true,\n    null\n  ]\n}",
      json.text());
}

std::shared_ptr<TavloRequest> soundRequest() {
  auto request = TavloRequest::TavloRequestWithParameters(
      std::make_shared<const TavloParameters>(TavloParameters{{"c", "home"}}), TavloRequestTypeStreaming,
      TavloSendingModeLive, "serial", std::make_shared<TavloTaggerID>("serial", 0, true), 1700000000);
  request->setAuth(TavloAuth::TavloAuthWithSession(
      TavloSession::TavloSessionWithSerial("serial", "7"),
      TavloAccess::TavloAccessWithSerial("serial", TavloAccessModeFull, "http://c.test/"), false));
  return request;
}

template <class Change>
std::shared_ptr<TavloRequest> changed(Change change) {
  auto request = soundRequest();
  change(*request);
  return request;
}

struct ReportCase {
  const char* name;
  std::vector<std::shared_ptr<TavloCodable>> elements;
  std::vector<std::string> problems;
};

TEST(TavloQueueToolReport, FindsWhatTheAgentWouldSilentlyDrop) {
  const std::vector<ReportCase> cases = {
      {"sound", {soundRequest(), TavloClearCache::make()}, {}},
      {"empty queue", {}, {}},
      {"unknown type", {soundRequest(), TavloRequest::TavloRequestWithParameters(
                            std::make_shared<const TavloParameters>(), 7, TavloSendingModeLive, "s",
                            std::make_shared<TavloTaggerID>("s", 0, true), 1)},
       {"element #1 has an unknown request type 7"}},
      {"unknown mode and status",
       {changed([](TavloRequest& r) { r.setStatus(2); }),
        TavloRequest::TavloRequestWithParameters(std::make_shared<const TavloParameters>(), TavloRequestTypeAudience,
                                                 9, "s", std::make_shared<TavloTaggerID>("s", 0, false), 1)},
       {"element #0 has an unknown status 2", "element #1 has an unknown sending mode 9"}},
      {"missing fields",
       {changed([](TavloRequest& r) { r.setCreationDate(std::nullopt); }),
        TavloRequest::TavloRequestWithParameters(nullptr, TavloRequestTypeAudience, TavloSendingModeLive, "s",
                                                 nullptr, 1)},
       {"element #0 has no creation date", "element #1 has no tagger identity", "element #1 has no parameters"}},
      {"not a request",
       {TavloSession::TavloSessionWithSerial("s", "1"), soundRequest()},
       {"element #0 is a TavloSession, not a request"}},
  };
  for (const ReportCase& c : cases) {
    const TavloQueueReport report =
        TavloQueueReport::fromData(TavloKeyedArchiver::archivedDataWithRootArray(c.elements));
    EXPECT_TRUE(report.isReadable()) << c.name;
    EXPECT_EQ(c.problems, report.problems()) << c.name;
    EXPECT_EQ(c.problems.empty(), report.isValid()) << c.name;
    EXPECT_EQ(c.elements.size(), report.elements().size()) << c.name;
  }
}

TEST(TavloQueueToolReport, RefusesWhatIsNotAQueueAndSaysWhy) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "empty archive"},
      {"bplist00", "damaged binary property list: too short"},
      {"<plist/>", "not a binary property list"},
      {TavloKeyedArchiver::archivedDataWithRootObject(*soundRequest()), "root object is not an array"},
  };
  for (const auto& [data, reason] : cases) {
    const TavloQueueReport report = TavloQueueReport::fromData(data);
    EXPECT_FALSE(report.isReadable()) << reason;
    ASSERT_EQ(1u, report.problems().size()) << reason;
    EXPECT_NE(std::string::npos, report.problems()[0].find(reason)) << report.problems()[0];
    EXPECT_EQ("q: nothing could be read\n", report.text("q"));
  }
}

TEST(TavloQueueToolReport, ListsDatesOutsideTheCalendarByTheirNumber) {
  auto request = changed([](TavloRequest& r) { r.setLastFail(-1e300); });
  const TavloQueueReport report = TavloQueueReport::fromData(TavloKeyedArchiver::archivedDataWithRootArray({request}));
  EXPECT_NE(std::string::npos, report.text("q").find("last fail       outside years 1 to 9999 (-1e+300)\n"))
      << report.text("q");
  EXPECT_NE(std::string::npos,
            report.json("q").find("\"lastFail\": {\n        \"iso8601\": null,\n        \"epoch\": -1e+300\n"))
      << report.json("q");
}

TEST(TavloQueueToolLocation, NamesTheFileTheAgentUses) {
  const std::pair<TavloString, const char*> cases[] = {
      {"MyApp", "MyApp"},   {"caf\xC3\xA9", "caf\xC3\xA9"}, {"a/b", "a_b"},
      {"tab\there", "tab_here"}, {"", "unnamed-application"}, {".", "unnamed-application"},
      {"..", "unnamed-application"}, {std::nullopt, "unnamed-application"},
  };
  for (const auto& [name, folder] : cases) {
    TavloTestPlatform test = TavloMakeTestPlatform();
    test.deviceInfo->bundleNameValue = name;
    auto agent = TavloAgent::make(test.platform, nullptr, std::make_shared<TavloNotificationCenter>());
    EXPECT_EQ(test.files->dataDirectory() + "/" + folder + "/TavloCache/requests.ser", agent->requestsFilePath())
        << name.value_or("(nil)");
    agent->shutdown();
  }
}

}  // namespace
