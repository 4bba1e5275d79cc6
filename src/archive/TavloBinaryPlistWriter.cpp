#include "archive/TavloBinaryPlistWriter.h"

#include <cfloat>
#include <cmath>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
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
template <unsigned kWidth>
inline void putReference(char* at, uint32_t value) {
  if constexpr (kWidth == 1) {
    at[0] = static_cast<char>(value);
  } else if constexpr (kWidth == 2) {
    at[0] = static_cast<char>(value >> 8);
    at[1] = static_cast<char>(value);
  } else if constexpr (kWidth == 3) {
    at[0] = static_cast<char>(value >> 16);
    at[1] = static_cast<char>(value >> 8);
    at[2] = static_cast<char>(value);
  } else {
    putBigEndian(at, value, kWidth);
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
  // The last bytes without a call to memcpy of a varying size: two overlapping halves
  // for four to seven, byte by byte below.
  uint64_t tail = 0;
  if (size >= 4) {
    uint32_t first;
    uint32_t last;
    std::memcpy(&first, bytes, 4);
    std::memcpy(&last, bytes + size - 4, 4);
    tail = uint64_t{first} << 32 | last;
  } else {
    for (std::size_t i = 0; i < size; ++i) tail = tail << 8 | static_cast<unsigned char>(bytes[i]);
  }
  h ^= tail;
  // The finaliser of MurmurHash3: every bit of the input reaches the low bits, which
  // choose the slot.
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDULL;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ULL;
  h ^= h >> 33;
  return static_cast<uint32_t>(h);
}

}  // namespace

void TavloBinaryPlistWriter::Free::operator()(void* memory) const { std::free(memory); }

TavloBinaryPlistWriter::TavloBinaryPlistWriter() { allocateTable(256); }

TavloBinaryPlistWriter::~TavloBinaryPlistWriter() = default;

void TavloBinaryPlistWriter::reserve(std::size_t objects) {
  nodes_.reserve(objects);
  refs_.reserve(3 * objects);
  bytes_.reserve(16 * objects);
  // Most objects of an archive are containers and UIDs, which the hash set does not hold:
  // a quarter of them is a fair guess of what it will, and it holds that without growing
  // (a growth rehashes everything held).
  std::size_t slots = tableSlots_;
  while (3 * slots < 4 * (objects / 4)) slots *= 2;
  if (slots > tableSlots_) allocateTable(slots);
}

