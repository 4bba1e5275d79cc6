// The identity every request carries.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "archive/TavloCodable.h"
#include "tavlo/TavloTypes.h"

class TavloKeyedUnarchiver;

/// Who made a request: the tagger's serial, a partial identifier that tells taggers of one
/// serial apart (audience taggers all use INT64_MAX, streaming taggers a process-wide
/// counter) and whether it is a streaming tagger. The authorisation cache is keyed by it.
///
/// Immutable once made, so it may be shared between threads freely.
class TavloTaggerID final : public TavloCodable {
 public:
  /// The partial identifier of every audience tagger.
  static constexpr int64_t kAudiencePartialID = INT64_MAX;

  TavloTaggerID(TavloString serial, int64_t partialID, bool isStreamTagger);

  const TavloString& serial() const { return serial_; }
  int64_t partialID() const { return partialID_; }
  bool isStreamTagger() const { return isStreamTagger_; }

  std::shared_ptr<TavloTaggerID> copy() const;

  /// Equal when the serials compare equal as strings (a nil serial on this side never
  /// does), and the partial identifiers and streaming flags are equal.
  bool isEqual(const TavloTaggerID& other) const;
  bool operator==(const TavloTaggerID& other) const { return isEqual(other); }

  /// 31^3 + 31^2 * hash(serial) + 31 * partialID + (1231 if streaming else 1237),
  /// wrapping unsigned 64-bit arithmetic; string hash as TavloStringHash.
  uint64_t hash() const;

  // Keyed archive.
  static std::shared_ptr<TavloCodable> initWithCoder(TavloKeyedUnarchiver& coder);
  std::vector<std::string> classChain() const override;
  void encodeWithCoder(TavloKeyedArchiver& coder) const override;

 private:
  const TavloString serial_;
  const int64_t partialID_;
  const bool isStreamTagger_;
};

template <>
struct std::hash<TavloTaggerID> {
  size_t operator()(const TavloTaggerID& id) const noexcept { return static_cast<size_t>(id.hash()); }
};
