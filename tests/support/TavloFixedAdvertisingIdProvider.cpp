#include "support/TavloFixedAdvertisingIdProvider.h"

TavloFixedAdvertisingIdProvider::TavloFixedAdvertisingIdProvider(TavloString identifier)
    : identifier(std::move(identifier)) {}

TavloString TavloFixedAdvertisingIdProvider::advertisingIdentifier() {
  std::lock_guard<std::mutex> lock(identifierProtector);
  ++callCount;
  return identifier;
}

void TavloFixedAdvertisingIdProvider::setAdvertisingIdentifier(TavloString newIdentifier) {
  std::lock_guard<std::mutex> lock(identifierProtector);
  identifier = std::move(newIdentifier);
}

int TavloFixedAdvertisingIdProvider::calls() {
  std::lock_guard<std::mutex> lock(identifierProtector);
  return callCount;
}
