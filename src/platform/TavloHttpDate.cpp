#include "platform/TavloHttpDate.h"

#include <cmath>
#include <ctime>

#include <curl/curl.h>

std::optional<TavloDate> TavloParseHttpDate(const std::string& text) {
  if (text.empty() || text.size() > 256) return std::nullopt;
  const time_t parsed = curl_getdate(text.c_str(), nullptr);
  if (parsed == static_cast<time_t>(-1)) return std::nullopt;
  return static_cast<TavloDate>(parsed);
}

std::string TavloFormatHttpDate(TavloDate date) {
  const auto seconds = static_cast<time_t>(std::floor(date));
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char buffer[64];
  std::strftime(buffer, sizeof buffer, "%a, %d %b %Y %H:%M:%S GMT", &utc);
  return buffer;
}
