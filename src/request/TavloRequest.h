// One measurement hit on its way to the collection server.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "archive/TavloCodable.h"
#include "auth/TavloAuth.h"
#include "identity/TavloTaggerID.h"
#include "tavlo/TavloTypes.h"
#include "tavlo/platform/TavloEndpoints.h"

class TavloKeyedUnarchiver;

/// Kinds of hit; the numbers are stored in queue files and must not change.
enum TavloRequestType : int32_t {
  TavloRequestTypeAudience = 0,
  TavloRequestTypeStreaming = 1,
};

// TavloSendingMode lives in tavlo/TavloTypes.h: streaming taggers take it from applications.

/// Where a request stands. 2 is unused on purpose: the numbers are stored in queue files.
enum TavloRequestStatus : int32_t {
  TavloRequestStatusNew = 0,
  TavloRequestStatusSending = 1,
  TavloRequestStatusFailed = 3,
};

/// A hit: its query parameters, kind, sending mode, the identity of the tagger that made
/// it, the serial, its failure history and the authorisation it is sent under.
///
/// Requests compare by identity: two requests with equal contents are still two hits, and
/// the agent's queue removes exactly the one it handled. `hash` is computed from contents
/// all the same.
///
/// A request is a value made once, plus the state of its sending. Kind, sending mode,
/// serial and tagger identity are fixed when it is made (or read from a queue file) and
/// read without a lock. The parameter dictionary is immutable and replaced whole, never
/// changed in place, so a reader holding the old one keeps a consistent view: the
/// streaming tagger ranks a hit before handing it over, and the agent stores in it the
/// network name of its last URL, which a persisted request carries. That dictionary, the
/// creation date and the send state (fails, status, renewal flag, authorisation), which
/// only the agent changes once the hit is handed over, are guarded by the request's own
/// mutex, since the tagger that made it may still read it. The agent's save cache relies
/// on the dictionary never changing: it knows one by its address (see TavloArchiveCache).
class TavloRequest : public TavloCodable {
 public:
  static std::shared_ptr<TavloRequest> TavloRequestWithParameters(std::shared_ptr<const TavloParameters> parameters,
                                                                  int32_t requestType, int64_t sendingMode,
                                                                  TavloString serial,
                                                                  std::shared_ptr<TavloTaggerID> taggerID,
                                                                  TavloDate creationDate);

  /// Stores the arguments as given (no copies); status new, no fails, no authorisation,
  /// no session renewal. `creationDate` is "now" on the caller's clock: the hit's time stamp.
  TavloRequest(std::shared_ptr<const TavloParameters> parameters, int32_t requestType, int64_t sendingMode,
               TavloString serial, std::shared_ptr<TavloTaggerID> taggerID, TavloDate creationDate);
  ~TavloRequest() override;

  std::shared_ptr<const TavloParameters> parameters() const;
  int32_t requestType() const;
  int64_t sendingMode() const;
  std::shared_ptr<TavloTaggerID> taggerID() const;

  TavloString serial() const;
  std::optional<TavloDate> lastFail() const;
  void setLastFail(std::optional<TavloDate> date);
  std::optional<TavloDate> creationDate() const;
  void setCreationDate(std::optional<TavloDate> date);
  int64_t numberOfFails() const;
  void setNumberOfFails(int64_t count);
  int32_t status() const;
  void setStatus(int32_t status);
  bool shouldRenewSessionAfter() const;
  void setShouldRenewSessionAfter(bool renew);
  std::shared_ptr<TavloAuth> auth() const;
  void setAuth(std::shared_ptr<TavloAuth> auth);

  /// True for the queue's clear-cache marker.
  virtual bool isClearCacheMarker() const { return false; }

  /// A new request with the same parameter dictionary (shared), kind, mode, serial and
  /// identity, and this one's creation date, last fail, fail count, status, renewal flag
  /// and authorisation.
  virtual std::shared_ptr<TavloRequest> copy() const;

  /// Identity: true only for this very object.
  virtual bool isEqual(const TavloRequest& other) const;

  /// Contents hash, wrapping unsigned 64-bit: 31^6 + 31^5 h(parameters) + 31^4 h(lastFail)
  /// + 31^3 h(creationDate) + 31^2 F + 31 sendingMode + status, where F folds the fail
  /// count (32-bit xor of its halves, sign-extended). See TavloStringHash.h for h.
  uint64_t hash() const;

