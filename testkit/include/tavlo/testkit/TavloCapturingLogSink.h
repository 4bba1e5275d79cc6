// A log sink that keeps what it is given.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tavlo/platform/TavloLogSink.h"

/// Keeps every line in order, without any prefix, so tests can assert on exactly what
/// the library said. Callable from any thread; `linesProtector` guards the lines.
class TavloCapturingLogSink : public TavloLogSink {
 public:
  void writeLine(std::string_view line, TavloLogLevel level) override;

  std::vector<std::string> lines();
  /// Whether any line contains `text`.
  bool contains(std::string_view text);
  /// How many lines contain `text`.
  size_t count(std::string_view text);
  void clear();

 private:
  std::mutex linesProtector;
  std::vector<std::string> captured;  // guarded by linesProtector
};
