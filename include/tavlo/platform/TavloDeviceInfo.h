// Platform seam: what the device and the application say about themselves.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tavlo/TavloExport.h"
#include "tavlo/TavloTypes.h"

/// Interface idioms, numbered as the user-agent and screen-size rules expect.
enum TavloUserInterfaceIdiom : int32_t {
  TavloUserInterfaceIdiomPhone = 0,
  TavloUserInterfaceIdiomPad = 1,
  TavloUserInterfaceIdiomTV = 2,
};

/// The main screen: bounds in points and the scale from points to pixels.
struct TAVLO_EXPORT TavloScreen {
  double width = 0;   ///< in points
  double height = 0;  ///< in points
  double scale = 1;   ///< pixels per point
  /// The native scale, where the display has one distinct from `scale`.
  std::optional<double> nativeScale;
};

/// What the application tells the library about itself and, optionally, about the
/// device, in place of what the Linux defaults find. Every field left empty falls back:
/// the model to /proc/device-tree/model or the DMI product name, the system version to
/// /etc/os-release, the idiom to television, the screen to 1920x1080 points at scale 1.
/// The bundle name and version have no fallback; missing ones print as "(null)" in the
/// "User-Agent" header.
struct TAVLO_EXPORT TavloApplicationInfo {
  TavloString bundleName;                     ///< the application's name; names its queue folder
  TavloString bundleVersion;                  ///< the application's version
  TavloString model;                          ///< the device's model name
  TavloString systemVersion;                  ///< the operating system's version
  std::optional<int32_t> userInterfaceIdiom;  ///< a TavloUserInterfaceIdiom value
  std::optional<TavloScreen> screen;          ///< the main screen
};

/// Device and application facts. Values may be read often (every hit), so
/// implementations should read the system once and cache. Callable from any thread.
class TAVLO_EXPORT TavloDeviceInfo {
 public:
  virtual ~TavloDeviceInfo() = default;
  /// The device's model name ("m_os").
  virtual std::string model() = 0;
  /// The operating system's version ("m_fw").
  virtual std::string systemVersion() = 0;
  /// The interface idiom, or nothing when the device cannot tell.
  virtual std::optional<int32_t> userInterfaceIdiom() = 0;
  /// The main screen, or nothing when there is none.
  virtual std::optional<TavloScreen> mainScreen() = 0;
  /// The application's name and version, as shown in the "User-Agent" header.
  ///@{
  virtual TavloString bundleName() = 0;
  virtual TavloString bundleVersion() = 0;
  ///@}
};
