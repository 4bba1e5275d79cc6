// What may be sent for a serial, and where.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "archive/TavloCodable.h"
#include "tavlo/TavloTypes.h"

class TavloKeyedUnarchiver;

/// Access modes; the numbers are stored in queue files and must not change.
enum TavloAccessMode : int32_t {
  TavloAccessModeFull = 0,
  TavloAccessModeRestricted = 1,
  TavloAccessModeDenied = 2,
};

/// The authorisation server's decision for one serial: the access mode, the collection
/// base URL, and `host` (base URL with the serial appended directly, no separator).
///
/// `host` is computed once at creation (a nil base URL gives a nil host; a nil serial
/// adds nothing); a record read from an archive keeps the host as stored, and its copy
/// computes it afresh.
///
/// The only change after creation is `hitSuccessfullySent`, which ends a restricted
/// serial's allowance of one audience hit. Records are shared between the authorisation
/// cache and requests on several threads, so that flag is atomic; everything else is
/// immutable.
class TavloAccess final : public TavloCodable {
 public:
  static std::shared_ptr<TavloAccess> TavloAccessWithSerial(TavloString serial, int32_t accessMode,
                                                            TavloString baseURL);
  TavloAccess(TavloString serial, int32_t accessMode, TavloString baseURL);

  const TavloString& serial() const { return serial_; }
  int32_t accessMode() const { return accessMode_; }
  const TavloString& baseURL() const { return baseURL_; }
  const TavloString& host() const { return host_; }
  bool firstHitSuccessfullySent() const { return firstHitSuccessfullySent_.load(); }

  /// Marks this record (not a copy) as having sent its first hit; returns it.
  TavloAccess& hitSuccessfullySent();

  /// Whether a request of `requestType` (0 audience, 1 streaming) may be sent: never when
  /// denied; always in full mode or any unknown mode; when restricted, streaming always
  /// and audience only until the first hit was sent.
  bool canSendRequestFor(int32_t requestType) const;

  /// A fresh record from serial, mode and base URL (so `host` is recomputed), keeping the
  /// first-hit flag.
  std::shared_ptr<TavloAccess> copy() const;

  static std::shared_ptr<TavloCodable> initWithCoder(TavloKeyedUnarchiver& coder);
  std::vector<std::string> classChain() const override;
  void encodeWithCoder(TavloKeyedArchiver& coder) const override;

 private:
  struct Decoded {};
  TavloAccess(Decoded, TavloString serial, int32_t accessMode, TavloString baseURL, TavloString host,
              bool firstHitSuccessfullySent);

  const TavloString serial_;
  const int32_t accessMode_;
  const TavloString baseURL_;
  const TavloString host_;
  std::atomic<bool> firstHitSuccessfullySent_{false};
};
