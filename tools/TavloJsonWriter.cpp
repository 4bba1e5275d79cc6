#include "TavloJsonWriter.h"

#include <cmath>
#include <cstdio>

#include "TavloToolText.h"

std::string TavloJsonWriter::quoted(std::string_view text) {
  std::string out = "\"";
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t start = position;
    const std::optional<char32_t> c = TavloNextCodePoint(text, position);
    if (!c) {
      TavloAppendUnicodeEscape(out, 0xFFFD);
    } else if (*c == '"') {
      out += "\\\"";
    } else if (*c == '\\') {
      out += "\\\\";
    } else if (*c == '\n') {
      out += "\\n";
    } else if (*c == '\r') {
      out += "\\r";
    } else if (*c == '\t') {
      out += "\\t";
    } else if (*c == '\b') {
      out += "\\b";
    } else if (*c == '\f') {
      out += "\\f";
    } else if (*c < 0x20 || (*c >= 0x7F && *c <= 0x9F) || (*c >= 0x2028 && *c <= 0x202E) ||
               (*c >= 0x2066 && *c <= 0x2069)) {
      // Controls, line separators, and the bidirectional overrides and isolates, which
      // would reorder what a terminal shows of the JSON around them.
      TavloAppendUnicodeEscape(out, *c);
    } else {
      out.append(text.substr(start, position - start));  // well-formed: copied byte for byte
    }
  }
  out += '"';
  return out;
}

void TavloJsonWriter::beginValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (containerHasItems_.empty()) return;  // the top-level value
  if (containerHasItems_.back()) out_ += ',';
  containerHasItems_.back() = true;
  out_ += '\n';
  out_.append(2 * containerHasItems_.size(), ' ');
}

void TavloJsonWriter::open(char bracket) {
  beginValue();
  out_ += bracket;
  containerHasItems_.push_back(false);
}

void TavloJsonWriter::close(char bracket) {
  if (containerHasItems_.empty()) return;
  const bool hadItems = containerHasItems_.back();
  containerHasItems_.pop_back();
  if (hadItems) {
    out_ += '\n';
    out_.append(2 * containerHasItems_.size(), ' ');
  }
  out_ += bracket;
}

TavloJsonWriter& TavloJsonWriter::beginObject() {
  open('{');
  return *this;
}

TavloJsonWriter& TavloJsonWriter::endObject() {
  close('}');
  return *this;
}

TavloJsonWriter& TavloJsonWriter::beginArray() {
  open('[');
  return *this;
}

TavloJsonWriter& TavloJsonWriter::endArray() {
  close(']');
  return *this;
}

TavloJsonWriter& TavloJsonWriter::key(std::string_view name) {
  beginValue();
  out_ += quoted(name);
  out_ += ": ";
  afterKey_ = true;
  return *this;
}

TavloJsonWriter& TavloJsonWriter::string(std::string_view text) {
  beginValue();
  out_ += quoted(text);
  return *this;
}

TavloJsonWriter& TavloJsonWriter::stringOrNull(const TavloString& text) { return text ? string(*text) : null(); }

TavloJsonWriter& TavloJsonWriter::integer(int64_t value) {
  beginValue();
  out_ += std::to_string(value);
  return *this;
}

TavloJsonWriter& TavloJsonWriter::number(double value) {
  if (!std::isfinite(value)) return null();
  beginValue();
  out_ += TavloShortestNumber(value);
  return *this;
}

TavloJsonWriter& TavloJsonWriter::boolean(bool value) {
  beginValue();
  out_ += value ? "true" : "false";
  return *this;
}

TavloJsonWriter& TavloJsonWriter::null() {
  beginValue();
  out_ += "null";
  return *this;
}
