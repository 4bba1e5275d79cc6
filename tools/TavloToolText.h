// Text the command-line tools print. A queue file is untrusted input: every string read
// from it may hold control characters, terminal escape sequences or bytes that are not
// UTF-8, and none of them may reach the terminal or a JSON reader as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "util/TavloText.h"  // TavloNextCodePoint

/// Appends `c` as a JSON/C-style escape, "\\u" and four upper-case hexadecimal digits.
void TavloAppendUnicodeEscape(std::string& out, char32_t c);

/// `text` between double quotes, safe for a terminal: printable characters as they are,
/// `"` and `\` behind a backslash, \n \r \t, other C0 and C1 controls and DEL as \u00XX,
/// and each byte of malformed UTF-8 as \xNN (so nothing the file held is hidden).
std::string TavloPrintable(std::string_view text);

/// A date as ISO 8601 in UTC, "2023-11-14T22:13:20Z", with milliseconds when the date has
/// a fraction of a second ("...:20.500Z"). Nothing for dates outside years 1 to 9999.
std::optional<std::string> TavloISO8601(double secondsSince1970);

/// The shortest decimal text that reads back as `value` ("1700000000.5", "978307200",
/// "1e+300"). Only for finite values.
std::string TavloShortestNumber(double value);
