#include "util/TavloLogSafe.h"

#include <cstddef>

namespace {

void appendEscape(std::string& out, unsigned codePoint) {
  static constexpr char digits[] = "0123456789ABCDEF";
  out += "\\u";
  for (int shift = 12; shift >= 0; shift -= 4) out += digits[(codePoint >> shift) & 0xF];
}

// The code point to escape at `position`, and its length in bytes; 0 when the byte
// there starts nothing to escape. Works on the UTF-8 bytes directly: the characters
// concerned are all one, two or three bytes long.
std::size_t escapedAt(std::string_view text, std::size_t position, unsigned& codePoint) {
  const auto byte = [&](std::size_t offset) {
    return position + offset < text.size() ? static_cast<unsigned char>(text[position + offset]) : 0u;
  };
  const unsigned first = byte(0);
  if (first < 0x20 || first == 0x7F) {
    codePoint = first;
    return 1;
  }
  if (first == 0xC2 && byte(1) >= 0x80 && byte(1) <= 0x9F) {  // U+0080..U+009F
    codePoint = byte(1);
    return 2;
  }
  if (first == 0xE2 && (byte(1) == 0x80 || byte(1) == 0x81)) {
    codePoint = 0x2000 | ((byte(1) & 0x3F) << 6) | (byte(2) & 0x3F);
    const bool separatorOrOverride = codePoint >= 0x2028 && codePoint <= 0x202E;  // U+2028, U+2029, U+202A..E
    const bool isolate = codePoint >= 0x2066 && codePoint <= 0x2069;
    if ((byte(2) & 0xC0) == 0x80 && (separatorOrOverride || isolate)) return 3;
  }
  return 0;
}

}  // namespace

std::string TavloLogSafe(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    unsigned codePoint = 0;
    const std::size_t length = escapedAt(text, position, codePoint);
    if (length == 0) {
      out += text[position++];
      continue;
    }
    position += length;
    switch (codePoint) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        appendEscape(out, codePoint);
    }
  }
  return out;
}