// A fresh, zeroed hash set of `slots` slots (a power of two) holding what the old one held.
void TavloBinaryPlistWriter::allocateTable(std::size_t slots) {
  std::unique_ptr<uint64_t[], Free> table(static_cast<uint64_t*>(std::calloc(slots, sizeof(uint64_t))));
  if (!table) throw std::bad_alloc();
  const std::size_t mask = slots - 1;
  for (std::size_t i = 0; i < tableSlots_; ++i) {
    const uint64_t held = table_[i];
    if (held == 0) continue;
    std::size_t slot = (held >> 32) & mask;
    while (table[slot] != 0) slot = (slot + 1) & mask;
    table[slot] = held;
  }
  table_ = std::move(table);
  tableSlots_ = slots;
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::string(std::string_view utf8) {
  return text(Kind::Scalar, utf8);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::key(std::string_view utf8) { return text(Kind::Key, utf8); }

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::text(Kind kind, std::string_view utf8) {
  const std::size_t start = bytes_.size();
  const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.data());
  std::size_t ascii = 0;
  for (uint64_t word; ascii + 8 <= utf8.size(); ascii += 8) {
    std::memcpy(&word, bytes + ascii, 8);
    if (word & 0x8080808080808080ULL) break;
  }
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

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::newUID(uint32_t value) {
  constexpr uint32_t kDirect = uint32_t{1} << 24;  // UIDs past this go through the hash set
  const std::size_t start = bytes_.size();
  const unsigned width = integerBytes(value);
  bytes_ += static_cast<char>(0x80 | (width - 1));
  appendBigEndian(bytes_, value, width);
  if (value >= kDirect) return unique(Kind::Scalar, start);
  // Known by value from here: the hash set need not hold it.
  if (value >= uids_.size()) uids_.resize(std::max<std::size_t>(value + 1, 2 * uids_.size()), kNone);
  return uids_[value] = addNode(start, bytes_.size() - start, Kind::Scalar);
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::boolean(bool value) {
  Object& known = booleans_[value ? 1 : 0];
  if (known == kNone) {
    const std::size_t start = bytes_.size();
    bytes_ += static_cast<char>(value ? 0x09 : 0x08);
    known = unique(Kind::Scalar, start);
  }
  return known;
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

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::array() { return addNode(0, 0, Kind::Array); }

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::dictionary() { return addNode(0, 0, Kind::Dictionary); }

void TavloBinaryPlistWriter::setArray(Object array, std::span<const Object> elements) {
  fill(array, Kind::Array, elements.data(), elements.size());
}

void TavloBinaryPlistWriter::setDictionary(Object dictionary, std::span<const Entry> entries) {
  static_assert(sizeof(Entry) == 2 * sizeof(Object), "entries are read as key, value pairs");
  fill(dictionary, Kind::Dictionary, reinterpret_cast<const Object*>(entries.data()), 2 * entries.size());
}

TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::addNode(std::size_t start, std::size_t size, Kind kind) {
  if (nodes_.size() >= kUnplaced - 1) throw std::length_error("too many property-list objects");
  if (start + size > kUnplaced) throw std::length_error("property-list scalars past 4 GiB");
  if (size >= (std::size_t{1} << 30)) throw std::length_error("property-list object past 1 GiB");
  nodes_.push_back(Node{static_cast<uint32_t>(start), static_cast<uint32_t>(size << 2) | static_cast<uint32_t>(kind)});
  return static_cast<Object>(nodes_.size() - 1);
}

void TavloBinaryPlistWriter::fill(Object container, Kind kind, const Object* references, std::size_t count) {
  if (container >= nodes_.size() || nodes_[container].kind() != kind) {
    throw std::invalid_argument("not a property-list container of this writer");
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (references[i] >= nodes_.size()) throw std::invalid_argument("not a property-list object of this writer");
  }
  if (refs_.size() + count > kUnplaced) throw std::length_error("too many property-list references");
  if (count >= (std::size_t{1} << 30)) throw std::length_error("property-list container past 2^30 references");
  nodes_[container] = Node{static_cast<uint32_t>(refs_.size()), static_cast<uint32_t>(count << 2) | static_cast<uint32_t>(kind)};
  refs_.insert(refs_.end(), references, references + count);
}

// Keeps the scalar just appended at `start` unless an equal one exists: then the new
// bytes are dropped and the old object is answered.
TavloBinaryPlistWriter::Object TavloBinaryPlistWriter::unique(Kind kind, std::size_t start) {
  const std::size_t size = bytes_.size() - start;
  const uint32_t hash = hashBytes(static_cast<unsigned>(kind), bytes_.data() + start, size);
  const std::size_t mask = tableSlots_ - 1;
  for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
    const uint64_t held = table_[slot];
    if (held == 0) {
      const Object object = addNode(start, size, kind);
      table_[slot] = uint64_t{hash} << 32 | (uint64_t{object} + 1);
      if (4 * ++tableEntries_ > 3 * tableSlots_) allocateTable(2 * tableSlots_);
      return object;
    }
    if (held >> 32 != hash) continue;
    const auto index = static_cast<Object>((held & 0xFFFFFFFF) - 1);
    const Node node = nodes_[index];
    if (node.kind() == kind && node.size() == size &&
        std::memcmp(bytes_.data() + node.start, bytes_.data() + start, size) == 0) {
      bytes_.resize(start);
      return index;
    }
  }
}

// The objects in file order from kHeaderSize on, and the offset table at `objectsEnd`.
// The reference width is a template argument: it is the same for every reference, and
// a fixed-width store is a fraction of the cost of a loop over the bytes.
template <unsigned kRefSize>
void TavloBinaryPlistWriter::writeObjects(char* bytes, uint64_t objectsEnd, unsigned offsetSize,
                                          const std::vector<Object>& sequence, const std::vector<uint32_t>& order) const {
  std::size_t at = kHeaderSize;
  char* offsets = bytes + objectsEnd;
  const Object* refs = refs_.data();
  for (std::size_t i = 0; i < sequence.size(); ++i, offsets += offsetSize) {
    putBigEndian(offsets, at, offsetSize);
    const Node node = nodes_[sequence[i]];
    if (!node.isContainer()) {
      const char* from = bytes_.data() + node.start;
      if (node.size() <= 16 && at + 16 <= objectsEnd) {
        std::memcpy(bytes + at, from, 16);
      } else {
        std::memcpy(bytes + at, from, node.size());
      }
      at += node.size();
      continue;
    }
    const bool isDictionary = node.kind() == Kind::Dictionary;
    const std::size_t count = isDictionary ? node.size() / 2 : node.size();
    const unsigned kind = isDictionary ? 0xD : 0xA;
    if (count < 15) {
      bytes[at++] = static_cast<char>((kind << 4) | count);
    } else {
      bytes[at++] = static_cast<char>((kind << 4) | 15);
      const unsigned width = integerBytes(count);
      bytes[at++] = static_cast<char>(0x10 | log2Of(width));
      putBigEndian(bytes + at, count, width);
      at += width;
    }
    const Object* references = refs + node.start;
    char* to = bytes + at;
    if (isDictionary) {
      // Keys first, then values: the pairs are stored interleaved.
      for (std::size_t k = 0; k < count; ++k, to += kRefSize) putReference<kRefSize>(to, order[references[2 * k]]);
      for (std::size_t k = 0; k < count; ++k, to += kRefSize) putReference<kRefSize>(to, order[references[2 * k + 1]]);
    } else {
      for (std::size_t k = 0; k < count; ++k, to += kRefSize) putReference<kRefSize>(to, order[references[k]]);
    }
    at = static_cast<std::size_t>(to - bytes);
  }
}

std::string TavloBinaryPlistWriter::finish(Object top) {
  if (top >= nodes_.size()) throw std::invalid_argument("not a property-list object of this writer");
  table_.reset();  // no more uniquing: the memory goes before the output's comes
  tableSlots_ = tableEntries_ = 0;

  // Number the objects in pre-order, each at its first visit, as libplist does.
  std::vector<uint32_t> order(nodes_.size(), kUnplaced);  // each node's number in the file
  std::vector<Object> sequence;
  sequence.reserve(nodes_.size());
  struct Frame {
    Object node;
    uint32_t next;
  };
  std::vector<Frame> path;
  // The sizes add up on the way: scalars' bytes, containers' markers and counts, and
  // the references, whose width is known once every object is numbered.
  uint64_t fixedBytes = kHeaderSize;
  uint64_t references = 0;
  const auto visit = [&](Object object) {
    if (order[object] != kUnplaced) return;
    order[object] = static_cast<uint32_t>(sequence.size());
    sequence.push_back(object);
    const Node& node = nodes_[object];
    if (!node.isContainer()) {
      fixedBytes += node.size();
      return;
    }
    fixedBytes += countedSize(node.kind() == Kind::Dictionary ? node.size() / 2 : node.size());
    references += node.size();
    path.push_back(Frame{object, 0});
  };
  visit(top);
  while (!path.empty()) {
    Frame& frame = path.back();
    const Node& node = nodes_[frame.node];
    if (frame.next == node.size()) {
      path.pop_back();
      continue;
    }
    visit(refs_[node.start + frame.next++]);  // may grow `path`: `frame` is not used after
  }

  const unsigned refSize = neededBytes(sequence.size());
  const uint64_t objectsEnd = fixedBytes + references * refSize;
  const unsigned offsetSize = neededBytes(objectsEnd);
  const uint64_t total = objectsEnd + uint64_t{offsetSize} * sequence.size() + kTrailerSize;

  std::string out(total, '\0');
  char* bytes = out.data();
  std::memcpy(bytes, kHeader, kHeaderSize);
  // Scalars are a few bytes each: they are copied 16 bytes at a time, past their end into
  // the space of the objects that follow (written next), never past the objects' end.
  bytes_.append(16, '\0');
  switch (refSize) {
    case 1: writeObjects<1>(bytes, objectsEnd, offsetSize, sequence, order); break;
    case 2: writeObjects<2>(bytes, objectsEnd, offsetSize, sequence, order); break;
    case 3: writeObjects<3>(bytes, objectsEnd, offsetSize, sequence, order); break;
    case 4: writeObjects<4>(bytes, objectsEnd, offsetSize, sequence, order); break;
    default: writeObjects<8>(bytes, objectsEnd, offsetSize, sequence, order); break;
  }

  char* trailer = bytes + objectsEnd + uint64_t{offsetSize} * sequence.size();
  trailer[6] = static_cast<char>(offsetSize);
  trailer[7] = static_cast<char>(refSize);
  putBigEndian(trailer + 8, sequence.size(), 8);
  putBigEndian(trailer + 16, 0, 8);  // the top object is the first one numbered
  putBigEndian(trailer + 24, objectsEnd, 8);
  return out;
}
