#include "platform/TavloHttpDate.h"


#include <curl/curl.h>

std::optional<TavloDate> TavloParseHttpDate(const std::string& text) {
  if (text.empty() || text.size() > 256) return std::nullopt;
  const time_t parsed = curl_getdate(text.c_str(), nullptr);
  if (parsed == static_cast<time_t>(-1)) return std::nullopt;
  return static_cast<TavloDate>(parsed);
}
