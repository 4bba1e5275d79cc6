// Device facts a test chooses.
#pragma once

#include "tavlo/platform/TavloDeviceInfo.h"

/// Answers its public fields, each named after the operation that returns it. Set them
/// before the device info is shared with code under test; they are not guarded, so
/// changing one while another thread reads is a race. The defaults describe a plain
/// 1080p television application.
class TavloFixedDeviceInfo : public TavloDeviceInfo {
 public:
  std::string modelValue = "TestModel";
  std::string systemVersionValue = "1.0";
  std::optional<int32_t> userInterfaceIdiomValue = TavloUserInterfaceIdiomTV;
  std::optional<TavloScreen> mainScreenValue = TavloScreen{1920, 1080, 1, std::nullopt};
  TavloString bundleNameValue = "TestApp";
  TavloString bundleVersionValue = "1.2.3";

  std::string model() override;
  std::string systemVersion() override;
  std::optional<int32_t> userInterfaceIdiom() override;
  std::optional<TavloScreen> mainScreen() override;
  TavloString bundleName() override;
  TavloString bundleVersion() override;
};
