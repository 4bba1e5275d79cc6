#include "tagging/TavloText.h"

bool TavloIsValidUTF8(std::string_view text) {
  size_t i = 0;
  const size_t n = text.size();
  while (i < n) {
    const auto c = static_cast<unsigned char>(text[i]);
    size_t length;
    char32_t codePoint;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      length = 2;
      codePoint = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3;
      codePoint = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4;
      codePoint = c & 0x07;
    } else {
      return false;
    }
    if (i + length > n) return false;
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    const char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < smallest[length] || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

namespace {
// Length in bytes of the well-formed UTF-8 sequence at `text[i]`, with its code point;
// 0 when the bytes there are malformed.
size_t sequenceAt(std::string_view text, size_t i, char32_t& codePoint) {
  const size_t rest = text.size() - i;
  size_t length = 1;
  while (length <= 4 && length <= rest) {
    if (TavloIsValidUTF8(text.substr(i, length))) break;
    ++length;
  }
  if (length > 4 || length > rest) return 0;
  const auto lead = static_cast<unsigned char>(text[i]);
  codePoint = length == 1 ? lead : lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) codePoint = (codePoint << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
  return length;
}
}  // namespace

size_t TavloUTF16Length(std::string_view text) {
  size_t units = 0;
  for (size_t i = 0; i < text.size();) {
    char32_t codePoint = 0;
    const size_t length = sequenceAt(text, i, codePoint);
    if (length == 0) {
      ++units;
      ++i;
      continue;
    }
    units += codePoint >= 0x10000 ? 2 : 1;
    i += length;
  }
  return units;
}

std::string TavloUTF16Prefix(std::string_view text, size_t units) {
  size_t i = 0;
  size_t taken = 0;
  while (i < text.size() && taken < units) {
    char32_t codePoint = 0;
    size_t length = sequenceAt(text, i, codePoint);
    const size_t width = (length != 0 && codePoint >= 0x10000) ? 2 : 1;
    if (length == 0) length = 1;
    if (taken + width > units) {
      return std::string(text.substr(0, i)) + "\xEF\xBF\xBD";  // half a surrogate pair
    }
    taken += width;
    i += length;
  }
  return std::string(text.substr(0, i));
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
