// Diagnostic lines on standard error.
#pragma once

#include <string>
#include <string_view>
#include <unistd.h>

#include "tavlo/platform/TavloLogSink.h"

/// Writes each line to standard error (or another descriptor) the way a system log
/// would show it:
///
///   2024-05-01 18:30:12.345 Tavlo[4242] (ERROR) : the message
///
/// in the device's local time. Each line goes out in one write() call, so lines logged
/// concurrently from several threads or processes sharing the descriptor never mix
/// (for pipes up to PIPE_BUF bytes, for files and terminals in practice). Callable
/// from any thread; holds no state besides the descriptor, which it does not own.
class TavloStderrLogSink : public TavloLogSink {
 public:
  explicit TavloStderrLogSink(int descriptor = STDERR_FILENO);
  void writeLine(std::string_view line, TavloLogLevel level) override;

  /// The prefix for a moment given as seconds and milliseconds since 1970, in local
  /// time, with the calling process's identifier. Separate so its format can be checked.
  static std::string prefixAt(long long seconds, int milliseconds);

 private:
  const int descriptor;
};
