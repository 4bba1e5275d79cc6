// Builds a binary property list ("bplist00") object by object and writes it in one go.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Writes the binary property-list format byte for byte as libplist 2.2's plist_to_bin
/// does, without building its tree. The queue file was written through libplist for
/// years; keeping its exact bytes means files written before and after read the same
/// everywhere, and lets a test compare the two writers byte for byte.
///
/// Why not libplist: for a queue of 500 requests it allocated some 150,000 nodes, one
/// per value, serialised them through a hash table of its own, then freed them, which
/// took tens of milliseconds and left megabytes of fragmented heap behind. This writer
/// keeps a handful of flat arrays (encoded scalars, 8-byte nodes, container references,
/// a hash set of indices) and writes the file into one string sized exactly before the
/// first byte; everything else is freed when it is destroyed. Such a queue encodes in a
/// millisecond or two (bench/TavloQueueFileBench.cpp), some ten times faster than before.
///
/// The layout it reproduces:
///  - objects are numbered in depth-first pre-order from the top object, a dictionary's
///    children visited key, value, key, value; the top object is object 0;
///  - equal scalars are written once: strings, integers, reals, booleans and UIDs by
///    value, dictionary keys among themselves only (libplist keeps keys and string values
///    apart). Containers are never merged;
///  - integers take 1, 2, 4 or 8 bytes, 8 for negative values; UIDs 1, 2 or 4 bytes;
///    a real that a float holds exactly is written as a 4-byte float;
///  - strings are ASCII when every byte is, else UTF-16 big-endian;
///  - references and offsets take the fewest of 1, 2, 3, 4 or 8 bytes that hold the
///    object count and the offset of the table.
///
/// Limits: no data, dates, sets or null objects (the archive has none); at most 2^32 - 2
/// objects, 4 GiB of encoded scalars, 1 GiB per scalar and 2^30 references per
/// container, past which std::length_error is thrown (std::invalid_argument for a handle
/// of another writer). Containers are expected to form a tree under the
/// top object, each filled once; an object reached twice is written once, and one never
/// reached from the top is left out. Text must be UTF-8: a byte that does not decode is
/// written as U+FFFD, and NUL characters are kept (libplist would cut the string there).
class TavloBinaryPlistWriter {
 public:
  /// A handle on an object of this writer; only meaningful to the writer that made it.
  using Object = uint32_t;
  struct Entry {
    Object key;
    Object value;
  };

  TavloBinaryPlistWriter();
  ~TavloBinaryPlistWriter();
  TavloBinaryPlistWriter(const TavloBinaryPlistWriter&) = delete;
  TavloBinaryPlistWriter& operator=(const TavloBinaryPlistWriter&) = delete;

  /// Sizes the buffers for about `objects` objects, when the caller can guess: a generous
  /// guess costs address space, not memory, and a short one only some copying.
  void reserve(std::size_t objects);

  Object string(std::string_view utf8);
  /// A string used as a dictionary key: uniqued apart from string values.
  Object key(std::string_view utf8);
  Object integer(int64_t value);
  Object uid(uint32_t value) {
    // An archive names the same few UIDs again and again: most are found here.
    if (value < uids_.size() && uids_[value] != kNone) return uids_[value];
    return newUID(value);
  }
  Object boolean(bool value);
  Object real(double value);

  /// An empty container, filled by setArray or setDictionary once its children exist.
  Object array();
  Object dictionary();
  void setArray(Object array, std::span<const Object> elements);
  void setDictionary(Object dictionary, std::span<const Entry> entries);

  /// The property list with `top` as its top object. The writer is spent afterwards.
  std::string finish(Object top);

  /// Whether `string` is the object that string(`ascii`) or key(`ascii`) made, for text of bytes below
  /// 0x80 only: callers that keep their own index of texts written compare against the
  /// writer's copy instead of keeping one of their own.
  bool holdsAscii(Object string, std::string_view ascii) const {
    if (string >= nodes_.size()) return false;
    const Node node = nodes_[string];
    const std::size_t size = ascii.size();
    // The marker, then the count as an integer object past 14 bytes.
    const std::size_t counted = size < 15 ? 1 : size < 256 ? 3 : size < 65536 ? 4 : size <= UINT32_MAX ? 6 : 10;
    if (node.isContainer() || node.size() != counted + size) return false;
    const char* held = bytes_.data() + node.start;
    return (static_cast<unsigned char>(held[0]) >> 4) == 0x5 && sameBytes(held + counted, ascii.data(), size);
  }

 private:
  enum class Kind : uint8_t { Scalar, Key, Array, Dictionary };
  struct Node {
    uint32_t start;        // Scalar, Key: in bytes_; Array, Dictionary: in refs_
    uint32_t sizeAndKind;  // bytes, or references (two per dictionary entry), << 2 | kind
    std::size_t size() const { return sizeAndKind >> 2; }
    Kind kind() const { return static_cast<Kind>(sizeAndKind & 3); }
    bool isContainer() const { return kind() == Kind::Array || kind() == Kind::Dictionary; }
  };
  struct Free {
    void operator()(void* memory) const;
  };
  static constexpr Object kNone = UINT32_MAX;

  Object newUID(uint32_t value);
  // memcmp for the short texts of an archive, without the call: overlapping words.
  static bool sameBytes(const char* a, const char* b, std::size_t size) {
    const auto word = [](const char* at) {
      uint64_t value;
      std::memcpy(&value, at, 8);
      return value;
    };
    const auto half = [](const char* at) {
      uint32_t value;
      std::memcpy(&value, at, 4);
      return value;
    };
    if (size > 16) return std::memcmp(a, b, size) == 0;
    if (size >= 8) return word(a) == word(b) && word(a + size - 8) == word(b + size - 8);
    if (size >= 4) return half(a) == half(b) && half(a + size - 4) == half(b + size - 4);
    for (std::size_t i = 0; i < size; ++i) {
      if (a[i] != b[i]) return false;
    }
    return true;
  }
  Object addNode(std::size_t start, std::size_t size, Kind kind);
  Object unique(Kind kind, std::size_t start);
  void fill(Object container, Kind kind, const Object* references, std::size_t count);
  void allocateTable(std::size_t slots);
  template <unsigned kRefSize>
  void writeObjects(char* bytes, uint64_t objectsEnd, unsigned offsetSize, const std::vector<Object>& sequence,
                    const std::vector<uint32_t>& order) const;
  Object text(Kind kind, std::string_view utf8);

  // Where the time goes is fresh memory: each page touched for the first time costs a
  // fault, which on a set-top box (or a virtual machine) outweighs the encoding. Nodes
  // are 8 bytes, the hash set is calloc'd (untouched pages of it cost nothing), and
  // reserve() sizes everything once instead of growing it by copies.
  std::string bytes_;         // scalars as they are written, markers included
  std::vector<Object> refs_;  // container contents
  std::vector<Node> nodes_;
  // Hash set of the scalar nodes: hash << 32 | (index + 1), 0 when free. The hash in the
  // slot spares a visit to the node on most mismatches, and is all a rehash needs.
  std::unique_ptr<uint64_t[], Free> table_;
  std::size_t tableSlots_ = 0;
  std::size_t tableEntries_ = 0;
  // UIDs by value and the two booleans: the archive names the same few again and again,
  // and an array index is cheaper than the hash set.
  std::vector<Object> uids_;
  Object booleans_[2] = {kNone, kNone};
};
