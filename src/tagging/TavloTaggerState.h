// The state behind TavloTagger's accessors, for the library's own taggers.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "tavlo/TavloTagger.h"
#include "tavlo/TavloTypes.h"
#include "util/TavloLocked.h"

/// The read-write properties a hit carries, read together under one lock: a hit pays for
/// one lock instead of one per property, and never mixes old and new values.
struct TavloHitProperties {
  bool useIDFA = false;
  std::array<TavloString, TavloTagger::kNewLevelCount> newLevels;  // levels 1 ... 11
  TavloString mediaContentId;
  TavloString mediaDiffMode;
  TavloString mediaChannel;
  TavloString netMeasurement;
};

/// Every property of a tagger. Serial and customer data are fixed at creation; the rest
/// is guarded by `mutex`, so a hit built on one thread while another changes a level sees
/// either the old or the new value, never a torn one.
class TavloTagger::State {
 public:
  State(TavloString serial, TavloString customerData)
      : serial(std::move(serial)), customerData(std::move(customerData)) {}

  /// The properties as they are now.
  TavloHitProperties hitProperties() const { return TavloLockedRead(mutex, properties); }
  /// Level `index` (1 ... 11); nothing outside that range.
  TavloString newLevel(int index) const {
    if (index < 1 || index > kNewLevelCount) return std::nullopt;
    return TavloLockedRead(mutex, properties.newLevels[index - 1]);
  }
  /// One text property, by its place in the hit's properties.
  TavloString read(TavloString TavloHitProperties::*field) const { return TavloLockedRead(mutex, properties.*field); }
  void write(TavloString TavloHitProperties::*field, TavloString value) {
    TavloLockedWrite(mutex, properties.*field, std::move(value));
  }
  /// Sets level `index` (1 ... 11).
  void setNewLevel(int index, TavloString level) {
    TavloLockedWrite(mutex, properties.newLevels[index - 1], std::move(level));
  }
  /// For the streaming tagger's set-up only: audience taggers leave it false.
  void setCanSend(bool value) { TavloLockedWrite(mutex, canSend, value); }

  const TavloString serial;
  const TavloString customerData;

  mutable std::mutex mutex;
  bool canSend = false;            // guarded by mutex
  int64_t loggingMode = 2;         // guarded by mutex
  TavloHitProperties properties;   // guarded by mutex
};
