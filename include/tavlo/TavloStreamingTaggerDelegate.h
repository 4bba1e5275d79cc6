// Where a streaming tagger asks for the player's position.
#pragma once

#include <cstdint>
#include <optional>

#include "tavlo/TavloExport.h"

class TavloStreamingTagger;

/// Supplies the media player's current position to a streaming tagger of type
/// TavloStreamingTypeDelegatePosition, when an event is notified without one and once a
/// second while the medium is open. The position's unit is the application's choice
/// (seconds, usually); the tagger forwards the integers as they are.
///
/// The tagger holds its delegate weakly: the application owns it, and a delegate that
/// goes away simply stops supplying positions.
///
/// Threads: called on the thread that notifies an event and on the library's main queue
/// (polling), never with a library lock held, so the delegate may call the tagger back.
/// It should answer quickly and must not block on the thread that notifies events.
class TAVLO_EXPORT TavloStreamingTaggerDelegate {
 public:
  virtual ~TavloStreamingTaggerDelegate() = default;

  /// The current playing position, or nothing when this delegate does not supply
  /// positions at all: that is the answer of a delegate that does not override it, and
  /// the tagger then treats the position as unknown. What it throws counts as nothing.
  virtual std::optional<int64_t> currentPositionForStreamingTagger(TavloStreamingTagger& tagger) {
    (void)tagger;
    return std::nullopt;
  }
};
