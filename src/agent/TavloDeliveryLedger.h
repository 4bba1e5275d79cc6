// Counts what became of every hit, and tells the application of each drop.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "request/TavloRequest.h"
#include "tavlo/TavloDelivery.h"

/// The agent records here every hit it queues, sends or drops; readers take a copy.
///
/// Drops are also kept for the drop handler, which `deliver` calls later with no lock of
/// the agent's held: the agent drops hits while it holds its queue's lock, and a handler
/// called there could not even read the queue's length. `ledgerProtector` is a leaf: held
/// only to count or copy, never while calling out.
class TavloDeliveryLedger {
 public:
  void queued(const TavloRequest& request, uint64_t count = 1);
  void sent(const TavloRequest& request);
  void dropped(const TavloRequest& request, TavloDropReason reason, long httpStatus = 0);
  /// A hit dropped before its request was made.
  void dropped(const TavloString& serial, int64_t requestType, TavloDropReason reason);

  /// Every serial and type seen, ordered by serial then type.
  std::vector<TavloDeliveryCounts> counts() const;
  /// The counts as text, one line per serial and type: the type, queued, sent, the drops
  /// by reason, then the serial (escaped as log lines escape it). What `tavlo-queue` reads
  /// back from the file the agent leaves beside the queue file at shutdown.
  std::string text() const;
  /// Reads `text` back; lines that are not counts are skipped.
  static std::vector<TavloDeliveryCounts> fromText(std::string_view text);
  /// Hits sent and dropped in all, for what a flush did.
  std::pair<uint64_t, uint64_t> totals() const;

  void setHandler(TavloDropHandler handler);
  /// Hands the drops recorded so far to the handler, in the order they happened.
  /// REQUIRES: no lock of the agent held.
  void deliver();

 private:
  TavloDeliveryCounts& entryFor(const TavloString& serial, int64_t requestType);  // REQUIRES: ledgerProtector held
  void droppedLocked(TavloDeliveryCounts& entry, TavloDropReason reason, long httpStatus);

  mutable std::mutex ledgerProtector;
  std::map<std::pair<std::string, int64_t>, TavloDeliveryCounts> entries_;  // guarded by ledgerProtector
  uint64_t sent_ = 0;                                                         // guarded by ledgerProtector
  uint64_t dropped_ = 0;                                                      // guarded by ledgerProtector
  std::shared_ptr<const TavloDropHandler> handler_;                           // guarded by ledgerProtector
  std::vector<TavloDroppedHit> undelivered_;                                  // guarded by ledgerProtector
  std::atomic<bool> dropsWaiting_{false};  // set with undelivered_, read without the lock
};
