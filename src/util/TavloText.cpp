#include "util/TavloText.h"

#include <algorithm>

std::optional<char32_t> TavloNextCodePoint(std::string_view text, std::size_t& position) {
  if (position >= text.size()) return std::nullopt;
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byteAt(position);
  if (lead < 0x80) {
    ++position;
    return lead;
  }
  std::size_t length = 0;
  char32_t value = 0;
  // The range allowed for the second byte is narrower after some leads: that is what
  // rules out overlong forms (E0, F0), surrogates (ED) and values past U+10FFFF (F4).
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    value = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    value = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    ++position;
    return std::nullopt;
  }
  std::size_t next = position + 1;
  for (std::size_t k = 1; k < length; ++k, ++next) {
    if (next >= text.size() || byteAt(next) < low || byteAt(next) > high) {
      position = next;
      return std::nullopt;
    }
    value = (value << 6) | (byteAt(next) & 0x3F);
    low = 0x80;
    high = 0xBF;
  }
  position = next;
  return value;
}

bool TavloIsValidUTF8(std::string_view text) {
  for (size_t position = 0; position < text.size();) {
    if (!TavloNextCodePoint(text, position)) return false;
  }
  return true;
}

// Malformed bytes count one unit each, so damaged text is neither lengthened nor shortened.
size_t TavloUTF16Length(std::string_view text) {
  size_t units = 0;
  for (size_t position = 0; position < text.size();) {
    const size_t start = position;
    const std::optional<char32_t> c = TavloNextCodePoint(text, position);
    units += c ? (*c >= 0x10000 ? 2 : 1) : position - start;
  }
  return units;
}

std::string TavloUTF16Prefix(std::string_view text, size_t units) {
  size_t position = 0;
  size_t taken = 0;
  while (position < text.size() && taken < units) {
    const size_t start = position;
    const std::optional<char32_t> c = TavloNextCodePoint(text, position);
    if (!c) {
      // Malformed bytes are kept, one unit each, as far as the budget goes.
      const size_t kept = std::min(position - start, units - taken);
      taken += kept;
      position = start + kept;
      continue;
    }
    const size_t width = *c >= 0x10000 ? 2 : 1;
    if (taken + width > units) {
      return std::string(text.substr(0, start)) + "\xEF\xBF\xBD";  // half a surrogate pair
    }
    taken += width;
  }
  return std::string(text.substr(0, position));
}

std::string TavloPercentEscape(std::string_view text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(text.size() * 3);
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    const bool unreserved = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                            c == '.' || c == '_' || c == '~';
    if (unreserved) {
      escaped += ch;
    } else {
      escaped += '%';
      escaped += kHex[c >> 4];
      escaped += kHex[c & 0xF];
    }
  }
  return escaped;
}

int64_t TavloLeadingInteger(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r')) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  uint64_t magnitude = 0;
  const uint64_t limit = negative ? (uint64_t{1} << 63) : (uint64_t{1} << 63) - 1;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const auto digit = static_cast<uint64_t>(text[i] - '0');
    if (magnitude > (limit - digit) / 10) {
      magnitude = limit;
      break;
    }
    magnitude = magnitude * 10 + digit;
  }
  if (negative) return magnitude == limit ? INT64_MIN : -static_cast<int64_t>(magnitude);
  return static_cast<int64_t>(magnitude);
}

bool TavloIsURLSafeText(std::string_view text) {
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c <= 0x20 || c >= 0x7F || std::string_view("\"<>\\^`{|}").find(ch) != std::string_view::npos) return false;
  }
  return true;
}

std::string TavloReplacingInvalidUTF8(std::string_view text) {
  static constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD";  // U+FFFD
  std::string repaired;
  for (std::size_t position = 0; position < text.size();) {
    const std::size_t start = position;
    const std::optional<char32_t> c = TavloNextCodePoint(text, position);
    if (c && *c != 0) {
      repaired.append(text, start, position - start);
    } else {
      for (std::size_t i = start; i < position; ++i) repaired += kReplacementCharacter;
    }
  }
  return repaired;
}
