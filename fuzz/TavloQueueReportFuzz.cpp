// Feeds arbitrary bytes to tavlo-queue's report, as a damaged or hostile requests.ser
// would reach it: the JSON it prints must parse as JSON whatever the file held, and the
// listing for people must hold nothing that would act on a terminal.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "TavloQueueReport.h"
#include "util/TavloText.h"

namespace {

// A strict reader of RFC 8259 JSON text that only answers whether it is well-formed.
class JsonChecker {
 public:
  explicit JsonChecker(std::string_view text) : text_(text) {}

  bool wholeText() {
    if (!value()) return false;
    blanks();
    return at_ == text_.size();
  }

 private:
  bool value() {
    blanks();
    if (at_ == text_.size()) return false;
    switch (text_[at_]) {
      case '{':
        return container('}', true);
      case '[':
        return container(']', false);
      case '"':
        return string();
      case 't':
        return literal("true");
      case 'f':
        return literal("false");
      case 'n':
        return literal("null");
      default:
        return number();
    }
  }

  bool container(char close, bool isObject) {
    ++at_;
    blanks();
    if (take(close)) return true;
    do {
      if (isObject) {
        blanks();
        if (at_ == text_.size() || text_[at_] != '"' || !string()) return false;
        blanks();
        if (!take(':')) return false;
      }
      if (!value()) return false;
      blanks();
    } while (take(','));
    return take(close);
  }

  bool string() {
    ++at_;
    while (at_ < text_.size()) {
      const auto c = static_cast<unsigned char>(text_[at_++]);
      if (c == '"') return true;
      if (c < 0x20) return false;
      if (c != '\\') continue;
      if (at_ == text_.size()) return false;
      const char escaped = text_[at_++];
      if (escaped == 'u') {
        for (int digit = 0; digit < 4; ++digit) {
          if (at_ == text_.size() || !std::isxdigit(static_cast<unsigned char>(text_[at_++]))) return false;
        }
      } else if (std::string_view("\"\\/bfnrt").find(escaped) == std::string_view::npos) {
        return false;
      }
    }
    return false;
  }

  bool number() {
    take('-');
    if (!take('0') && !digits()) return false;
    if (take('.') && !digits()) return false;
    if (take('e') || take('E')) {
      if (!take('+')) take('-');
      if (!digits()) return false;
    }
    return true;
  }

  bool digits() {
    const size_t start = at_;
    while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9') ++at_;
    return at_ > start;
  }

  bool literal(std::string_view word) {
    if (text_.substr(at_, word.size()) != word) return false;
    at_ += word.size();
    return true;
  }

  bool take(char c) {
    if (at_ == text_.size() || text_[at_] != c) return false;
    ++at_;
    return true;
  }

  void blanks() {
    while (at_ < text_.size() && std::string_view(" \t\n\r").find(text_[at_]) != std::string_view::npos) ++at_;
  }

  std::string_view text_;
  size_t at_ = 0;
};

bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); }

// What a JSON reader must not find raw in a string: controls, and the line and paragraph
// separators that end a JavaScript string literal.
bool inertInJson(char32_t c) { return c == '\n' || !(isControl(c) || c == 0x2028 || c == 0x2029); }

// What a terminal must not be sent, by the listing or by the JSON: controls (escape
// sequences start with one), and the bidirectional overrides and isolates that reorder
// the text shown around them.
bool inertOnTerminal(char32_t c) {
  return c == '\n' || !(isControl(c) || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069));
}

// Whether `text` is UTF-8 made of characters `inert` lets through only.
bool onlyInert(std::string_view text, bool (*inert)(char32_t)) {
  for (size_t position = 0; position < text.size();) {
    const std::optional<char32_t> c = TavloNextCodePoint(text, position);
    if (!c || !inert(*c)) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const TavloQueueReport report =
      TavloQueueReport::fromData(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!report.isReadable() && (report.problems().empty() || !report.elements().empty())) __builtin_trap();

  const std::string json = report.json("requests.ser");
  if (!JsonChecker(json).wholeText() || !json.ends_with("\n") || !onlyInert(json, inertInJson) ||
      !onlyInert(json, inertOnTerminal) ||
      json.find("\n  \"count\": " + std::to_string(report.elements().size()) + ",\n") == std::string::npos) {
    __builtin_trap();
  }

  const std::string text = report.text("requests.ser");
  if (!onlyInert(text, inertOnTerminal)) __builtin_trap();
  return 0;
}
