#include "identity/TavloUserAgent.h"

#include <algorithm>
#include <optional>

#include "tavlo/TavloVersion.h"

namespace {
const char* deviceWord(std::optional<int32_t> idiom) {
  if (idiom == TavloUserInterfaceIdiomPad) return "ipad";
  if (idiom == TavloUserInterfaceIdiomTV) return "tv";
  return "iphone";
}
}  // namespace

std::string TavloUserAgentOf(TavloDeviceInfo& deviceInfo) {
  // A header cannot carry control characters: a name or version holding one (a line
  // feed would start a header of its own) would make every request unsendable.
  const auto headerSafe = [](std::string text) {
    std::replace_if(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
    return text;
  };
  return headerSafe(deviceInfo.bundleName().value_or("(null)")) + "/" +
         headerSafe(deviceInfo.bundleVersion().value_or("(null)")) + " Tavlo SDK v" + TavloVersionString + " apple " +
         deviceWord(deviceInfo.userInterfaceIdiom());
}
