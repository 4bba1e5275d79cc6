#include "archive/TavloBinaryPlistWriter.h"

#include <cfloat>
#include <cmath>
#include <algorithm>
#include <limits>
#include <stdexcept>

namespace {

constexpr char kHeader[] = "bplist00";
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

// The width libplist gives a reference, an offset or a count: 3 bytes is a legal width
// for the first two, and integers round it up to 4.
unsigned neededBytes(uint64_t value) {
  if (value < (uint64_t{1} << 8)) return 1;
  if (value < (uint64_t{1} << 16)) return 2;
  if (value < (uint64_t{1} << 24)) return 3;
  if (value < (uint64_t{1} << 32)) return 4;
  return 8;
}
unsigned integerBytes(uint64_t value) {
  const unsigned width = neededBytes(value);
  return width == 3 ? 4 : width;
}
unsigned log2Of(unsigned width) { return width == 8 ? 3 : width == 4 ? 2 : width == 2 ? 1 : 0; }

void putBigEndian(char* at, uint64_t value, unsigned width) {
  for (unsigned i = width; i-- > 0;) {
    at[i] = static_cast<char>(value & 0xFF);
    value >>= 8;
  }
}
// A fixed-width store is a fraction of the cost of a loop over the bytes, and every
// reference of a file has the same width.
template <unsigned kWidth>
void putReferences(char* to, const uint32_t* references, std::size_t count, std::size_t stride) {
  for (std::size_t k = 0; k < count; ++k, to += kWidth, references += stride) {
    const uint32_t value = *references;
    if constexpr (kWidth == 1) {
      to[0] = static_cast<char>(value);
    } else if constexpr (kWidth == 2) {
      const auto big = __builtin_bswap16(static_cast<uint16_t>(value));
      std::memcpy(to, &big, 2);
    } else if constexpr (kWidth == 3) {
      const uint32_t big = __builtin_bswap32(value << 8);
      std::memcpy(to, &big, 3);
    } else if constexpr (kWidth == 4) {
      const uint32_t big = __builtin_bswap32(value);
      std::memcpy(to, &big, 4);
    } else {
      putBigEndian(to, value, kWidth);
    }
  }
}
void putReferences(unsigned width, char* to, const uint32_t* references, std::size_t count, std::size_t stride) {
  switch (width) {
    case 1: putReferences<1>(to, references, count, stride); break;
    case 2: putReferences<2>(to, references, count, stride); break;
    case 3: putReferences<3>(to, references, count, stride); break;
    case 4: putReferences<4>(to, references, count, stride); break;
    default: putReferences<8>(to, references, count, stride); break;
  }
}

// A marker with the count in its low nibble, or 0xF and the count as an integer object.
char* putCounted(char* at, unsigned kind, uint64_t count) {
  *at++ = static_cast<char>((kind << 4) | (count < 15 ? count : 15));
  if (count < 15) return at;
  const unsigned width = integerBytes(count);
  *at++ = static_cast<char>(0x10 | log2Of(width));
  putBigEndian(at, count, width);
  return at + width;
}

// One code point from UTF-8 at `i`; a byte that starts no valid sequence reads as U+FFFD.
char32_t nextCodePoint(const unsigned char* text, std::size_t size, std::size_t& i) {
  const unsigned char lead = text[i];
  if (lead < 0x80) {
    ++i;
    return lead;
  }
  std::size_t length = 0;
  char32_t c = 0;
  char32_t minimum = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, c = lead & 0x1F, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, c = lead & 0x0F, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, c = lead & 0x07, minimum = 0x10000;
  }
  if (length == 0 || size - i < length) {
    ++i;
    return 0xFFFD;
  }
  for (std::size_t k = 1; k < length; ++k) {
    if ((text[i + k] & 0xC0) != 0x80) {
      ++i;
      return 0xFFFD;
    }
    c = (c << 6) | (text[i + k] & 0x3F);
  }
  if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
    ++i;
    return 0xFFFD;
  }
  i += length;
  return c;
}

}  // namespace

