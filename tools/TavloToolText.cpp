#include "TavloToolText.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "util/TavloCalendar.h"

namespace {

// Dates a four-digit year can show: 0001-01-01T00:00:00Z up to the end of 9999.
constexpr double kFirstShownDate = -62135596800.0;
constexpr double kEndOfShownDates = 253402300800.0;

int64_t floorDivide(int64_t value, int64_t divisor) {
  const int64_t quotient = value / divisor;
  return (value % divisor != 0 && value < 0) ? quotient - 1 : quotient;
}

// Characters that would act on the terminal or hide the text around them: C0 and C1
// controls, DEL, and the bidirectional overrides and isolates that reorder what is shown.
bool isInvisibleControl(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

void TavloAppendUnicodeEscape(std::string& out, char32_t c) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(c));
  out += escape;
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
      TavloAppendUnicodeEscape(out, *c);
    } else {
      out.append(text.substr(start, position - start));  // well-formed: copied byte for byte
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
