// Measures screen and page views.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tavlo/TavloExport.h"
#include "tavlo/TavloTagger.h"
#include "tavlo/TavloTypes.h"

/// Sends one hit each time the application shows a screen, labelled by up to four levels
/// ("c", "p", "l3", "l4") plus the tagger's free levels and media descriptors, on top of
/// the library's default parameters.
///
/// Obtain taggers with `TavloAudienceTaggerWithSerial`: the same serial and customer data
/// give the same tagger for the life of the process (the library owns it). All taggers of
/// one serial share one authorisation.
///
/// Threads: any thread. `sendHitWithLevel1` never blocks on the network or the disk: the
/// hit is queued and sent in the background, retried while the network is down. Failures
/// are never reported to the caller; they are logged. A hit carries the levels and
/// properties as they stood when the call was made; later changes reach later hits only.
///
/// Access: when the serial's cached authorisation refuses audience hits (access denied,
/// or restricted after its first hit), `sendHitWithLevel1` drops the hit silently.
class TAVLO_EXPORT TavloAudienceTagger : public TavloTagger {
 public:
  /// The tagger for `serial` and `customerData` (nil allowed: it is sent as "crmid" when
  /// present), made and registered on first use. A nil or empty serial gives a tagger
  /// whose hits are dropped with an error line: they could not be attributed. A serial
  /// that cannot stand as one segment of a URL path (holding "/", "?", "#", "%", a
  /// blank, a control or non-ASCII character, or being "." or "..") gives a tagger whose
  /// hits are dropped; one error line says so when the tagger is made.
  static std::shared_ptr<TavloAudienceTagger> TavloAudienceTaggerWithSerial(TavloString serial,
                                                                            TavloString customerData = std::nullopt);

  ~TavloAudienceTagger() override;

  /// Sends one hit: level 1 as "c", level 2 as "p", level 3 as "l3", level 4 as "l4".
  /// A nil or empty level is left out.
  void sendHitWithLevel1(const TavloString& level1, const TavloString& level2 = std::nullopt,
                         const TavloString& level3 = std::nullopt, const TavloString& level4 = std::nullopt);

  /// Puts `value` under `key` in `dictionary`, cut to its first `limit` UTF-16 code units
  /// when `limit` is not 0. A nil or empty value, an empty key or a null dictionary does
  /// nothing: an empty value never removes or overwrites a default.
  static void addParam(const TavloString& value, const std::string& key, TavloParameters* dictionary,
                       std::size_t limit = 0);

  /// What the library keeps for each tagger. Only the library defines it: its layout is
  /// not part of an application's build, and it may change in any release.
  class Impl;

 private:
  TavloAudienceTagger(std::unique_ptr<Impl> impl, TavloString serial, TavloString customerData);

  const std::unique_ptr<Impl> impl_;
};
