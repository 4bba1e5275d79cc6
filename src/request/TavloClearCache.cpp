#include "request/TavloClearCache.h"

std::shared_ptr<TavloClearCache> TavloClearCache::make() { return std::make_shared<TavloClearCache>(); }

std::shared_ptr<TavloRequest> TavloClearCache::copy() const { return make(); }

bool TavloClearCache::isEqual(const TavloRequest& other) const { return other.isClearCacheMarker(); }

std::shared_ptr<TavloCodable> TavloClearCache::initWithCoder(TavloKeyedUnarchiver& /*coder*/) { return make(); }

std::vector<std::string> TavloClearCache::classChain() const {
  return {"TavloClearCache", "TavloRequest", "NSObject"};
}

void TavloClearCache::encodeWithCoder(TavloKeyedArchiver& /*coder*/) const {}
