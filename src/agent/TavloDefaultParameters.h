// The parameters every hit starts from, the "User-Agent" text and device facts.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "identity/TavloUserAgent.h"
#include "platform/TavloQLVRUUIDHandler.h"
#include "tavlo/TavloTypes.h"
#include "tavlo/platform/TavloPlatform.h"

/// Describes the library, the device and its screen to the collection server. The agent
/// owns one and forwards its default-parameter, user-agent and advertising-identifier
/// operations to it; taggers start every hit from `defaultParametersForRequest`.
///
/// Every hit carries them, so the device facts (screen, model, system version, diagonal)
/// are read from the device-information seam once, on first use: they do not change while
/// the process runs. Each call draws a new "n" and asks the identifier store for "uid"
/// (which keeps it in memory), so a reset identifier shows on the next hit.
/// Threads: any thread (the seams are thread-safe; the facts are made under a once flag).
class TavloDefaultParameters {
 public:
  explicit TavloDefaultParameters(const TavloPlatform& platform);

  /// The library version, TavloVersionString (TavloVersion.h).
  static std::string TavloVersion();

  /// A new dictionary of the eleven defaults: "scp" "32", "tag_type" "apps", "v" the
  /// version, "n" a fresh random 32-bit number, "uid" the device UUID (or "-"), "scw"/"sch"
  /// the screen's size in points ("0" without a screen), "m_os" the model, "m_fw" the
  /// system version, "ds" the diagonal to one decimal, "tn" "tvOS".
  std::shared_ptr<const TavloParameters> defaultParametersForRequest();
  /// The same dictionary by value, for a tagger that adds its own keys to it.
  TavloParameters defaultParameters() { return defaultParametersWith(drawForHit()); }

  /// What is drawn afresh for each hit: "n" and "uid" as they stand when the hit is made.
  struct HitDraw {
    uint32_t n = 0;
    TavloString uid;
  };
  /// Draws "n", then asks the identifier store for "uid". Cheap enough for the
  /// application's thread, where a hit's time and identity are fixed.
  HitDraw drawForHit();
  /// The eleven defaults with the values of `draw`. A hit whose dictionary is made later,
  /// off the application's thread, still carries what was drawn when it was made.
  TavloParameters defaultParametersWith(HitDraw draw);

  /// "<bundle name>/<bundle version> Tavlo SDK v<version> apple <tv|ipad|iphone>", with
  /// "(null)" standing for a missing name or version (TavloUserAgentOf). Made once, on
  /// first use, like the device facts: every hit sent carries it.
  const std::string& userAgent();

  /// The advertising identifier as an upper-case UUID text, or nil with the information
  /// line "Can't get did" when no provider is registered.
  TavloString appleDID();

  /// The screen's nominal diagonal in inches: the diagonal in points over 132 points per
  /// inch (163 on a phone or a device that reports no idiom). 0 without a screen.
  double screenDiagonal();

  TavloQLVRUUIDHandler& uuidHandler() { return uuidHandler_; }

 private:
  const std::shared_ptr<TavloDeviceInfo> deviceInfo_;
  const std::shared_ptr<TavloRandom> random_;
  const std::shared_ptr<TavloAdvertisingIdProvider> advertisingIdProvider_;
  const std::shared_ptr<TavloLogSink> logSink_;
  TavloQLVRUUIDHandler uuidHandler_;
  std::once_flag deviceFactsMade_;
  TavloParameters deviceFacts_;  // written once under deviceFactsMade_, read-only after
  std::once_flag userAgentMade_;
  std::string userAgent_;  // written once under userAgentMade_, read-only after
};
