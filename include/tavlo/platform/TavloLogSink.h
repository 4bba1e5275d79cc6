// Platform seam: where diagnostic lines go.
#pragma once

#include <cstdint>
#include <string_view>

#include "tavlo/TavloExport.h"

/// How serious a line is. The values are those of the logging threshold
/// (`TavloTagger::setLoggingMode`): a line is written when its level is at least the
/// threshold.
enum class TavloLogLevel : int64_t {
  Info = 0,
  Warning = 1,
  Error = 2,
};

/// Receives the library's diagnostic lines, one call per line, without a trailing line
/// feed. The sink adds its own prefix (time, process) if it wants one. Called from any
/// thread, possibly concurrently; must not call back into Tavlo.
///
/// A sink overrides `writeLine(line, level)`. Sinks written for Tavlo 5.4 override the
/// one-argument form instead; the two-argument form passes their lines on to it, so they
/// keep working unchanged for one more release.
class TAVLO_EXPORT TavloLogSink {
 public:
  virtual ~TavloLogSink() = default;

  /// One line and its level, so that a sink can map lines to its own priorities (syslog,
  /// journald) without parsing them. The line still starts with "(INFO) : ",
  /// "(WARNING) : " or "(ERROR) : " where the library has always written one; the
  /// streaming tagger's hit dumps and the device-identifier store's lines come at level
  /// Info and Error without one.
  virtual void writeLine(std::string_view line, TavloLogLevel level) {
    (void)level;
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
    writeLine(line);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  }

  /// The form of Tavlo 5.4, without the level; the library no longer calls it directly.
  [[deprecated("override writeLine(line, level) instead")]] virtual void writeLine(std::string_view line) {
    (void)line;
  }
};
