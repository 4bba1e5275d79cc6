#include "identity/TavloTaggerID.h"

#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "util/TavloStringHash.h"

namespace {
const std::string kSerialKey = "TavloTaggerID_serial";
const std::string kPartialIDKey = "TavloTaggerID_partialID";
const std::string kIsStreamTaggerKey = "TavloTaggerID_isStreamTagger";
}  // namespace

TavloTaggerID::TavloTaggerID(TavloString serial, int64_t partialID, bool isStreamTagger)
    : serial_(std::move(serial)), partialID_(partialID), isStreamTagger_(isStreamTagger) {}

std::shared_ptr<TavloTaggerID> TavloTaggerID::copy() const {
  return std::make_shared<TavloTaggerID>(serial_, partialID_, isStreamTagger_);
}

bool TavloTaggerID::isEqual(const TavloTaggerID& other) const {
  return serial_.has_value() && serial_ == other.serial_ && partialID_ == other.partialID_ &&
         isStreamTagger_ == other.isStreamTagger_;
}

uint64_t TavloTaggerID::hash() const {
  return 29791ULL + 961ULL * TavloStringHash(serial_) + 31ULL * static_cast<uint64_t>(partialID_) +
         (isStreamTagger_ ? 1231ULL : 1237ULL);
}

std::vector<std::string> TavloTaggerID::classChain() const { return {"TavloTaggerID", "NSObject"}; }

void TavloTaggerID::encodeWithCoder(TavloKeyedArchiver& coder) const {
  coder.encodeString(serial_, kSerialKey);
  coder.encodeInteger(partialID_, kPartialIDKey);
  coder.encodeInteger(isStreamTagger_ ? 1 : 0, kIsStreamTaggerKey);
}

std::shared_ptr<TavloCodable> TavloTaggerID::initWithCoder(TavloKeyedUnarchiver& coder) {
  return std::make_shared<TavloTaggerID>(coder.decodeString(kSerialKey), coder.decodeInteger(kPartialIDKey),
                                         coder.decodeInteger(kIsStreamTaggerKey) != 0);
}
