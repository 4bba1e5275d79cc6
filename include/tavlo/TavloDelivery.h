// What became of the hits an application handed over, the viewer's consent, and flushing.
//
// Everything here is opt-in: an application that never calls it gets the library's
// behaviour as it always was (consent granted, no drop handler).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tavlo/TavloExport.h"

/// Whether the viewer lets the application measure. Kept across restarts in a small file
/// beside the queue file ("consent", mode 0600); without a data directory, for this
/// process only.
enum class TavloConsent : int {
  /// Hits are queued and sent (the state of an application that never says otherwise).
  Granted = 0,
  /// Hits are queued and kept, in memory and in the file, but nothing is authorised or
  /// sent until consent is granted.
  Pending = 1,
  /// The queue and its file are emptied, every later hit is dropped as soon as it is
  /// handed over, and nothing is sent.
  Revoked = 2,
};

/// Sets the consent state, effective at once for the hits already queued as for later
/// ones, and keeps it for the next start. With `resetDeviceIdentifier` (and `Revoked`),
/// the device identifier sent as "uid" is forgotten too: the next hit after a later grant
/// carries a new one. Starts the library if it was not running. Any thread but the drop
/// handler's.
TAVLO_EXPORT void TavloSetConsent(TavloConsent consent, bool resetDeviceIdentifier = false);
/// The consent state in force: the last one set, or the one kept from an earlier run. Starts
/// the library if it was not running, and may wait (at most a second) for the kept state
/// to be read.
TAVLO_EXPORT TavloConsent TavloGetConsent();
/// "granted", "pending" or "revoked".
TAVLO_EXPORT const char* TavloConsentName(TavloConsent consent);

/// Why a hit was dropped without reaching the collection server with status 200.
enum class TavloDropReason : int {
  /// The queue held 500 hits (or 500 waited in the hand-over): the oldest went.
  QueueFull = 0,
  /// The serial's authorisation refuses this kind of hit.
  AccessRefused = 1,
  /// The hit cannot be sent as a URL (unusable parameters, larger than 16 KiB, refused by
  /// the HTTP client).
  InvalidURL = 2,
  /// The collection server answered with a status other than 200 (no retry).
  HttpStatus = 3,
  /// Dated too far ahead of the clock when its turn came.
  Stale = 4,
  /// Audience hits kept while offline, dropped when the network came back.
  DiscardedAtReconnection = 5,
  /// Audience hits found in the queue file at start, which do not survive a restart.
  DiscardedAtRestart = 6,
  /// Consent was revoked.
  Consent = 7,
  /// Handed over after `TavloShutdown`.
  AfterShutdown = 8,
};
/// How many reasons `TavloDropReason` has.
inline constexpr std::size_t kTavloDropReasonCount = 9;

/// A stable English name for `reason` ("queue full", "HTTP status", ...).
TAVLO_EXPORT const char* TavloDropReasonName(TavloDropReason reason);

/// What became of the hits of one serial and one request type (0 audience, 1 streaming)
/// since the library started.
struct TavloDeliveryCounts {
  std::string serial;       ///< the serial the hits were made for ("" for none)
  int64_t requestType = 0;  ///< 0 audience, 1 streaming
  uint64_t queued = 0;      ///< hits taken into the queue (also those loaded from the file)
  uint64_t sent = 0;        ///< hits the collection server answered with status 200
  uint64_t dropped[kTavloDropReasonCount] = {};  ///< by `TavloDropReason`

  /// Every drop, whatever its reason.
  uint64_t droppedInAll() const {
    uint64_t all = 0;
    for (const uint64_t count : dropped) all += count;
    return all;
  }
};

/// The counts of every serial and request type seen since the library started, ordered by
/// serial then type; empty before the first tagger. Any thread; never waits for the
/// network.
TAVLO_EXPORT std::vector<TavloDeliveryCounts> TavloDeliveryStats();

/// One dropped hit, as the drop handler receives it.
struct TavloDroppedHit {
  std::string serial;       ///< "" for none
  int64_t requestType = 0;  ///< 0 audience, 1 streaming
  TavloDropReason reason = TavloDropReason::QueueFull;  ///< why it was dropped
  long httpStatus = 0;      ///< the server's status for `HttpStatus`, else 0
};

/// Called once per dropped hit, on one of the library's threads (or on the thread that
/// handed the hit over, for a drop at the hand-over), with none of the library's locks
/// held. It may be called from two threads at once, must return quickly, and must not
/// call `TavloFlush`, `TavloWaitForPendingHits` or `TavloShutdown`, which wait for the
/// thread it runs on. An exception it throws is logged and ignored.
using TavloDropHandler = std::function<void(const TavloDroppedHit&)>;
/// Sets the drop handler (an empty function removes it); drops before it was set are only
/// counted. Starts the library if it was not running. Any thread.
TAVLO_EXPORT void TavloSetDropHandler(TavloDropHandler handler);

/// What `TavloFlush` did.
struct TavloFlushResult {
  uint64_t sent = 0;           ///< hits answered with status 200 during the flush
  uint64_t dropped = 0;        ///< hits dropped during the flush, for any reason
  std::size_t stillQueued = 0; ///< hits left in the queue when it returned
};

/// Tries the queue now, once: each hit in turn, whatever the 60-second pause after a
/// failed attempt, until the queue is empty, an attempt gets no answer (the network is
/// down: the rest would fail alike), or `timeoutSeconds` of real time have passed (not a
/// number or negative: no wait; at most a day). Hits handed over before the call are
/// included. Sends nothing while the network is unreachable or consent is not granted.
/// Blocks the calling thread: not from a UI thread, nor from the drop handler.
TAVLO_EXPORT TavloFlushResult TavloFlush(double timeoutSeconds);
