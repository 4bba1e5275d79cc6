#include "auth/TavloAccess.h"

#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"

namespace {
const std::string kSerialKey = "TavloAccess_serial";
const std::string kAccessModeKey = "TavloAccess_accessMode";
const std::string kBaseURLKey = "TavloAccess_baseURL";
const std::string kFirstHitKey = "TavloAccess_firstHitSuccessfullySent";
const std::string kHostKey = "TavloAccess_host";

TavloString hostFrom(const TavloString& baseURL, const TavloString& serial) {
  if (!baseURL) return std::nullopt;
  return *baseURL + serial.value_or("");
}
}  // namespace

std::shared_ptr<TavloAccess> TavloAccess::TavloAccessWithSerial(TavloString serial, int32_t accessMode,
                                                                TavloString baseURL) {
  return std::make_shared<TavloAccess>(std::move(serial), accessMode, std::move(baseURL));
}

TavloAccess::TavloAccess(TavloString serial, int32_t accessMode, TavloString baseURL)
    : serial_(std::move(serial)),
      accessMode_(accessMode),
      baseURL_(std::move(baseURL)),
      host_(hostFrom(baseURL_, serial_)) {}

TavloAccess::TavloAccess(Decoded, TavloString serial, int32_t accessMode, TavloString baseURL, TavloString host,
                         bool firstHitSuccessfullySent)
    : serial_(std::move(serial)),
      accessMode_(accessMode),
      baseURL_(std::move(baseURL)),
      host_(std::move(host)),
      firstHitSuccessfullySent_(firstHitSuccessfullySent) {}

TavloAccess& TavloAccess::hitSuccessfullySent() {
  firstHitSuccessfullySent_.store(true);
  return *this;
}

bool TavloAccess::canSendRequestFor(int32_t requestType) const {
  if (accessMode_ == TavloAccessModeDenied) return false;
  if (accessMode_ != TavloAccessModeRestricted) return true;
  if (requestType == 1) return true;
  return !firstHitSuccessfullySent();
}

std::shared_ptr<TavloAccess> TavloAccess::copy() const {
  auto copied = std::make_shared<TavloAccess>(serial_, accessMode_, baseURL_);
  if (firstHitSuccessfullySent()) copied->hitSuccessfullySent();
  return copied;
}

std::vector<std::string> TavloAccess::classChain() const { return {"TavloAccess", "NSObject"}; }

void TavloAccess::encodeWithCoder(TavloKeyedArchiver& coder) const {
  coder.encodeString(serial_, kSerialKey);
  coder.encodeInteger(accessMode_, kAccessModeKey);
  coder.encodeString(baseURL_, kBaseURLKey);
  coder.encodeBool(firstHitSuccessfullySent(), kFirstHitKey);
  coder.encodeString(host_, kHostKey);
}

std::shared_ptr<TavloCodable> TavloAccess::initWithCoder(TavloKeyedUnarchiver& coder) {
  TavloString serial = coder.decodeString(kSerialKey);
  // Stored as a 32-bit enumeration: a wider archived value keeps its low 32 bits.
  const auto accessMode = static_cast<int32_t>(static_cast<uint32_t>(coder.decodeInteger(kAccessModeKey)));
  TavloString baseURL = coder.decodeString(kBaseURLKey);
  const bool firstHit = coder.decodeBool(kFirstHitKey);
  TavloString host = coder.decodeString(kHostKey);
  return std::shared_ptr<TavloAccess>(
      new TavloAccess(Decoded{}, std::move(serial), accessMode, std::move(baseURL), std::move(host), firstHit));
}
