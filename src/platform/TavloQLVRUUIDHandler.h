// The persistent device identifier sent as "uid".
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "tavlo/TavloTypes.h"
#include "tavlo/platform/TavloLogSink.h"
#include "tavlo/platform/TavloRandom.h"
#include "tavlo/platform/TavloSecureStore.h"

/// Keeps one random UUID per device in the secure store (one generic item, service
/// "qlvr_uuid_service", account "qlvr_uuid_account"), so the identifier outlives the
/// application's installation. `UUID` reads it, creating and storing one on first use.
///
/// Store failures are reported only as lines written straight to the log sink (whatever
/// the logging threshold) and as a nil answer; nothing is retried, so the next call tries
/// again:
///   "QLVRUUIDHandler Keychain Save Error: <status>"      adding or updating failed
///   "QLVRUUIDHandler Unhandled Keychain Error <status>"  reading failed, other than not found
///   "QLVRUUIDHandler Keychain Delete Error: <status>"    deleting failed
/// The first failure to read or store the identifier is also logged once, as an ERROR
/// line through the logger, saying that hits carry "uid" "-" until the store works.
///
/// The store is process-wide in spirit: the agent owns one handler over its platform's
/// store. Threads: every operation may be called from any thread (one mutex).
class TavloQLVRUUIDHandler {
 public:
  TavloQLVRUUIDHandler(std::shared_ptr<TavloSecureStore> store, std::shared_ptr<TavloRandom> random,
                       std::shared_ptr<TavloLogSink> systemLog);

  /// A fresh UUID text (36 characters, upper-case), not stored anywhere.
  std::string generateUUID();
  /// Stores a fresh UUID, updating the existing item when `update` is true and adding a
  /// new one otherwise; answers the UUID stored, or nil on failure. Does not cache it.
  TavloString storeUUID(bool update);
  /// The device UUID; created and stored when the store holds none; nil on a store error.
  TavloString UUID();
  /// Forgets the cached UUID and deletes the stored item.
  void reset();

  /// When set, every query names this access group, to share the item between applications.
  TavloString accessGroup() const;
  void setAccessGroup(TavloString group);

 private:
  TavloSecureItemQuery query() const;  // REQUIRES: mutex_ held
  TavloString storeUUIDLocked(bool update);
  void writeSystemLog(const std::string& text, int32_t status);
  void reportNoIdentifierOnce(const char* operation, int32_t status);  // REQUIRES: mutex_ held

  const std::shared_ptr<TavloSecureStore> store_;
  const std::shared_ptr<TavloRandom> random_;
  const std::shared_ptr<TavloLogSink> systemLog_;

  mutable std::mutex mutex_;
  std::string cachedUUID_;   // guarded by mutex_; empty until read from the store
  TavloString accessGroup_;  // guarded by mutex_
  bool noIdentifierReported_ = false;  // guarded by mutex_
};
