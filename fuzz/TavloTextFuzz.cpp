// Feeds arbitrary bytes to the text helpers every parameter value goes through: the first
// byte is a budget of UTF-16 units, the rest is the text. Values come from applications
// and queue files, so they may be any bytes at all; what the helpers make of them goes
// into hits, which must stay valid UTF-8, within their length and unbendable as URLs.
#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "util/TavloText.h"

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

size_t encodedLength(char32_t c) { return c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;  // lower case is not what the escaping writes
}

// The bytes an escaped text stands for, or nothing when it holds anything but unreserved
// characters and "%" with two upper-case hexadecimal digits.
std::optional<std::string> unescaped(std::string_view escaped) {
  std::string bytes;
  for (size_t i = 0; i < escaped.size(); ++i) {
    const char c = escaped[i];
    if (c == '%') {
      if (i + 2 >= escaped.size()) return std::nullopt;
      const int high = hexValue(escaped[i + 1]);
      const int low = hexValue(escaped[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      bytes += static_cast<char>(high * 16 + low);
      i += 2;
    } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
               c == '_' || c == '~') {
      bytes += c;
    } else {
      return std::nullopt;
    }
  }
  return bytes;
}

// The leading integer as the standard library reads the same digits, saturated.
int64_t leadingIntegerByFromChars(std::string_view text) {
  size_t start = text.find_first_not_of(" \t\n\r");
  if (start == std::string_view::npos) return 0;
  bool negative = false;
  if (text[start] == '+' || text[start] == '-') negative = text[start++] == '-';
  size_t end = start;
  while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
  const std::string number = (negative ? "-" : "") + std::string(text.substr(start, end - start));
  int64_t value = 0;
  const auto [stop, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  if (error == std::errc::result_out_of_range) {
    return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const size_t units = data[0];
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);

  // Each step moves on; a character is read only from its one shortest form, and a
  // damaged stretch is never longer than the start of a sequence.
  for (size_t position = 0; position < text.size();) {
    const size_t start = position;
    const std::optional<char32_t> c = TavloNextCodePoint(text, position);
    if (position <= start || position > text.size()) __builtin_trap();
    if (c ? (*c > 0x10FFFF || (*c >= 0xD800 && *c <= 0xDFFF) || position - start != encodedLength(*c))
          : position - start > 3) {
      __builtin_trap();
    }
  }
  const bool valid = TavloIsValidUTF8(text);

  // Repairing yields UTF-8 without NUL, leaves such text alone, and is done once for all.
  const std::string repaired = TavloReplacingInvalidUTF8(text);
  if (!TavloIsValidUTF8(repaired) || repaired.find('\0') != std::string::npos ||
      TavloReplacingInvalidUTF8(repaired) != repaired ||
      (repaired == text) != (valid && text.find('\0') == std::string_view::npos)) {
    __builtin_trap();
  }

  // A cut keeps within the budget and is the text's own start, except for the one
  // replacement that stands for half a surrogate pair. Text that was valid stays valid
  // and takes the whole budget, or all of itself.
  const size_t length = TavloUTF16Length(text);
  if (TavloUTF16Prefix(text, length) != text) __builtin_trap();
  const std::string prefix = TavloUTF16Prefix(text, units);
  const size_t prefixLength = TavloUTF16Length(prefix);
  if (prefixLength > units) __builtin_trap();
  if (!text.starts_with(prefix)) {
    const std::string_view kept =
        std::string_view(prefix).substr(0, prefix.size() - std::min(prefix.size(), kReplacement.size()));
    size_t position = kept.size();
    const std::optional<char32_t> cut = TavloNextCodePoint(text, position);
    if (!prefix.ends_with(kReplacement) || !text.starts_with(kept) || !cut || *cut < 0x10000 || prefixLength != units) {
      __builtin_trap();
    }
  }
  if (valid && (!TavloIsValidUTF8(prefix) || prefixLength != std::min(units, length))) __builtin_trap();

  // Escaping leaves only unreserved characters and %XX, safe in any URL, and undoes exactly.
  const std::string escaped = TavloPercentEscape(text);
  if (!TavloIsURLSafeText(escaped) || unescaped(escaped) != text) __builtin_trap();

  if (TavloLeadingInteger(text) != leadingIntegerByFromChars(text)) __builtin_trap();
  return 0;
}
