#include "archive/TavloBinaryPlistReader.h"

#include <cstring>

namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

bool fail(std::string* error, const char* why) {
  if (error != nullptr) *error = why;
  return false;
}

// Appends `c` to `out` as UTF-8.
template <class Sink>
void encodeUTF8(char32_t c, Sink&& out) {
  if (c < 0x80) {
    out(static_cast<char>(c));
  } else if (c < 0x800) {
    out(static_cast<char>(0xC0 | (c >> 6)));
    out(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out(static_cast<char>(0xE0 | (c >> 12)));
    out(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out(static_cast<char>(0xF0 | (c >> 18)));
    out(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

// Calls `sink` with each code point of `units` big-endian UTF-16 units at `bytes`; an
// unpaired surrogate reads as U+FFFD. Stops early when `sink` answers false.
template <class Sink>
bool forEachUTF16CodePoint(const unsigned char* bytes, uint64_t units, Sink&& sink) {
  const auto unitAt = [bytes](uint64_t i) { return static_cast<char32_t>((bytes[2 * i] << 8) | bytes[2 * i + 1]); };
  for (uint64_t i = 0; i < units; ++i) {
    char32_t c = unitAt(i);
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < units && unitAt(i + 1) >= 0xDC00 && unitAt(i + 1) <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (unitAt(i + 1) - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    if (!sink(c)) return false;
  }
  return true;
}

}  // namespace

bool TavloBinaryPlistReader::open(std::string_view data, std::string* error) {
  bytes_ = reinterpret_cast<const unsigned char*>(data.data());
  objectCount_ = 0;
  if (data.size() < kHeaderSize || data.substr(0, kHeaderSize) != "bplist00") {
    return fail(error, "not a binary property list");
  }
  if (data.size() < kHeaderSize + kTrailerSize) return fail(error, "damaged binary property list: too short");
  const uint64_t tableEnd = data.size() - kTrailerSize;
  offsetWidth_ = bytes_[tableEnd + 6];
  refWidth_ = bytes_[tableEnd + 7];
  const uint64_t count = readUnsigned(tableEnd + 8, 8);
  top_ = readUnsigned(tableEnd + 16, 8);
  tableStart_ = readUnsigned(tableEnd + 24, 8);
  if (offsetWidth_ < 1 || offsetWidth_ > 8 || refWidth_ < 1 || refWidth_ > 8) {
    return fail(error, "damaged binary property list: bad field widths");
  }
  if (tableStart_ < kHeaderSize || tableStart_ > tableEnd) {
    return fail(error, "damaged binary property list: offset table out of range");
  }
  if (count == 0 || count > (tableEnd - tableStart_) / offsetWidth_) {
    return fail(error, "damaged binary property list: object count out of range of the offset table");
  }
  if (top_ >= count) return fail(error, "damaged binary property list: top object out of range");
  objectCount_ = count;
  return true;
}

uint64_t TavloBinaryPlistReader::readUnsigned(uint64_t position, unsigned width) const {
  // References and offsets of one or two bytes are the common case.
  if (width == 1) return bytes_[position];
  if (width == 2) return uint64_t{bytes_[position]} << 8 | bytes_[position + 1];
  uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value = (value << 8) | bytes_[position + i];
  return value;
}

// A length or count: the marker's low nibble, or 0xF and an integer object after it.
bool TavloBinaryPlistReader::readCount(uint64_t& position, uint8_t marker, uint64_t& count) const {
  count = marker & 0x0F;
  if (count != 0x0F) return true;
  if (position >= tableStart_) return false;
  const uint8_t countMarker = bytes_[position++];
  if ((countMarker & 0xF0) != 0x10 || (countMarker & 0x0F) > 3) return false;
  const unsigned width = 1u << (countMarker & 0x0F);
  if (tableStart_ - position < width) return false;
  count = readUnsigned(position, width);
  position += width;
  return true;
}

TavloBinaryPlistReader::Object TavloBinaryPlistReader::object(uint64_t index) const {
  Object object;
  if (index >= objectCount_) return object;
  const uint64_t offset = readUnsigned(tableStart_ + index * offsetWidth_, offsetWidth_);
  if (offset < kHeaderSize || offset >= tableStart_) return object;
  const uint8_t marker = bytes_[offset];
  uint64_t position = offset + 1;
  const uint64_t room = tableStart_ - position;  // bytes left in the object area
  const unsigned low = marker & 0x0F;

  const auto scalar = [&](Type type, uint64_t width) {
    if (width > room) return object;
    object.type = type;
    object.encoding = static_cast<uint8_t>(width);
    object.position = position;
    return object;
  };
  const auto counted = [&](Type type, uint64_t unitBytes, uint8_t encoding) {
    uint64_t count = 0;
    if (!readCount(position, marker, count) || count > (tableStart_ - position) / unitBytes) return object;
    object.type = type;
    object.encoding = encoding;
    object.count = count;
    object.position = position;
    return object;
  };

  switch (marker >> 4) {
    case 0x0:
      if (marker == 0x00) return scalar(Type::Null, 0);
      if (marker == 0x08 || marker == 0x09) {
        object.type = Type::Boolean;
        object.encoding = marker & 1;
      }
      return object;
    case 0x1:
      return low <= 4 ? scalar(Type::Integer, uint64_t{1} << low) : object;
    case 0x2:
      return low == 2 || low == 3 ? scalar(Type::Real, uint64_t{1} << low) : object;
    case 0x3:
      return low == 3 ? scalar(Type::Date, 8) : object;
    case 0x4:
      return counted(Type::Data, 1, 0);
    case 0x5:
      return counted(Type::String, 1, 5);
    case 0x6:
      return counted(Type::String, 2, 6);
    case 0x7:
      return counted(Type::String, 1, 7);
    case 0x8:
      return low < 8 ? scalar(Type::UID, low + 1) : object;
    case 0xA:
      return counted(Type::Array, refWidth_, 0);
    case 0xB:
    case 0xC:
      return counted(Type::Set, refWidth_, 0);
    case 0xD:
      return counted(Type::Dictionary, 2 * uint64_t{refWidth_}, 0);
    default:
      return object;
  }
}

std::optional<uint64_t> TavloBinaryPlistReader::elementAt(const Object& container, uint64_t i) const {
  const bool isContainer =
      container.type == Type::Array || container.type == Type::Set || container.type == Type::Dictionary;
  if (!isContainer || i >= container.count) return std::nullopt;
  const uint64_t reference = readUnsigned(container.position + i * refWidth_, refWidth_);
  if (reference >= objectCount_) return std::nullopt;
  return reference;
}

std::optional<uint64_t> TavloBinaryPlistReader::valueAt(const Object& dictionary, uint64_t i) const {
  if (dictionary.type != Type::Dictionary || i >= dictionary.count) return std::nullopt;
  const uint64_t reference = readUnsigned(dictionary.position + (dictionary.count + i) * refWidth_, refWidth_);
  if (reference >= objectCount_) return std::nullopt;
  return reference;
}

std::optional<uint64_t> TavloBinaryPlistReader::valueForKey(const Object& dictionary, std::string_view key,
                                                            uint64_t* cursor) const {
  if (dictionary.type != Type::Dictionary || dictionary.count == 0) return std::nullopt;
  // The ASCII string `key` as it would be stored, marker and length first: compared with
  // each key's bytes in place.
  char stored[80];
  std::size_t storedSize = 0;
  if (key.size() < 15) {
    stored[storedSize++] = static_cast<char>(0x50 | key.size());
  } else if (key.size() <= sizeof stored - 3) {
    stored[storedSize++] = '\x5F';
    stored[storedSize++] = '\x10';
    stored[storedSize++] = static_cast<char>(key.size());
  }
  const bool fast = storedSize != 0;
  if (fast) {
    std::memcpy(stored + storedSize, key.data(), key.size());
    storedSize += key.size();
  }
  const uint64_t first = cursor != nullptr && *cursor < dictionary.count ? *cursor : 0;
  for (uint64_t n = 0, i = first; n < dictionary.count; ++n, i = i + 1 == dictionary.count ? 0 : i + 1) {
    const std::optional<uint64_t> keyIndex = keyAt(dictionary, i);
    if (!keyIndex) continue;
    const uint64_t offset = readUnsigned(tableStart_ + *keyIndex * offsetWidth_, offsetWidth_);
    if (offset < kHeaderSize || offset >= tableStart_) continue;
    const uint8_t marker = bytes_[offset];
    bool equal = false;
    if (fast && marker >> 4 == 0x5 && (marker & 0x0F) != 0x0F) {
      // A short ASCII key: its bytes decide.
      equal = tableStart_ - offset >= storedSize && std::memcmp(bytes_ + offset, stored, storedSize) == 0;
    } else if (fast && marker == 0x5F && tableStart_ - offset >= storedSize &&
               std::memcmp(bytes_ + offset, stored, storedSize) == 0) {
      equal = true;
    } else {
      // Other encodings of the same text (UTF-16, counts in wider integers).
      equal = stringEquals(object(*keyIndex), key);
    }
    if (equal) {
      if (cursor != nullptr) *cursor = i + 1;
      return valueAt(dictionary, i);
    }
  }
  return std::nullopt;
}

bool TavloBinaryPlistReader::boolValue(const Object& object) const {
  return object.type == Type::Boolean && object.encoding != 0;
}

uint64_t TavloBinaryPlistReader::integerBits(const Object& object) const {
  if (object.type != Type::Integer) return 0;
  // Of a 16-byte integer, the low eight bytes.
  if (object.encoding == 16) return readUnsigned(object.position + 8, 8);
  return readUnsigned(object.position, object.encoding);
}

double TavloBinaryPlistReader::realValue(const Object& object) const {
  if (object.type != Type::Real && object.type != Type::Date) return 0;
  if (object.encoding == 4) {
    const auto bits = static_cast<uint32_t>(readUnsigned(object.position, 4));
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }
  const uint64_t bits = readUnsigned(object.position, 8);
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

uint64_t TavloBinaryPlistReader::uidValue(const Object& object) const {
  return object.type == Type::UID ? readUnsigned(object.position, object.encoding) : 0;
}

bool TavloBinaryPlistReader::stringEquals(const Object& string, std::string_view utf8) const {
  if (string.type != Type::String) return false;
  const unsigned char* stored = bytes_ + string.position;
  if (string.encoding != 6) {
    return string.count == utf8.size() && std::memcmp(stored, utf8.data(), utf8.size()) == 0;
  }
  if (string.count > utf8.size()) return false;  // every unit makes at least one byte
  std::size_t matched = 0;
  bool same = true;
  const bool complete = forEachUTF16CodePoint(stored, string.count, [&](char32_t c) {
    encodeUTF8(c, [&](char byte) {
      same = same && matched < utf8.size() && utf8[matched] == byte;
      ++matched;
    });
    return same;
  });
  return complete && same && matched == utf8.size();
}

std::optional<std::string> TavloBinaryPlistReader::text(const Object& string) const {
  if (string.type != Type::String) return std::nullopt;
  const char* stored = reinterpret_cast<const char*>(bytes_ + string.position);
  if (string.encoding != 6) return std::string(stored, string.count);
  std::string result;
  result.reserve(string.count);
  forEachUTF16CodePoint(bytes_ + string.position, string.count, [&](char32_t c) {
    encodeUTF8(c, [&](char byte) { result += byte; });
    return true;
  });
  return result;
}

uint64_t TavloBinaryPlistReader::textSizeBound(const Object& string) const {
  if (string.type != Type::String) return 0;
  return string.encoding == 6 ? 3 * string.count : string.count;
}
