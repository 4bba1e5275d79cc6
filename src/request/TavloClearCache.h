// The queue marker that makes the agent clear the authorisation cache.
#pragma once

#include <memory>

#include "request/TavloRequest.h"

/// A field-less request the agent appends to its queue after a restart: once the
/// requests queued before it are handled, the authorisation cache is cleared. Any two
/// markers are equal, so "does the queue hold a marker" is a membership test with a fresh
/// one. Its request type reads 0 (audience), like every other field left at zero.
class TavloClearCache final : public TavloRequest {
 public:
  static std::shared_ptr<TavloClearCache> make();
  TavloClearCache() = default;

  bool isClearCacheMarker() const override { return true; }
  std::shared_ptr<TavloRequest> copy() const override;
  /// True when `other` is a marker too, whatever its fields.
  bool isEqual(const TavloRequest& other) const override;

  /// Ignores the archive: a marker has nothing to read.
  static std::shared_ptr<TavloCodable> initWithCoder(TavloKeyedUnarchiver& coder);
  std::vector<std::string> classChain() const override;
  /// Writes nothing.
  void encodeWithCoder(TavloKeyedArchiver& coder) const override;
};
