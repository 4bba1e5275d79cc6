// The library's one diagnostic channel.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

class TavloLogSink;

/// Message levels, which double as values of the threshold.
enum TavloLoggingMode : int64_t {
  TavloLoggingModeInfo = 0,
  TavloLoggingModeWarning = 1,
  TavloLoggingModeError = 2,
};

/// Filters the library's messages by one process-wide threshold and writes each kept
/// message as one line "(LEVEL) : message" to a log sink.
///
/// A component built with a platform (the agent, the authorisation manager, the taggers)
/// writes to that platform's sink with `logTo`, so one agent's lines and its taggers'
/// parameter dumps all go to one place. Code that has no platform of its own (the seams'
/// implementations, process-wide helpers) writes to the installed platform's sink with
/// `log`. The singletons are built with a sink that follows the installed one, so that a
/// sink installed after start-up takes effect for them too.
///
/// The threshold and the level are compared as unsigned 64-bit numbers: a message is
/// dropped when the threshold is greater. So 0 prints everything, 2 (the default) prints
/// errors only, and 3 or more, or any negative threshold, prints nothing.
///
/// Threads: any thread may log or change the threshold; the threshold is an atomic word,
/// so a change takes effect on some later message.
class TavloLogger {
 public:
  /// The process-wide logger, made on first use with threshold 2.
  static TavloLogger& sharedLogger();

  /// Prints or drops `message` at level `mode`. A fixed text costs no allocation when the
  /// line is dropped; a built one should be built only when `wouldLog(mode)`.
  static void log(std::string_view message, int64_t mode);

  /// The same, to `sink`; to the installed platform's sink when `sink` is null.
  static void logTo(TavloLogSink* sink, std::string_view message, int64_t mode);

  /// Whether a message at level `mode` would be written now. Lets a caller skip building
  /// a costly text (a request's description) that the threshold would drop anyway.
  static bool wouldLog(int64_t mode) {
    return static_cast<uint64_t>(sharedLogger().loggingMode()) <= static_cast<uint64_t>(mode);
  }

  /// The level word printed for `mode`: "INFO", "WARNING", "ERROR", or "" for any other.
  static const char* levelWord(int64_t mode);

  /// Runs `task`; if it throws, logs "A <queue> task threw (...); it was dropped and the
  /// queue goes on" at error level instead of letting the exception end the queue's thread.
  static void runReportingFailures(const std::string& queue, const std::function<void()>& task);

  int64_t loggingMode() const { return loggingMode_.load(std::memory_order_relaxed); }
  void setLoggingMode(int64_t mode) { loggingMode_.store(mode, std::memory_order_relaxed); }

  TavloLogger(const TavloLogger&) = delete;
  TavloLogger& operator=(const TavloLogger&) = delete;

 private:
  TavloLogger() = default;
  std::atomic<int64_t> loggingMode_{TavloLoggingModeError};
};
