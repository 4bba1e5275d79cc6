#include "auth/TavloSession.h"

#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"

namespace {
const std::string kSerialKey = "TavloSesion_serial";
const std::string kCmsVIKey = "TavloSesion_cmsVI";
}  // namespace

std::shared_ptr<TavloSession> TavloSession::TavloSessionWithSerial(TavloString serial, TavloString cmsVI) {
  return std::make_shared<TavloSession>(std::move(serial), std::move(cmsVI));
}

TavloSession::TavloSession(TavloString serial, TavloString cmsVI)
    : serial_(std::move(serial)), cmsVI_(std::move(cmsVI)) {}

std::shared_ptr<TavloSession> TavloSession::copy() const { return std::make_shared<TavloSession>(serial_, cmsVI_); }

std::vector<std::string> TavloSession::classChain() const { return {"TavloSession", "NSObject"}; }

void TavloSession::encodeWithCoder(TavloKeyedArchiver& coder) const {
  coder.encodeString(serial_, kSerialKey);
  coder.encodeString(cmsVI_, kCmsVIKey);
}

std::shared_ptr<TavloCodable> TavloSession::initWithCoder(TavloKeyedUnarchiver& coder) {
  return std::make_shared<TavloSession>(coder.decodeString(kSerialKey), coder.decodeString(kCmsVIKey));
}
