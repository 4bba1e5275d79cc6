// What an application tells the library about its own life, and how it waits for it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tavlo/TavloExport.h"

/// Call when the application returns to the foreground. Linux has no system-wide
/// notification for that moment, so the application reports it (from its resume or
/// focus-in handler); the library then checks at once whether queued hits can be sent,
/// instead of waiting for the next hit or network change. Any thread; returns at once.
TAVLO_EXPORT void TavloApplicationWillEnterForeground();

/// The number of requests waiting in the process-wide queue. 0 when no tagger was used
/// yet (this call does not start the library). A hit made a moment ago may still be on its
/// way into the queue and not counted yet; after `TavloShutdown` the count is exact. Any
/// thread.
TAVLO_EXPORT std::size_t TavloPendingHitCount();

/// Waits until the process-wide queue is empty or `timeoutSeconds` have passed; true when
/// empty. Blocks the calling thread: do not call it from a UI thread. A hit that cannot be
/// sent (network down, server silent) keeps the queue from emptying.
TAVLO_EXPORT bool TavloWaitForPendingHits(double timeoutSeconds);

/// Stops the library's background work for a clean exit: the exchange in flight finishes
/// (at most its time-out); when the call returns, every hit handed over before it is in
/// the queue file for the next start; later hits are dropped. Idempotent; any thread but
/// the library's own.
TAVLO_EXPORT void TavloShutdown();

/// Sets the process-wide logging threshold, as `TavloTagger::setLoggingMode` does, without
/// a tagger: `0` writes information, warnings and errors; `1` warnings and errors; `2`
/// (the default) errors only; `3` or more, or a negative value, nothing. Any thread; it
/// does not start the library.
TAVLO_EXPORT void TavloSetLoggingMode(int64_t mode);
/// The process-wide logging threshold last set, by this call or through any tagger.
TAVLO_EXPORT int64_t TavloGetLoggingMode();
