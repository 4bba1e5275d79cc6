// Device facts on Linux.
#pragma once

#include <string>

#include "tavlo/platform/TavloDeviceInfo.h"

/// What the application said about itself, completed from the system:
///   model           the application's, else /proc/device-tree/model (ARM boxes), else
///                   /sys/class/dmi/id/product_name (x86 boxes), else "Linux";
///   system version  the application's, else VERSION_ID of /etc/os-release (or of
///                   /usr/lib/os-release, its standard fallback), else the kernel
///                   release, else "";
///   idiom           the application's, else television;
///   main screen     the application's, else 1920x1080 points at scale 1;
///   bundle name and version   the application's only.
/// An empty model or system version from the application counts as not given: an
/// empty "m_os" tells the audience nothing.
///
/// The files are read once, in the constructor, so every later call is a plain read
/// of constant fields, safe from any thread.
class TavloLinuxDeviceInfo : public TavloDeviceInfo {
 public:
  /// `fileSystemRoot` is put before every absolute path read ("" is the real root), so
  /// tests can lay out a fake proc, sys and etc in a temporary folder.
  explicit TavloLinuxDeviceInfo(TavloApplicationInfo application, const std::string& fileSystemRoot = "");

  std::string model() override;
  std::string systemVersion() override;
  std::optional<int32_t> userInterfaceIdiom() override;
  std::optional<TavloScreen> mainScreen() override;
  TavloString bundleName() override;
  TavloString bundleVersion() override;

  /// The value of VERSION_ID in os-release text, unquoted; nothing when absent or empty.
  static TavloString versionIdFromOSRelease(const std::string& text);

 private:
  const TavloApplicationInfo application;
  const std::string resolvedModel;
  const std::string resolvedSystemVersion;
};
