// Reads a binary property list ("bplist00") in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Gives access to the objects of a binary property list where they lie in the caller's
/// bytes, through the file's offset table: finding object n, or the n-th element of a
/// container, costs the same for the first object as for the last, and nothing is parsed
/// until it is asked for. Nothing is copied except text the caller asks for.
///
/// Why not libplist: plist_from_bin builds a node per object and reference (a queue of
/// 500 requests makes some 150,000), and its arrays are linked lists, so reading the
/// n-th element walks n nodes: loading such a queue took a quarter of a second, and
/// seconds when its strings were all different. Parsing recursively, it also needed a
/// separate check of the file's shape to be safe from deep nesting and shared subtrees.
/// This reader never walks a structure on its own: only the caller follows references,
/// and pays for what it reads.
///
/// The input is untrusted. open() checks the header and the trailer (field widths, the
/// object count, the offset table inside the file); every object access checks that the
/// index is in range, that the object's offset lies between the header and the offset
/// table, and that its contents end before the table. A malformed object reads as
/// Type::Invalid and references out of range read as nothing, so no access can read
/// outside the bytes, and none loops: each does work bounded by the bytes it returns.
///
/// Reads what other writers produce: references and offsets of 1 to 8 bytes; integers of
/// 1, 2, 4, 8 and 16 bytes (of 16, the low 64 bits); 4- and 8-byte reals; dates; data;
/// ASCII, UTF-16 and UTF-8 strings; UIDs of 1 to 8 bytes; arrays, sets and dictionaries.
/// The bytes must outlive the reader.
class TavloBinaryPlistReader {
 public:
  enum class Type : uint8_t {
    Invalid, Null, Boolean, Integer, Real, Date, Data, String, UID, Array, Set, Dictionary
  };
  struct Object {
    Type type = Type::Invalid;
    uint8_t encoding = 0;   // String: 5 ASCII, 6 UTF-16, 7 UTF-8; scalars: payload width
    uint64_t count = 0;     // containers: elements (a dictionary's entries); String: units; Data: bytes
    uint64_t position = 0;  // first byte of the contents (payload or references)
  };

  /// False, with `error` saying why, when the header or the trailer is unusable. The
  /// messages start with "not a binary property list" or "damaged binary property list".
  bool open(std::string_view data, std::string* error);

  uint64_t objectCount() const { return objectCount_; }
  uint64_t topObject() const { return top_; }

  /// The object at `index`, Type::Invalid when it is out of range or malformed.
  Object object(uint64_t index) const;

  /// The index of an array's or set's `i`-th element, of a dictionary's `i`-th key, or
  /// (valueAt) of its `i`-th value. Nothing when `i` is past the end or the reference
  /// names no object.
  std::optional<uint64_t> elementAt(const Object& container, uint64_t i) const;
  std::optional<uint64_t> keyAt(const Object& dictionary, uint64_t i) const { return elementAt(dictionary, i); }
  std::optional<uint64_t> valueAt(const Object& dictionary, uint64_t i) const;

  /// The value of the first entry of `dictionary` whose key is the string `key`; keys
  /// that are not strings are passed over. Costs one comparison per entry before it.
  /// With `cursor`, the search starts at that entry and wraps around, and `cursor` is
  /// left after the entry found: a reader that asks for keys in the order they were
  /// written finds each at the first comparison.
  std::optional<uint64_t> valueForKey(const Object& dictionary, std::string_view key,
                                      uint64_t* cursor = nullptr) const;

  bool boolValue(const Object& object) const;
  /// An integer's two's-complement bits: 8 bytes read as signed, fewer as unsigned.
  uint64_t integerBits(const Object& object) const;
  /// A real's or a date's value (a date: seconds since 2001-01-01).
  double realValue(const Object& object) const;
  uint64_t uidValue(const Object& object) const;

  /// True if `string` is a string equal to the UTF-8 text `utf8`. Stops at the first
  /// difference.
  bool stringEquals(const Object& string, std::string_view utf8) const;
  /// The text of a string as UTF-8, nothing if `string` is not one. UTF-16 that does not
  /// decode reads as U+FFFD; ASCII and UTF-8 strings are copied as they are stored.
  std::optional<std::string> text(const Object& string) const;
  /// The size text() would answer, at most; 0 for what is not a string.
  uint64_t textSizeBound(const Object& string) const;

 private:
  uint64_t readUnsigned(uint64_t position, unsigned width) const;
  bool readCount(uint64_t& position, uint8_t marker, uint64_t& count) const;

  const unsigned char* bytes_ = nullptr;
  uint64_t objectCount_ = 0;
  uint64_t top_ = 0;
  uint64_t tableStart_ = 0;  // where the offset table begins: the end of the object area
  unsigned offsetWidth_ = 0;
  unsigned refWidth_ = 0;
};
