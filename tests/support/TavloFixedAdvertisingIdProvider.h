// An advertising identifier a test chooses.
#pragma once

#include <mutex>

#include "tavlo/platform/TavloAdvertisingIdProvider.h"

/// Answers the identifier last set (nothing by default) and counts the questions.
/// Callable from any thread; `identifierProtector` guards the state.
class TavloFixedAdvertisingIdProvider : public TavloAdvertisingIdProvider {
 public:
  explicit TavloFixedAdvertisingIdProvider(TavloString identifier = std::nullopt);
  TavloFixedAdvertisingIdProvider(const TavloFixedAdvertisingIdProvider&) = delete;
  TavloFixedAdvertisingIdProvider& operator=(const TavloFixedAdvertisingIdProvider&) = delete;

  TavloString advertisingIdentifier() override;
  void setAdvertisingIdentifier(TavloString identifier);
  int calls();

 private:
  std::mutex identifierProtector;
  TavloString identifier;  // guarded by identifierProtector
  int callCount = 0;       // guarded by identifierProtector
};
