// A small JSON writer for the tools' machine-readable output.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tavlo/TavloTypes.h"

/// Builds indented JSON text one token at a time, putting the commas and line breaks:
///
///   TavloJsonWriter json;
///   json.beginObject().key("count").integer(2).key("serial").string(serial).endObject();
///
/// Whatever the strings hold, the text is valid JSON (RFC 8259) in UTF-8: see quoted().
/// The writer trusts its caller to nest properly (a key before each value in an object,
/// every container closed); it is not a validator.
class TavloJsonWriter {
 public:
  TavloJsonWriter& beginObject();
  TavloJsonWriter& endObject();
  TavloJsonWriter& beginArray();
  TavloJsonWriter& endArray();
  TavloJsonWriter& key(std::string_view name);

  TavloJsonWriter& string(std::string_view text);
  /// A nil string is written as null, so nil and "" stay apart.
  TavloJsonWriter& stringOrNull(const TavloString& text);
  TavloJsonWriter& integer(int64_t value);
  /// Infinities and NaN, which JSON has no number for, are written as null.
  TavloJsonWriter& number(double value);
  TavloJsonWriter& boolean(bool value);
  TavloJsonWriter& null();

  /// The text so far; complete once every container is closed. Ends without a newline.
  const std::string& text() const { return out_; }

  /// `text` as a JSON string literal. Well-formed UTF-8 is kept as it is; `"` and `\` are
  /// escaped, and so are all C0 controls, DEL, C1 controls and the line and paragraph
  /// separators (which some JavaScript readers choke on), as \n, \t... or \u00XX. Bytes
  /// that are not UTF-8 cannot appear in JSON text at all: each damaged stretch becomes
  /// one U+FFFD, written \uFFFD so a reader sees where the damage was.
  static std::string quoted(std::string_view text);

 private:
  void beginValue();
  void open(char bracket);
  void close(char bracket);

  std::string out_;
  std::vector<bool> containerHasItems_;  // one entry per open container
  bool afterKey_ = false;
};
