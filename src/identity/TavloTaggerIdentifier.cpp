#include "identity/TavloTaggerIdentifier.h"

#include "util/TavloStringHash.h"

std::shared_ptr<TavloTaggerIdentifier> TavloTaggerIdentifier::TavloTaggerIdentifierWithSerial(
    TavloString serial, TavloString customerData) {
  return std::make_shared<TavloTaggerIdentifier>(std::move(serial), std::move(customerData));
}

TavloTaggerIdentifier::TavloTaggerIdentifier(TavloString serial, TavloString customerData)
    : serial_(std::move(serial)), customerData_(std::move(customerData)) {}

std::shared_ptr<TavloTaggerIdentifier> TavloTaggerIdentifier::copy() const {
  return std::make_shared<TavloTaggerIdentifier>(serial_, customerData_);
}

bool TavloTaggerIdentifier::isEqual(const TavloTaggerIdentifier& other) const {
  return serial_ == other.serial_ && customerData_ == other.customerData_;
}

uint64_t TavloTaggerIdentifier::hash() const {
  return 31ULL * TavloStringHash(serial_) + TavloStringHash(customerData_) + 961ULL;
}
