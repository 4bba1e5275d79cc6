// One request of the demo, read back from its URL, and the line the demo prints for it.
#pragma once

#include <optional>
#include <string>

#include "tavlo/TavloTypes.h"

/// What a request the library sent says about itself, read from its URL: a hit (its
/// path ends with the serial and it carries a query) or an authorisation exchange (the
/// serial alone, no query). Parameters are percent-decoded.
///
/// A plain value; its reader never fails: whatever cannot be read is left out.
struct TavloDemoHit {
  enum Kind { Authorisation, Audience, Streaming };

  Kind kind = Authorisation;
  /// The last segment of the path: the serial the request is for.
  std::string serial;
  TavloParameters parameters;

  /// Reads `url`: a whole URL ("http://host/m/web/serial?c=home") or only its path and
  /// query ("/m/web/serial?c=home"). Streaming hits are those that carry "cmsEV".
  static TavloDemoHit fromURL(const std::string& url);

  /// `text` with every "%XY" replaced by its byte; a "%" without two hexadecimal digits
  /// after it is kept as it is.
  static std::string percentDecoded(const std::string& text);

  /// The parameter, or nothing when absent.
  std::optional<std::string> parameter(const std::string& key) const;
  /// The streaming rank ("cmsRK") as a number, or nothing.
  std::optional<long> rank() const;
  /// "audience", "streaming" or "authorisation".
  const char* kindName() const;
  /// What the hit reports: "screen" for an audience hit; for a streaming one the event of
  /// its "cmsPS" code (5 "play", 7 "pause", 12 "stop", else "code N"), as "poll, play"
  /// (playing) or "poll, pause" (paused) when it is a polling hit ("cmsEV" "polling").
  std::string eventName() const;
  /// One readable line, without a line feed: `seconds` (demo time), kind, event, rank,
  /// position and previous position, the levels and, for streaming, the medium's name.
  /// Characters that could disturb a terminal are shown as "?".
  std::string describe(double seconds) const;
  /// The titles of describe()'s columns.
  static std::string header();
};
