#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <limits>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "linux/TavloStderrLogSink.h"
#include "linux/TavloSystemClock.h"
#include "linux/TavloSystemRandom.h"
#include "support/TavloScopedEnvironmentVariable.h"

namespace {

// What a sink wrote to the write end of a pipe, once the sink is done with it.
std::string drained(int ends[2]) {
  ::close(ends[1]);
  std::string all;
  char chunk[4096];
  for (ssize_t count; (count = ::read(ends[0], chunk, sizeof chunk)) > 0;) all.append(chunk, static_cast<size_t>(count));
  ::close(ends[0]);
  return all;
}

const std::string linePrefix = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} Tavlo\[)" + std::to_string(getpid()) + R"(\] )";

}  // namespace

TEST(TavloSystemClockTest, NowIsTheSystemTime) {
  const auto secondsNow = [] {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  };
  TavloSystemClock clock;
  const double before = secondsNow();
  const double now = clock.now();
  EXPECT_LE(before, now);
  EXPECT_GE(secondsNow(), now);
}

TEST(TavloSystemClockTest, UtcOffsetFollowsTheTimeZoneAndItsDaylightSaving) {
  const double january2024 = 1705320000;  // 2024-01-15 12:00 UTC
  const double july2024 = 1721044800;     // 2024-07-15 12:00 UTC
  constexpr double inf = std::numeric_limits<double>::infinity();
  struct Case {
    const char* zone;
    double date;
    long expected;
  };
  const Case cases[] = {
      {"UTC0", january2024, 0},
      {"IST-5:30", january2024, 19800},
      {"EST5EDT,M3.2.0,M11.1.0", january2024, -18000},
      {"EST5EDT,M3.2.0,M11.1.0", july2024, -14400},
      {"CET-1CEST,M3.5.0,M10.5.0/3", july2024, 7200},
      // A date no calendar holds is read as today.
      {"IST-5:30", std::nan(""), 19800}, {"IST-5:30", inf, 19800}, {"IST-5:30", -inf, 19800},
      {"IST-5:30", 1e300, 19800},        {"IST-5:30", -1e300, 19800}, {"IST-5:30", 1e17, 19800},
  };
  TavloSystemClock clock;
  for (const Case& c : cases) {
    TavloScopedEnvironmentVariable zone("TZ", std::string(c.zone));
    EXPECT_EQ(clock.utcOffsetAt(c.date), c.expected) << c.zone << " at " << c.date;
  }
}

TEST(TavloSystemRandomTest, UUIDsAreFreshVersion4TextAndValuesSpreadOverAllBits) {
  TavloSystemRandom first;
  TavloSystemRandom second;
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> uuids;
  std::set<uint32_t> values;
  uint32_t everSet = 0;
  uint32_t everClear = 0;
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = first.newUUIDString();
    ASSERT_TRUE(std::regex_match(uuid, form)) << uuid;
    uuids.insert(uuid);
    const uint32_t value = first.nextUInt32();
    values.insert(value);
    everSet |= value;
    everClear |= ~value;
  }
  EXPECT_EQ(uuids.size(), 1000u);
  EXPECT_GT(values.size(), 990u);
  EXPECT_EQ(everSet, 0xFFFFFFFFu) << "every bit must sometimes be set";
  EXPECT_EQ(everClear, 0xFFFFFFFFu) << "every bit must sometimes be clear";
  std::vector<uint32_t> a, b;
  for (int i = 0; i < 4; ++i) {
    a.push_back(first.nextUInt32());
    b.push_back(second.nextUInt32());
  }
  EXPECT_NE(a, b) << "two generators must be seeded differently";
}

TEST(TavloStderrLogSinkTest, WritesOnePrefixedLinePerCallLikeASystemLog) {
  TavloScopedEnvironmentVariable zone("TZ", std::string("UTC0"));
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(TavloStderrLogSink::prefixAt(0, 5), "1970-01-01 00:00:00.005 Tavlo[" + pid + "] ");
  EXPECT_EQ(TavloStderrLogSink::prefixAt(1700000000, 999), "2023-11-14 22:13:20.999 Tavlo[" + pid + "] ");

  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  {
    TavloStderrLogSink sink(ends[1]);
    sink.writeLine("(ERROR) : something broke", TavloLogLevel::Error);
    sink.writeLine("", TavloLogLevel::Info);
  }
  const std::string written = drained(ends);
  EXPECT_TRUE(std::regex_match(written, std::regex(linePrefix + R"(\(ERROR\) : something broke\n)" + linePrefix + "\n")))
      << written;
}

TEST(TavloStderrLogSinkTest, ConcurrentLinesNeverInterleave) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  TavloStderrLogSink sink(ends[1]);
  constexpr int writers = 4;
  constexpr int linesEach = 50;
  std::vector<std::thread> threads;
  for (int w = 0; w < writers; ++w) {
    threads.emplace_back([&sink, w] {
      for (int i = 0; i < linesEach; ++i) sink.writeLine("writer " + std::to_string(w) + " line " + std::to_string(i), TavloLogLevel::Info);
    });
  }
  for (auto& thread : threads) thread.join();
  std::istringstream lines(drained(ends));
  const std::regex whole(linePrefix + R"(writer \d line \d+)");
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) EXPECT_TRUE(std::regex_match(line, whole)) << line;
  EXPECT_EQ(count, writers * linesEach);
}

TEST(TavloStderrLogSinkTest, LineToAPipeWithoutReaderIsDroppedWithoutKillingTheProcess) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  TavloStderrLogSink sink(ends[1]);
  errno = ENOENT;
  sink.writeLine("nobody reads this", TavloLogLevel::Info);  // SIGPIPE would end the test run here
  EXPECT_EQ(errno, ENOENT) << "the caller's errno must survive a log line";
  sigset_t pending;
  sigemptyset(&pending);
  ASSERT_EQ(sigpending(&pending), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0) << "the sink's own SIGPIPE must not stay pending";
  ::close(ends[1]);

  TavloStderrLogSink closed(-1);
  errno = EAGAIN;
  closed.writeLine("nowhere to go", TavloLogLevel::Info);
  EXPECT_EQ(errno, EAGAIN);
}
