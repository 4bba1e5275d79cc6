#include "archive/TavloBinaryPlistWriter.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace {

constexpr char kHeader[] = "bplist00";
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
constexpr uint32_t kUnplaced = std::numeric_limits<uint32_t>::max();

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
void appendBigEndian(std::string& out, uint64_t value, unsigned width) {
  char bytes[8];
  putBigEndian(bytes, value, width);
  out.append(bytes, width);
}
void appendInteger(std::string& out, uint64_t value) {
  const unsigned width = integerBytes(value);
  out += static_cast<char>(0x10 | log2Of(width));
  appendBigEndian(out, value, width);
}
// A marker with the count in its low nibble, or 0xF and the count as an integer object.
void appendCounted(std::string& out, unsigned kind, uint64_t count) {
  out += static_cast<char>((kind << 4) | (count < 15 ? count : 15));
  if (count >= 15) appendInteger(out, count);
}
std::size_t countedSize(uint64_t count) { return 1 + (count < 15 ? 0 : 1 + integerBytes(count)); }

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

uint32_t hashBytes(unsigned kind, const char* bytes, std::size_t size) {
  uint64_t h = 0x9E3779B97F4A7C15ULL ^ (uint64_t{kind} << 56) ^ size;
  for (; size >= 8; bytes += 8, size -= 8) {
    uint64_t word;
    std::memcpy(&word, bytes, 8);
    h = (h ^ word) * 0xFF51AFD7ED558CCDULL;
    h ^= h >> 32;
  }
  uint64_t tail = 0;
  std::memcpy(&tail, bytes, size);
  h = (h ^ tail) * 0xC4CEB9FE1A85EC53ULL;
  h ^= h >> 29;
  return static_cast<uint32_t>(h ^ (h >> 32));
}

}  // namespace

