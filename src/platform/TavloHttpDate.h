// Reading the "Date" header of an HTTP response.
#pragma once

#include <optional>
#include <string>

#include "tavlo/TavloTypes.h"

/// The moment an HTTP date names ("Sun, 06 Nov 1994 08:49:37 GMT"), or nothing when the
/// text is not a date. Accepts the three formats HTTP allows, and the zone names and
/// numeric offsets they carry.
std::optional<TavloDate> TavloParseHttpDate(const std::string& text);
