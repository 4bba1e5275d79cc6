// The installed platform's log sink, for the logger's fast path.
#pragma once

#include <memory>

#include "tavlo/platform/TavloLogSink.h"
#include "tavlo/platform/TavloPlatform.h"

/// The log sink of the platform installed with TavloPlatform::install, or the standard
/// error sink when none was installed. Cheap enough for every line: it copies one
/// pointer under a lock, and never builds the rest of the default platform (no file is
/// read, no store opened). Never empty. Callable from any thread, also during static
/// initialisation and after main returns.
std::shared_ptr<TavloLogSink> TavloInstalledLogSink();

/// Records that a process-wide singleton has taken the installed platform, so that a
/// later TavloPlatform::install can say it comes too late for anything but the log sink.
void TavloMarkInstalledPlatformTaken();

/// The installed platform, for a process-wide singleton (the shared agent, the shared
/// authorisation manager) about to be made from it: marks it taken, as above, and gives
/// it a log sink that hands each line to the sink installed at that moment. The
/// singleton keeps every other seam it was made with, but a sink installed later still
/// receives its lines, streaming dumps included, as `install` promises.
TavloPlatform TavloPlatformForSingleton();

/// The process's one standard error sink: the default platform's, and the logger's until
/// a platform is installed. Defined beside the rest of the defaults, in
/// linux/TavloLinuxPlatform.cpp, so that the core names no Linux class. Never empty.
std::shared_ptr<TavloLogSink> TavloStandardErrorSink();
