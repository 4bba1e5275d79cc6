// Text helpers: the library's strings are UTF-8, but lengths and cuts of parameter values
// count UTF-16 code units, as the platforms the library first ran on count them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Reads one character of `text` at `position` and moves `position` past it. A
/// well-formed UTF-8 sequence gives its code point. Anything else (a stray continuation
/// byte, an overlong form, a surrogate, a value above U+10FFFF, a sequence cut short)
/// gives nothing and skips the longest start of a valid sequence found there, at least one
/// byte: the "maximal subpart" rule, so each damaged stretch becomes one replacement.
std::optional<char32_t> TavloNextCodePoint(std::string_view text, std::size_t& position);

/// Whether `text` is well-formed UTF-8 (no overlongs, no surrogates, nothing above U+10FFFF).
bool TavloIsValidUTF8(std::string_view text);

/// `text` with every byte that does not decode, and every NUL, replaced by U+FFFD, so a
/// reader that decodes strictly (or cuts at NUL) keeps the rest of the text.
std::string TavloReplacingInvalidUTF8(std::string_view text);

/// The length of `text` in UTF-16 code units: one per character below U+10000, two above.
/// Bytes that are not well-formed UTF-8 count one unit each.
size_t TavloUTF16Length(std::string_view text);

/// The first `units` UTF-16 code units of `text`, as UTF-8. When the cut falls between the
/// two halves of a surrogate pair (a character above U+FFFF), the lone first half has no
/// UTF-8 form; it becomes U+FFFD, the replacement character, so the result stays valid
/// UTF-8 and takes exactly `units` units. Malformed bytes are kept one unit each.
std::string TavloUTF16Prefix(std::string_view text, size_t units);

/// Percent-escapes every byte except ASCII letters, digits, "-", ".", "_" and "~", as
/// "%" and two upper-case hexadecimal digits. Works byte by byte, so malformed UTF-8 and
/// control characters are escaped too, never dropped.
std::string TavloPercentEscape(std::string_view text);

/// The leading integer of `text` as a number reads it: optional blanks, an optional sign,
/// decimal digits; 0 when there are none; saturated at the 64-bit limits.
int64_t TavloLeadingInteger(std::string_view text);

/// Whether `text` can stand in a URL as it is: printable ASCII only, and none of the
/// characters URLs never carry unescaped (blank, double quote, "<", ">", backslash, "^",
/// backquote, "{", "|", "}").
bool TavloIsURLSafeText(std::string_view text);
