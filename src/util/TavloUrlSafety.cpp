#include "util/TavloUrlSafety.h"

namespace {

bool isAlphanumeric(unsigned char c) {
  return (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z');
}

// RFC 3986 "pchar" without percent-encoding: unreserved and sub-delimiters, ":" and "@".
bool isSegmentCharacter(unsigned char c) {
  return isAlphanumeric(c) || std::string_view("-._~!$&'()*+,;=:@").find(static_cast<char>(c)) != std::string_view::npos;
}

// Printable ASCII, minus the characters a URL never carries unescaped (blank, '"', "<",
// ">", "\", "^", "`", "{", "|", "}") and the two that would end the base address early.
bool isHostURLCharacter(unsigned char c) {
  if (c <= 0x20 || c >= 0x7F) return false;
  return std::string_view("\"<>\\^`{|}?#").find(static_cast<char>(c)) == std::string_view::npos;
}

}  // namespace

bool TavloIsUsableSerial(std::string_view serial) {
  if (serial.empty() || serial == "." || serial == "..") return false;
  for (unsigned char c : serial) {
    if (!isSegmentCharacter(c)) return false;
  }
  return true;
}

bool TavloIsUsableHostURL(std::string_view host) {
  std::string_view rest;
  if (host.starts_with("http://")) {
    rest = host.substr(7);
  } else if (host.starts_with("https://")) {
    rest = host.substr(8);
  } else {
    return false;
  }
  if (rest.empty() || rest.front() == '/') return false;  // no authority: no server to send to
  for (unsigned char c : rest) {
    if (!isHostURLCharacter(c)) return false;
  }
  return true;
}
