#include "auth/TavloAuth.h"

#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"

namespace {
const std::string kAccessKey = "TavloAuth_currentAccess";
const std::string kSessionKey = "TavloAuth_currentSession";
const std::string kDefaultValuesKey = "TavloAuth_defaultValues";
}  // namespace

std::shared_ptr<TavloAuth> TavloAuth::TavloAuthWithSession(std::shared_ptr<TavloSession> session,
                                                           std::shared_ptr<TavloAccess> access, bool isDefault) {
  return std::make_shared<TavloAuth>(std::move(session), std::move(access), isDefault);
}

// The flag is deliberately not stored: see the class comment.
TavloAuth::TavloAuth(std::shared_ptr<TavloSession> session, std::shared_ptr<TavloAccess> access, bool /*isDefault*/)
    : currentSession_(std::move(session)), currentAccess_(std::move(access)) {}

std::shared_ptr<TavloAuth> TavloAuth::copy() const {
  return std::make_shared<TavloAuth>(currentSession_, currentAccess_, defaultValues_);
}

std::vector<std::string> TavloAuth::classChain() const { return {"TavloAuth", "NSObject"}; }

void TavloAuth::encodeWithCoder(TavloKeyedArchiver& coder) const {
  coder.encodeObject(currentAccess_.get(), kAccessKey);
  coder.encodeObject(currentSession_.get(), kSessionKey);
  coder.encodeBool(defaultValues_, kDefaultValuesKey);
}

std::shared_ptr<TavloCodable> TavloAuth::initWithCoder(TavloKeyedUnarchiver& coder) {
  auto access = coder.decodeObjectOfClass<TavloAccess>(kAccessKey);
  auto session = coder.decodeObjectOfClass<TavloSession>(kSessionKey);
  auto auth = std::make_shared<TavloAuth>(std::move(session), std::move(access), false);
  auth->defaultValues_ = coder.decodeBool(kDefaultValuesKey);
  return auth;
}
