#include "agent/TavloDeliveryLedger.h"

#include <algorithm>
#include <exception>
#include <sstream>

#include "platform/TavloLogger.h"
#include "util/TavloLogSafe.h"

const char* TavloDropReasonName(TavloDropReason reason) {
  switch (reason) {
    case TavloDropReason::QueueFull:
      return "queue full";
    case TavloDropReason::AccessRefused:
      return "access refused";
    case TavloDropReason::InvalidURL:
      return "invalid URL";
    case TavloDropReason::HttpStatus:
      return "HTTP status";
    case TavloDropReason::Stale:
      return "stale";
    case TavloDropReason::DiscardedAtReconnection:
      return "discarded at reconnection";
    case TavloDropReason::DiscardedAtRestart:
      return "discarded at restart";
    case TavloDropReason::Consent:
      return "consent";
    case TavloDropReason::AfterShutdown:
      return "after shutdown";
  }
  return "unknown";
}

TavloDeliveryCounts& TavloDeliveryLedger::entryFor(const TavloString& serial, int64_t requestType) {
  auto [entry, made] = entries_.try_emplace({serial.value_or(""), requestType});
  if (made) {
    entry->second.serial = entry->first.first;
    entry->second.requestType = requestType;
  }
  return entry->second;
}

void TavloDeliveryLedger::queued(const TavloRequest& request, uint64_t count) {
  if (request.isClearCacheMarker()) return;  // the library's own, not a hit
  std::lock_guard lock(ledgerProtector);
  entryFor(request.serial(), request.requestType()).queued += count;
}

void TavloDeliveryLedger::sent(const TavloRequest& request) {
  std::lock_guard lock(ledgerProtector);
  ++entryFor(request.serial(), request.requestType()).sent;
  ++sent_;
}

void TavloDeliveryLedger::droppedLocked(TavloDeliveryCounts& entry, TavloDropReason reason, long httpStatus) {
  ++entry.dropped[static_cast<std::size_t>(reason)];
  ++dropped_;
  if (handler_) {
    undelivered_.push_back({entry.serial, entry.requestType, reason, httpStatus});
    dropsWaiting_.store(true, std::memory_order_release);
  }
}

void TavloDeliveryLedger::dropped(const TavloRequest& request, TavloDropReason reason, long httpStatus) {
  if (request.isClearCacheMarker()) return;
  std::lock_guard lock(ledgerProtector);
  droppedLocked(entryFor(request.serial(), request.requestType()), reason, httpStatus);
}

void TavloDeliveryLedger::dropped(const TavloString& serial, int64_t requestType, TavloDropReason reason) {
  std::lock_guard lock(ledgerProtector);
  droppedLocked(entryFor(serial, requestType), reason, 0);
}

std::vector<TavloDeliveryCounts> TavloDeliveryLedger::counts() const {
  std::lock_guard lock(ledgerProtector);
  std::vector<TavloDeliveryCounts> all;
  all.reserve(entries_.size());
  for (const auto& [key, entry] : entries_) all.push_back(entry);
  return all;
}

std::string TavloDeliveryLedger::text() const {
  std::string text;
  for (const TavloDeliveryCounts& counts : this->counts()) {
    text += std::to_string(counts.requestType) + " " + std::to_string(counts.queued) + " " + std::to_string(counts.sent);
    for (const uint64_t dropped : counts.dropped) text += " " + std::to_string(dropped);
    text += " " + TavloLogSafe(counts.serial) + "\n";
  }
  return text;
}

std::vector<TavloDeliveryCounts> TavloDeliveryLedger::fromText(std::string_view text) {
  std::vector<TavloDeliveryCounts> all;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::istringstream line{std::string(text.substr(0, end))};
    text.remove_prefix(std::min(end + 1, text.size()));
    TavloDeliveryCounts counts;
    line >> counts.requestType >> counts.queued >> counts.sent;
    for (uint64_t& dropped : counts.dropped) line >> dropped;
    if (!line || line.get() != ' ') continue;
    std::getline(line, counts.serial);
    all.push_back(std::move(counts));
  }
  return all;
}

std::pair<uint64_t, uint64_t> TavloDeliveryLedger::totals() const {
  std::lock_guard lock(ledgerProtector);
  return {sent_, dropped_};
}

void TavloDeliveryLedger::setHandler(TavloDropHandler handler) {
  std::lock_guard lock(ledgerProtector);
  handler_ = handler ? std::make_shared<const TavloDropHandler>(std::move(handler)) : nullptr;
  if (!handler_) {
    undelivered_.clear();
    dropsWaiting_.store(false, std::memory_order_relaxed);
  }
}

void TavloDeliveryLedger::deliver() {
  std::vector<TavloDroppedHit> drops;
  std::shared_ptr<const TavloDropHandler> handler;
  // Called at every hand-over, from the application's threads too: with nothing to
  // deliver, which is nearly always, it must not even take the lock the agent's threads
  // hold while they count.
  if (!dropsWaiting_.load(std::memory_order_acquire)) return;
  {
    std::lock_guard lock(ledgerProtector);
    dropsWaiting_.store(false, std::memory_order_relaxed);
    if (undelivered_.empty()) return;
    drops.swap(undelivered_);
    handler = handler_;
  }
  if (!handler) return;
  for (const TavloDroppedHit& drop : drops) {
    try {
      (*handler)(drop);
    } catch (const std::exception& failure) {
      TavloLogger::log(std::string("The drop handler threw (") + TavloLogSafe(failure.what()) + "); ignored",
                       TavloLoggingModeError);
    } catch (...) {
      TavloLogger::log("The drop handler threw; ignored", TavloLoggingModeError);
    }
  }
}
