#include "TavloDemoHit.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Control characters and DEL would move the cursor or recolour the terminal.
std::string printable(const std::string& text) {
  std::string shown = text;
  for (char& c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) c = '?';
  }
  return shown;
}

// The values present among `keys`, joined by " / ".
std::string joined(const TavloDemoHit& hit, const std::vector<const char*>& keys) {
  std::string text;
  for (const char* key : keys) {
    const auto value = hit.parameter(key);
    if (!value || value->empty()) continue;
    if (!text.empty()) text += " / ";
    text += *value;
  }
  return text;
}

}  // namespace

std::string TavloDemoHit::percentDecoded(const std::string& text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

TavloDemoHit TavloDemoHit::fromURL(const std::string& url) {
  TavloDemoHit hit;
  std::string rest = url;
  const size_t scheme = rest.find("://");
  if (scheme != std::string::npos) {
    const size_t path = rest.find('/', scheme + 3);
    rest = path == std::string::npos ? std::string("/") : rest.substr(path);
  }
  const size_t question = rest.find('?');
  const std::string path = rest.substr(0, question);
  hit.serial = percentDecoded(path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1));
  if (question == std::string::npos) return hit;

  const std::string query = rest.substr(question + 1);
  size_t start = 0;
  while (start <= query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(start, end - start);
    const size_t equals = pair.find('=');
    if (!pair.empty()) {
      hit.parameters[percentDecoded(pair.substr(0, equals))] =
          equals == std::string::npos ? std::string() : percentDecoded(pair.substr(equals + 1));
    }
    start = end + 1;
  }
  hit.kind = hit.parameters.count("cmsEV") ? Streaming : Audience;
  return hit;
}

std::optional<std::string> TavloDemoHit::parameter(const std::string& key) const {
  const auto found = parameters.find(key);
  if (found == parameters.end()) return std::nullopt;
  return found->second;
}

std::optional<long> TavloDemoHit::rank() const {
  const auto text = parameter("cmsRK");
  if (!text || text->empty()) return std::nullopt;
  char* end = nullptr;
  const long value = std::strtol(text->c_str(), &end, 10);
  if (*end != '\0') return std::nullopt;
  return value;
}

const char* TavloDemoHit::kindName() const {
  switch (kind) {
    case Audience:
      return "audience";
    case Streaming:
      return "streaming";
    case Authorisation:
      break;
  }
  return "authorisation";
}

std::string TavloDemoHit::eventName() const {
  if (kind == Audience) return "screen";
  if (kind == Authorisation) return "authorise";
  const std::string code = parameter("cmsPS").value_or("");
  std::string event = code == "5" ? "play" : code == "7" ? "pause" : code == "12" ? "stop" : "code " + code;
  if (parameter("cmsEV") == "polling") event = "poll, " + event;
  return event;
}

std::string TavloDemoHit::header() {
  char line[128];
  std::snprintf(line, sizeof line, "%9s  %-13s  %-11s  %-6s  %-8s  %-8s  %s", "time", "kind", "event", "rank", "position",
                "previous", "levels");
  return line;
}

std::string TavloDemoHit::describe(double seconds) const {
  char head[96];
  std::snprintf(head, sizeof head, "%8.1fs  %-13s  %-11s", seconds, kindName(), eventName().c_str());
  std::string line = head;
  if (kind == Authorisation) return printable(line + "  serial " + serial);
  if (kind == Audience) {
    char columns[64];
    std::snprintf(columns, sizeof columns, "  %-6s  %-8s  %-8s  ", "", "", "");
    return printable(line + columns + joined(*this, {"c", "p", "l3", "l4"}));
  }
  char columns[96];
  std::snprintf(columns, sizeof columns, "  %-6s  %-8s  %-8s  ", parameter("cmsRK").value_or("?").c_str(),
                parameter("cmsPO").value_or("?").c_str(), parameter("cmsOP").value_or("?").c_str());
  std::string levels = joined(*this, {"cmsS3", "cmsS2", "cmsS1", "cmsS4", "cmsS5"});
  if (const auto name = parameter("cmsSN")) levels += (levels.empty() ? "\"" : "  \"") + *name + "\"";
  return printable(line + columns + levels);
}