TavloBinaryPlistWriter::TavloBinaryPlistWriter(unsigned referenceBytes, std::size_t expectedBytes,
                                               std::size_t expectedObjects)
    : referenceBytes_(referenceBytes), out_(std::max<std::size_t>(expectedBytes, 256), '\0'),
      offsets_(new uint32_t[std::max<std::size_t>(expectedObjects, 16)]),
      offsetsSize_(std::max<std::size_t>(expectedObjects, 16)) {
  std::memcpy(out_.data(), kHeader, kHeaderSize);
  size_ = kHeaderSize;
}

unsigned TavloBinaryPlistWriter::referenceBytesFor(std::size_t objects) { return neededBytes(objects); }

void TavloBinaryPlistWriter::appendString(std::string& out, std::string_view utf8) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.data());
  std::size_t ascii = 0;
  for (uint64_t word; ascii + 8 <= utf8.size(); ascii += 8) {
    std::memcpy(&word, bytes + ascii, 8);
    if (word & 0x8080808080808080ULL) break;
  }
  while (ascii < utf8.size() && bytes[ascii] < 0x80) ++ascii;
  char header[16];
  if (ascii == utf8.size()) {
    out.append(header, putCounted(header, 0x5, utf8.size()));
    out.append(utf8);
    return;
  }
  // UTF-16: the unit count comes first, so the text is decoded twice.
  std::size_t units = ascii;
  for (std::size_t i = ascii; i < utf8.size();) units += nextCodePoint(bytes, utf8.size(), i) > 0xFFFF ? 2 : 1;
  out.append(header, putCounted(header, 0x6, units));
  std::size_t at = out.size();
  out.resize(at + 2 * units);
  char* to = out.data();
  const auto putUnit = [&](char32_t unit) {
    to[at++] = static_cast<char>(unit >> 8);
    to[at++] = static_cast<char>(unit & 0xFF);
  };
  for (std::size_t i = 0; i < utf8.size();) {
    const char32_t c = nextCodePoint(bytes, utf8.size(), i);
    if (c > 0xFFFF) {
      putUnit(0xD800 + ((c - 0x10000) >> 10));
      putUnit(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
      putUnit(c);
    }
  }
}

void TavloBinaryPlistWriter::grow(std::size_t bytes, std::size_t objects) {
  constexpr std::size_t kMostBytes = UINT32_MAX;  // offsets are kept in 32 bits
  if (size_ + bytes > kMostBytes || count_ + objects > UINT32_MAX) throw std::length_error("property list past 4 GiB");
  if (out_.size() - size_ < bytes) out_.resize(std::min(std::max(2 * out_.size(), size_ + bytes), kMostBytes));
  if (offsetsSize_ - count_ < objects) {
    const std::size_t size = std::max(2 * offsetsSize_, count_ + objects);
    std::unique_ptr<uint32_t[]> grown(new uint32_t[size]);
    std::copy_n(offsets_.get(), count_, grown.get());
    offsets_ = std::move(grown);
    offsetsSize_ = size;
  }
}

void TavloBinaryPlistWriter::uids(const uint32_t* numbers, const uint32_t* values, std::size_t count) {
  // Room for all of them first; then the loop keeps the output's end in registers.
  if (out_.size() - size_ < 5 * count + 16 || offsetsSize_ - count_ < count) grow(5 * count + 16, count);
  char* const begin = out_.data();
  char* at = begin + size_;
  uint32_t next = count_;
  uint32_t* offsets = offsets_.get();
  for (std::size_t i = 0; i < count; ++i) {
    if (numbers[i] != next) continue;
    const uint32_t value = values[i];
    offsets[next++] = static_cast<uint32_t>(at - begin);
    if (value < 0x100) {
      at[0] = '\x80';
      at[1] = static_cast<char>(value);
      at += 2;
    } else if (value < 0x10000) {
      at[0] = '\x81';
      at[1] = static_cast<char>(value >> 8);
      at[2] = static_cast<char>(value);
      at += 3;
    } else {
      at[0] = '\x83';
      const uint32_t big = __builtin_bswap32(value);
      std::memcpy(at + 1, &big, 4);
      at += 5;
    }
  }
  size_ = static_cast<std::size_t>(at - begin);
  count_ = next;
}

