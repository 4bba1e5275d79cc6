// Platform seam: where diagnostic lines go.
#pragma once

#include <string_view>

#include "tavlo/TavloExport.h"

/// Receives the library's diagnostic lines, one call per line, without a trailing line
/// feed. The sink adds its own prefix (time, process) if it wants one. Called from any
/// thread, possibly concurrently; must not call back into Tavlo.
class TAVLO_EXPORT TavloLogSink {
 public:
  virtual ~TavloLogSink() = default;
  virtual void writeLine(std::string_view line) = 0;
};
