#include "support/TavloFixedDeviceInfo.h"

std::string TavloFixedDeviceInfo::model() { return modelValue; }
std::string TavloFixedDeviceInfo::systemVersion() { return systemVersionValue; }
std::optional<int32_t> TavloFixedDeviceInfo::userInterfaceIdiom() { return userInterfaceIdiomValue; }
std::optional<TavloScreen> TavloFixedDeviceInfo::mainScreen() { return mainScreenValue; }
TavloString TavloFixedDeviceInfo::bundleName() { return bundleNameValue; }
TavloString TavloFixedDeviceInfo::bundleVersion() { return bundleVersionValue; }
