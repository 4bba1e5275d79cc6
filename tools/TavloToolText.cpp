#include "TavloToolText.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "tagging/TavloCalendar.h"

namespace {

// Dates a four-digit year can show: 0001-01-01T00:00:00Z up to the end of 9999.
constexpr double kFirstShownDate = -62135596800.0;
constexpr double kEndOfShownDates = 253402300800.0;

int64_t floorDivide(int64_t value, int64_t divisor) {
  const int64_t quotient = value / divisor;
  return (value % divisor != 0 && value < 0) ? quotient - 1 : quotient;
}

void appendEscapedCodePoint(std::string& out, char32_t c) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(c));
  out += escape;
}

// Characters that would act on the terminal or hide the text around them: C0 and C1
// controls, DEL, and the bidirectional overrides and isolates that reorder what is shown.
bool isInvisibleControl(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

void appendUTF8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

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

std::string TavloPrintable(std::string_view text) {
  std::string out = "\"";
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t start = position;
    const std::optional<char32_t> c = TavloNextCodePoint(text, position);
    if (!c) {
      for (std::size_t i = start; i < position; ++i) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(text[i]));
        out += escape;
      }
    } else if (*c == '"' || *c == '\\') {
      out += '\\';
      out += static_cast<char>(*c);
    } else if (*c == '\n') {
      out += "\\n";
    } else if (*c == '\r') {
      out += "\\r";
    } else if (*c == '\t') {
      out += "\\t";
    } else if (isInvisibleControl(*c)) {
      appendEscapedCodePoint(out, *c);
    } else {
      appendUTF8(out, *c);
    }
  }
  out += '"';
  return out;
}

std::optional<std::string> TavloISO8601(double secondsSince1970) {
  if (!std::isfinite(secondsSince1970) || secondsSince1970 < kFirstShownDate ||
      secondsSince1970 >= kEndOfShownDates) {
    return std::nullopt;
  }
  // Rounded to the millisecond first, so 0.1 s shows as .100 and not as .099.
  const auto milliseconds = static_cast<int64_t>(std::llround(secondsSince1970 * 1000.0));
  const int64_t seconds = floorDivide(milliseconds, 1000);
  const int64_t fraction = milliseconds - seconds * 1000;
  const int64_t days = floorDivide(seconds, 86400);
  const int64_t secondOfDay = seconds - days * 86400;
  const TavloCivilDate date = TavloCivilDateFromDays(days);
  if (date.year < 1 || date.year > 9999) return std::nullopt;  // rounding up past the last shown date

  char text[40];
  int length = std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02lld:%02lld:%02lld",
                             static_cast<long long>(date.year), date.month, date.day,
                             static_cast<long long>(secondOfDay / 3600), static_cast<long long>(secondOfDay / 60 % 60),
                             static_cast<long long>(secondOfDay % 60));
  if (fraction != 0) {
    length += std::snprintf(text + length, sizeof text - static_cast<std::size_t>(length), ".%03lld",
                            static_cast<long long>(fraction));
  }
  return std::string(text, static_cast<std::size_t>(length)) + "Z";
}

std::string TavloShortestNumber(double value) {
  char text[64];
  const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
  return std::string(text, result.ptr);
}
