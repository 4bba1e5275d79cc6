// Feeds arbitrary text to the checks that stand between input and a request target or a
// log line. Whatever a check lets through must be unable to bend what it becomes part of.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "util/TavloLogSafe.h"
#include "util/TavloUrlSafety.h"

namespace {

bool holdsAnyOf(std::string_view text, std::string_view characters) {
  return text.find_first_of(characters) != std::string_view::npos;
}

bool holdsControlOrBlank(std::string_view text) {
  for (const unsigned char c : text) {
    if (c <= 0x20 || c == 0x7f) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  // A serial stands as one path segment: nothing that leaves, ends or escapes it.
  if (TavloIsUsableSerial(text) &&
      (text.empty() || text == "." || text == ".." || holdsAnyOf(text, "/?#%\\") || holdsControlOrBlank(text))) {
    __builtin_trap();
  }

  // A collection host starts an absolute http(s) URL whose query is the hit's own.
  if (TavloIsUsableHostURL(text) &&
      (!(text.starts_with("http://") || text.starts_with("https://")) || holdsAnyOf(text, "?#") ||
       holdsControlOrBlank(text))) {
    __builtin_trap();
  }

  // An escaped text never starts a line of its own, and escaping twice changes nothing.
  const std::string safe = TavloLogSafe(text);
  if (holdsAnyOf(safe, "\n\r") || TavloLogSafe(safe) != safe) __builtin_trap();
  return 0;
}