void TavloBinaryPlistWriter::integer(int64_t value) {
  const auto bits = static_cast<uint64_t>(value);
  const unsigned width = integerBytes(bits);
  char* to = room(1 + width);
  to[0] = static_cast<char>(0x10 | log2Of(width));
  putBigEndian(to + 1, bits, width);
  size_ += 1 + width;
}

void TavloBinaryPlistWriter::real(double value) {
  // A value a float holds exactly takes four bytes; infinities do, NaN does not.
  const bool asFloat = !std::isnan(value) && (std::isinf(value) || (std::fabs(value) <= FLT_MAX &&
                                                                    static_cast<double>(static_cast<float>(value)) == value));
  char* to = room(9);
  if (asFloat) {
    const float single = static_cast<float>(value);
    uint32_t bits;
    std::memcpy(&bits, &single, sizeof bits);
    to[0] = '\x22';
    putBigEndian(to + 1, bits, 4);
    size_ += 5;
  } else {
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    to[0] = '\x23';
    putBigEndian(to + 1, bits, 8);
    size_ += 9;
  }
}

void TavloBinaryPlistWriter::boolean(bool value) {
  *room(1) = static_cast<char>(value ? 0x09 : 0x08);
  size_ += 1;
}

void TavloBinaryPlistWriter::container(unsigned kind, const uint32_t* references, std::size_t count,
                                       std::size_t stride) {
  const std::size_t bytes = (stride == 2 ? 2 * count : count) * referenceBytes_;
  char* at = room(16 + bytes);
  char* to = putCounted(at, kind, count);
  if (stride == 2) {
    // Keys first, then values: the caller's pairs are interleaved.
    putReferences(referenceBytes_, to, references, count, 2);
    putReferences(referenceBytes_, to + count * referenceBytes_, references + 1, count, 2);
  } else {
    putReferences(referenceBytes_, to, references, count, 1);
  }
  size_ += static_cast<std::size_t>(to - at) + bytes;
}

std::size_t TavloBinaryPlistWriter::arrayToFill(std::size_t count) {
  const std::size_t bytes = count * referenceBytes_;
  char* at = room(16 + bytes);
  char* to = putCounted(at, 0xA, count);
  std::memset(to, 0, bytes);
  size_ += static_cast<std::size_t>(to - at) + bytes;
  return static_cast<std::size_t>(to - out_.data());
}

void TavloBinaryPlistWriter::fillArray(std::size_t at, const uint32_t* references, std::size_t count) {
  putReferences(referenceBytes_, out_.data() + at, references, count, 1);
}

std::string TavloBinaryPlistWriter::finish() {
  const uint64_t objectsEnd = size_;
  const unsigned offsetSize = neededBytes(objectsEnd);
  out_.resize(size_ + offsetSize * count_ + kTrailerSize);
  char* offsets = out_.data() + size_;
  putReferences(offsetSize, offsets, offsets_.get(), count_, 1);
  char* trailer = offsets + offsetSize * count_;
  std::memset(trailer, 0, kTrailerSize);
  trailer[6] = static_cast<char>(offsetSize);
  trailer[7] = static_cast<char>(referenceBytes_);
  putBigEndian(trailer + 8, count_, 8);
  putBigEndian(trailer + 16, 0, 8);  // the top object is the first one numbered
  putBigEndian(trailer + 24, objectsEnd, 8);
  offsets_.reset();
  return std::move(out_);
}
