#include "request/TavloRecordClasses.h"

#include "auth/TavloAccess.h"
#include "auth/TavloAuth.h"
#include "auth/TavloSession.h"
#include "identity/TavloTaggerID.h"
#include "request/TavloClearCache.h"
#include "request/TavloRequest.h"

const TavloClassTable& TavloRecordClasses() {
  static const TavloClassTable* const classes = new TavloClassTable{
      {"TavloRequest", &TavloRequest::initWithCoder},   {"TavloClearCache", &TavloClearCache::initWithCoder},
      {"TavloTaggerID", &TavloTaggerID::initWithCoder}, {"TavloAuth", &TavloAuth::initWithCoder},
      {"TavloAccess", &TavloAccess::initWithCoder},     {"TavloSession", &TavloSession::initWithCoder},
  };
  return *classes;
}
