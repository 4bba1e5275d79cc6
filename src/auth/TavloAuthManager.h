// Authorisations per tagger identity, fetched once from the authorisation server.
#pragma once

#include <atomic>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "auth/TavloAuth.h"
#include "identity/TavloTaggerID.h"
#include "platform/TavloLogger.h"
#include "tavlo/platform/TavloPlatform.h"

/// Asks the authorisation server, once per tagger identity, which access mode, collection
/// base URL and visit identifier apply to the tagger's serial, and caches the answer as a
/// TavloAuth in memory. When the server gives no usable answer, local defaults are cached
/// instead (full access, the locally configured collection endpoint, a random visit
/// identifier), so measurement goes on. Each exchange also measures the difference
/// between the server's clock and the device's.
///
/// A cached record is returned from then on without a new exchange, even when it holds
/// local defaults; only `forgetAuthForTagger` and `clearCache` lead to a new exchange.
///
/// Threads: the cache is guarded by `cacheAccess` (a shared mutex): reads run side by
/// side, writes exclusively and in call order, and a read made after a write returns sees
/// it. `authForTagger` and `authentificationInformationForTagger` block the calling thread
/// for the whole network exchange: call them from a background thread only. Two threads
/// that miss the cache together each run an exchange; the later store wins.
class TavloAuthManager {
 public:
  /// The process-wide manager, made on first use with the installed platform.
  static std::shared_ptr<TavloAuthManager> manager();

  explicit TavloAuthManager(const TavloPlatform& platform);

  /// The cached authorisation, after an exchange with the server when nothing is cached
  /// (or the cached record says it holds defaults). May block on the network.
  std::shared_ptr<TavloAuth> authForTagger(const TavloTaggerID& tagger);

  /// Runs the exchange for `tagger` and caches its outcome (the server's answer or the
  /// defaults). Blocks on the network.
  void authentificationInformationForTagger(const TavloTaggerID& tagger);

  /// A copy (sharing session and access) of the cached record, or null. Never blocks on
  /// the network.
  std::shared_ptr<TavloAuth> authFromCacheForTagger(const TavloTaggerID& tagger);
  std::shared_ptr<TavloAuth> authFromCacheForKey(const TavloTaggerID& key);

  void setAuthToCache(std::shared_ptr<TavloAuth> auth, const TavloTaggerID& key);
  void forgetAuthForTagger(const TavloTaggerID& tagger);
  void clearCache();

  /// Marks the cached access as having sent its first hit. When nothing is cached, caches
  /// an empty record instead, which blocks any exchange for that identity until it is
  /// forgotten.
  void hitSuccessfullySentForTagger(const TavloTaggerID& tagger);

  /// "denied" 2, "restricted" 1, anything else (nil included) 0; exact and case-sensitive.
  static int32_t accessModeFromString(const TavloString& word);

  /// Server time minus device time, in seconds, from the last exchange that got an HTTP
  /// response; 0 until then, and 0 after a response without a readable "Date" header.
  double timeIntervalBetweenServerAndDevice() const { return deltaBetweenServerAndDevice_.load(); }

  TavloAuthManager(const TavloAuthManager&) = delete;
  TavloAuthManager& operator=(const TavloAuthManager&) = delete;

 private:
  struct IdentityHash {
    size_t operator()(const TavloTaggerID& id) const { return static_cast<size_t>(id.hash()); }
  };
  // Identities whose serial is nil never compare equal, not even to themselves; the cache
  // compares serials with nil equal to nil so such an entry can be found and forgotten.
  struct IdentityEqual {
    bool operator()(const TavloTaggerID& a, const TavloTaggerID& b) const {
      return a.serial() == b.serial() && a.partialID() == b.partialID() && a.isStreamTagger() == b.isStreamTagger();
    }
  };

  /// Writes a line to this platform's log sink, through the logger's threshold.
  void log(std::string_view message, int64_t mode) const { TavloLogger::logTo(platform_.logSink.get(), message, mode); }

  const TavloPlatform platform_;

  mutable std::shared_mutex cacheAccess;
  std::unordered_map<TavloTaggerID, std::shared_ptr<TavloAuth>, IdentityHash, IdentityEqual>
      TavloAuths;  // guarded by cacheAccess
  std::atomic<double> deltaBetweenServerAndDevice_{0.0};
};