TavloBinaryPlistWriter::TavloBinaryPlistWriter(std::size_t expectedObjects) {
  nodes_.reserve(expectedObjects);
  std::size_t slots = 64;
  while (slots < 2 * expectedObjects) slots *= 2;
  table_.assign(slots, 0);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::string(std::string_view utf8) {
  return text(Kind::Scalar, utf8);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::key(std::string_view utf8) { return text(Kind::Key, utf8); }

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::text(Kind kind, std::string_view utf8) {
  const std::size_t start = bytes_.size();
  const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.data());
  std::size_t ascii = 0;
  while (ascii < utf8.size() && bytes[ascii] < 0x80) ++ascii;
  if (ascii == utf8.size()) {
    appendCounted(bytes_, 0x5, utf8.size());
    bytes_.append(utf8);
    return unique(kind, start);
  }
  // UTF-16: the unit count comes first, so the text is decoded twice.
  std::size_t units = ascii;
  for (std::size_t i = ascii; i < utf8.size();) units += nextCodePoint(bytes, utf8.size(), i) > 0xFFFF ? 2 : 1;
  appendCounted(bytes_, 0x6, units);
  std::size_t at = bytes_.size();
  bytes_.resize(at + 2 * units);
  char* out = bytes_.data();
  const auto putUnit = [&](char32_t unit) {
    out[at++] = static_cast<char>(unit >> 8);
    out[at++] = static_cast<char>(unit & 0xFF);
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
  return unique(kind, start);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::integer(int64_t value) {
  const std::size_t start = bytes_.size();
  appendInteger(bytes_, static_cast<uint64_t>(value));
  return unique(Kind::Scalar, start);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::uid(uint32_t value) {
  const std::size_t start = bytes_.size();
  const unsigned width = integerBytes(value);
  bytes_ += static_cast<char>(0x80 | (width - 1));
  appendBigEndian(bytes_, value, width);
  return unique(Kind::Scalar, start);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::boolean(bool value) {
  const std::size_t start = bytes_.size();
  bytes_ += static_cast<char>(value ? 0x09 : 0x08);
  return unique(Kind::Scalar, start);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::real(double value) {
  const std::size_t start = bytes_.size();
  // A value a float holds exactly takes four bytes; infinities do, NaN does not.
  const bool asFloat = !std::isnan(value) && (std::isinf(value) || (std::fabs(value) <= FLT_MAX &&
                                                                    static_cast<double>(static_cast<float>(value)) == value));
  if (asFloat) {
    const float single = static_cast<float>(value);
    uint32_t bits;
    std::memcpy(&bits, &single, sizeof bits);
    bytes_ += '\x22';
    appendBigEndian(bytes_, bits, 4);
  } else {
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    bytes_ += '\x23';
    appendBigEndian(bytes_, bits, 8);
  }
  return unique(Kind::Scalar, start);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::array() { return addContainer(Kind::Array); }

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::dictionary() { return addContainer(Kind::Dictionary); }

void TavloBinaryPlistWriter::setArray(Object array, std::span<const Object> elements) {
  fill(array, Kind::Array, elements.data(), elements.size());
}

void TavloBinaryPlistWriter::setDictionary(Object dictionary, std::span<const Entry> entries) {
  static_assert(sizeof(Entry) == 2 * sizeof(Object), "entries are read as key, value pairs");
  fill(dictionary, Kind::Dictionary, reinterpret_cast<const Object*>(entries.data()), 2 * entries.size());
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::addContainer(Kind kind) {
  if (nodes_.size() >= kUnplaced - 1) throw std::length_error("too many property-list objects");
  nodes_.push_back(Node{0, 0, 0, kind});
  return static_cast<Object>(nodes_.size() - 1);
}

void TavloBinaryPlistWriter::fill(Object container, Kind kind, const Object* references, std::size_t count) {
  if (container >= nodes_.size() || nodes_[container].kind != kind) {
    throw std::invalid_argument("not a property-list container of this writer");
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (references[i] >= nodes_.size()) throw std::invalid_argument("not a property-list object of this writer");
  }
  if (refs_.size() + count > kUnplaced) throw std::length_error("too many property-list references");
  nodes_[container].start = static_cast<uint32_t>(refs_.size());
  nodes_[container].size = static_cast<uint32_t>(count);
  refs_.insert(refs_.end(), references, references + count);
}

// Keeps the scalar just appended at `start` unless an equal one exists: then the new
// bytes are dropped and the old object is answered.
TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::unique(Kind kind, std::size_t start) {
  const std::size_t size = bytes_.size() - start;
  if (bytes_.size() > kUnplaced) throw std::length_error("property-list scalars past 4 GiB");
  const uint32_t hash = hashBytes(static_cast<unsigned>(kind), bytes_.data() + start, size);
  const std::size_t mask = table_.size() - 1;
  for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
    const uint32_t held = table_[slot];
    if (held == 0) {
      if (nodes_.size() >= kUnplaced - 1) throw std::length_error("too many property-list objects");
      nodes_.push_back(Node{static_cast<uint32_t>(start), static_cast<uint32_t>(size), hash, kind});
      table_[slot] = static_cast<uint32_t>(nodes_.size());
      if (2 * nodes_.size() > table_.size()) grow();
      return static_cast<Object>(nodes_.size() - 1);
    }
    const Node& node = nodes_[held - 1];
    if (node.hash == hash && node.kind == kind && node.size == size &&
        std::memcmp(bytes_.data() + node.start, bytes_.data() + start, size) == 0) {
      bytes_.resize(start);
      return held - 1;
    }
  }
}

void TavloBinaryPlistWriter::grow() {
  table_.assign(table_.size() * 2, 0);
  const std::size_t mask = table_.size() - 1;
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    const Node& node = nodes_[i];
    if (node.kind != Kind::Scalar && node.kind != Kind::Key) continue;
    std::size_t slot = node.hash & mask;
    while (table_[slot] != 0) slot = (slot + 1) & mask;
    table_[slot] = static_cast<uint32_t>(i + 1);
  }
}

std::string TavloBinaryPlistWriter::finish(Object top) {
  if (top >= nodes_.size()) throw std::invalid_argument("not a property-list object of this writer");
  table_ = {};  // no more uniquing: let the memory go before the output is allocated

  // Number the objects in pre-order, each at its first visit, as libplist does.
  std::vector<uint32_t> order(nodes_.size(), kUnplaced);
  std::vector<Object> sequence;
  sequence.reserve(nodes_.size());
  struct Frame {
    Object node;
    uint32_t next;
  };
  std::vector<Frame> path;
  const auto visit = [&](Object object) {
    if (order[object] != kUnplaced) return;
    order[object] = static_cast<uint32_t>(sequence.size());
    sequence.push_back(object);
    const Kind kind = nodes_[object].kind;
    if (kind == Kind::Array || kind == Kind::Dictionary) path.push_back(Frame{object, 0});
  };
  visit(top);
  while (!path.empty()) {
    Frame& frame = path.back();
    const Node& node = nodes_[frame.node];
    if (frame.next == node.size) {
      path.pop_back();
      continue;
    }
    visit(refs_[node.start + frame.next++]);  // may grow `path`: `frame` is not used after
  }

  const unsigned refSize = neededBytes(sequence.size());
  uint64_t objectsEnd = kHeaderSize;
  for (const Object object : sequence) {
    const Node& node = nodes_[object];
    if (node.kind == Kind::Scalar || node.kind == Kind::Key) {
      objectsEnd += node.size;
    } else {
      const uint64_t count = node.kind == Kind::Dictionary ? node.size / 2 : node.size;
      objectsEnd += countedSize(count) + uint64_t{node.size} * refSize;
    }
  }
  const unsigned offsetSize = neededBytes(objectsEnd);
  const uint64_t total = objectsEnd + uint64_t{offsetSize} * sequence.size() + kTrailerSize;

  std::string out(total, '\0');
  char* bytes = out.data();
  std::memcpy(bytes, kHeader, kHeaderSize);
  std::size_t at = kHeaderSize;
  std::string header;  // a container's marker and count
  for (std::size_t i = 0; i < sequence.size(); ++i) {
    putBigEndian(bytes + objectsEnd + i * offsetSize, at, offsetSize);
    const Node& node = nodes_[sequence[i]];
    if (node.kind == Kind::Scalar || node.kind == Kind::Key) {
      std::memcpy(bytes + at, bytes_.data() + node.start, node.size);
      at += node.size;
      continue;
    }
    const bool isDictionary = node.kind == Kind::Dictionary;
    const std::size_t count = isDictionary ? node.size / 2 : node.size;
    header.clear();
    appendCounted(header, isDictionary ? 0xD : 0xA, count);
    std::memcpy(bytes + at, header.data(), header.size());
    at += header.size();
    const Object* references = refs_.data() + node.start;
    if (isDictionary) {
      // Keys first, then values: the pairs are stored interleaved.
      for (std::size_t k = 0; k < count; ++k, at += refSize) putBigEndian(bytes + at, order[references[2 * k]], refSize);
      for (std::size_t k = 0; k < count; ++k, at += refSize) putBigEndian(bytes + at, order[references[2 * k + 1]], refSize);
    } else {
      for (std::size_t k = 0; k < count; ++k, at += refSize) putBigEndian(bytes + at, order[references[k]], refSize);
    }
  }

  char* trailer = bytes + objectsEnd + uint64_t{offsetSize} * sequence.size();
  trailer[6] = static_cast<char>(offsetSize);
  trailer[7] = static_cast<char>(refSize);
  putBigEndian(trailer + 8, sequence.size(), 8);
  putBigEndian(trailer + 16, 0, 8);  // the top object is the first one numbered
  putBigEndian(trailer + 24, objectsEnd, 8);
  return out;
}
