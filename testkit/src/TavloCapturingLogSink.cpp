#include "tavlo/testkit/TavloCapturingLogSink.h"

void TavloCapturingLogSink::writeLine(std::string_view line, TavloLogLevel) {
  std::lock_guard<std::mutex> lock(linesProtector);
  captured.emplace_back(line);
}

std::vector<std::string> TavloCapturingLogSink::lines() {
  std::lock_guard<std::mutex> lock(linesProtector);
  return captured;
}

bool TavloCapturingLogSink::contains(std::string_view text) { return count(text) > 0; }

size_t TavloCapturingLogSink::count(std::string_view text) {
  std::lock_guard<std::mutex> lock(linesProtector);
  size_t matching = 0;
  for (const auto& line : captured) {
    if (line.find(text) != std::string::npos) ++matching;
  }
  return matching;
}

void TavloCapturingLogSink::clear() {
  std::lock_guard<std::mutex> lock(linesProtector);
  captured.clear();
}
