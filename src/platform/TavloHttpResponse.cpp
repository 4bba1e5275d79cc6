#include <algorithm>

#include "tavlo/platform/TavloHttpClient.h"

namespace {

// Header names are ASCII tokens; comparing bytes keeps the locale out of it.
char lowerASCII(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameName(const std::string& a, const std::string& b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lowerASCII(x) == lowerASCII(y); });
}

}  // namespace

std::optional<std::string> TavloHttpResponse::header(const std::string& name) const {
  for (const auto& [headerName, value] : headers) {
    if (sameName(headerName, name)) return value;
  }
  return std::nullopt;
}
