// What an audience tagger keeps besides its properties, and the ways the library (and its
// tests) make one on a given agent and read its identity.
#pragma once

#include <memory>

#include "tavlo/TavloAudienceTagger.h"

class TavloAgent;
class TavloTaggerID;

class TavloAudienceTagger::Impl {
 public:
  /// The tagger for `serial` and `customerData` on `agent`, made and registered there on
  /// first use; null without an agent.
  static std::shared_ptr<TavloAudienceTagger> make(const std::shared_ptr<TavloAgent>& agent, TavloString serial,
                                                   TavloString customerData);
  static const std::shared_ptr<TavloTaggerID>& taggerID(const TavloAudienceTagger& tagger) {
    return tagger.impl_->taggerID_;
  }

  Impl(std::weak_ptr<TavloAgent> agent, std::shared_ptr<TavloTaggerID> taggerID)
      : agent_(std::move(agent)), taggerID_(std::move(taggerID)) {}

  const std::weak_ptr<TavloAgent> agent_;
  // Its serial, the audience partial identifier, not streaming.
  const std::shared_ptr<TavloTaggerID> taggerID_;
};

/// The audience tagger for `serial` and `customerData` on `agent`: what
/// TavloAudienceTaggerWithSerial does on the shared agent.
inline std::shared_ptr<TavloAudienceTagger> TavloAudienceTaggerOnAgent(const std::shared_ptr<TavloAgent>& agent,
                                                                       TavloString serial, TavloString customerData) {
  return TavloAudienceTagger::Impl::make(agent, std::move(serial), std::move(customerData));
}

/// The identity `tagger`'s hits carry and its authorisation is cached under.
inline const std::shared_ptr<TavloTaggerID>& TavloTaggerIDOf(const TavloAudienceTagger& tagger) {
  return TavloAudienceTagger::Impl::taggerID(tagger);
}
