// Diagnostic lines to the system log.
#pragma once

#include <string_view>

#include "tavlo/platform/TavloLogSink.h"

/// Hands each line to syslog(3) at the priority of its level (Info: LOG_INFO, Warning:
/// LOG_WARNING, Error: LOG_ERR; a level the library does not use: LOG_NOTICE), in the
/// given facility, or the process's when it is 0. The line goes as it is: the system log
/// adds the time, the program's name and its identifier itself. openlog is left to the
/// application, since the identity it sets is the whole process's.
///
/// Holds no state besides its facility and writer; syslog(3) is thread-safe, so the sink
/// is callable from any thread.
class TavloSyslogLogSink : public TavloLogSink {
 public:
  /// Where a priority and a NUL-terminated line go: syslog(3) unless a test says otherwise.
  using Writer = void (*)(int priority, const char* line);

  /// REQUIRES: isFacility(facility).
  explicit TavloSyslogLogSink(int facility = 0, Writer writer = nullptr);
  void writeLine(std::string_view line, TavloLogLevel level) override;

  /// The priority (without facility) a line of `level` is sent with.
  static int priorityOf(TavloLogLevel level);
  /// Whether `facility` is 0 or one of syslog's facilities (LOG_KERN excepted, which 0 stands for).
  static bool isFacility(int facility);

 private:
  const int facility;
  const Writer writer;
};