  /// "serial S - request type audience|streaming - hote H - parameters {...}" between
  /// double quotes; H is the access's host for live hits and the default audience
  /// collection address of `endpoints` for timestamped and disconnected ones. Made for
  /// log lines: control characters in the serial, the host, keys and values are written
  /// as escapes (TavloLogSafe), so the only line breaks are those between parameters.
  std::string description(const TavloEndpoints& endpoints) const;

  /// The address to send, or nil when it cannot be a valid URL (no authorisation
  /// attached, or a base that is not an http(s) address).
  ///
  /// Base: for timestamped and disconnected hits the audience collection address of
  /// `endpoints` followed by the access's serial; otherwise the access's host. Then the
  /// query: "m_ntwk" ("Wifi" for `networkStatus` 2, "GSM" otherwise); unless live, "ts"
  /// (creation time plus `clockDelta`, truncated to whole seconds) and "tt" ("c" for
  /// timestamped, "d" otherwise); every parameter but a stored "m_ntwk", escaped; for
  /// streaming hits "cmsVI" of the attached session. The pieces are sorted without
  /// regard to case (ties keep their order).
  ///
  /// Side effect: the parameters are replaced by a copy holding the "m_ntwk" just used,
  /// so a request persisted afterwards carries the last network name.
  TavloString url(int32_t networkStatus, double clockDelta, const TavloEndpoints& endpoints);

  /// Percent-escapes a query key or value as UTF-8 bytes (see TavloPercentEscape).
  static std::string urlEncode(std::string_view text);

  /// Sets "cmsRK" to `rank`.
  void setTheRank(int64_t rank);

  /// Replaces the parameters by an equal copy allocated on the calling thread. The agent's
  /// handler does this for the hits a tagger made on the application's thread: a queued
  /// hit may wait long, and its dictionary is then the agent's memory, while the memory
  /// the application's thread used is freed at once and serves its next hit (instead of
  /// the next hit touching fresh pages, which costs the caller a page fault each).
  void copyParametersOnThisThread();

  /// Turns the request into a stop event: "cmsPS" "12" and "cmsRK" one more than its
  /// leading integer (0 when absent). Type, mode, date and identity stay.
  void transformToStop();

  static std::shared_ptr<TavloCodable> initWithCoder(TavloKeyedUnarchiver& coder);
  std::vector<std::string> classChain() const override;
  void encodeWithCoder(TavloKeyedArchiver& coder) const override;

 protected:
  /// Every field zero or nil: the state of the clear-cache marker.
  TavloRequest();

  /// Replaces the parameter dictionary whole (used by the URL and rank operations).
  void replaceParameters(std::shared_ptr<const TavloParameters> parameters);

 private:
  /// A copy of the parameters with `key` set to `value`, installed in their place.
  void setParameter(const std::string& key, const std::string& value);

 private:
  const int32_t requestType_ = TavloRequestTypeAudience;
  const int64_t sendingMode_ = TavloSendingModeTimestamped;
  const std::shared_ptr<TavloTaggerID> taggerID_;
  const TavloString serial_;

  mutable std::mutex mutex_;
  std::shared_ptr<const TavloParameters> parameters_;  // guarded by mutex_
  std::optional<TavloDate> lastFail_;                  // guarded by mutex_
  std::optional<TavloDate> creationDate_;              // guarded by mutex_
  int64_t numberOfFails_ = 0;                          // guarded by mutex_
  int32_t status_ = TavloRequestStatusNew;             // guarded by mutex_
  bool shouldRenewSessionAfter_ = false;               // guarded by mutex_
  std::shared_ptr<TavloAuth> auth_;                    // guarded by mutex_
};

/// The dictionary as the platform's description prints it: one "key = value;" per line,
/// keys sorted, strings quoted when they hold anything but letters, digits and "_$+/:.-",
/// with control characters inside them escaped (TavloLogSafe).
std::string TavloParametersDescription(const TavloParameters* parameters);
/// The same text, appended to `out`.
void TavloAppendParametersDescription(std::string& out, const TavloParameters* parameters);
/// The text of `parameters` as it was before some keys were added and some values
/// replaced: the keys in `added` are left out, and each key in `replaced` shows the value
/// given there.
void TavloAppendParametersDescription(std::string& out, const TavloParameters& parameters,
                                      std::span<const std::string_view> added,
                                      const std::vector<std::pair<std::string, std::string>>& replaced);
