// Writes a binary property list ("bplist00") object by object, in the order of the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// Writes the binary property-list format byte for byte as libplist 2.2's plist_to_bin
/// does. The queue file was written through libplist for years; keeping its exact bytes
/// means files written before and after read the same everywhere, and lets a test compare
/// the two writers byte for byte.
///
/// This class knows the format only: how each object is encoded and how the offset table
/// and trailer end the file. Which objects there are, how they are numbered and which
/// are written once for all is the caller's business (TavloKeyedArchiver): it hands the
/// objects over in the order of their numbers, object 0 being the top object, a container
/// naming its members by the numbers the caller gave them. Nothing is kept but the output
/// and one offset per object, so an archive costs little more than its own bytes; the
/// calls made once per object are inline, since a queue's archive has tens of thousands.
///
/// The encodings libplist chose, which the caller's scalars must follow to be uniqued as
/// libplist uniqued them (equal encodings are one object):
///  - integers take 1, 2, 4 or 8 bytes, 8 for negative values; UIDs 1, 2 or 4 bytes;
///    a real that a float holds exactly is written as a 4-byte float;
///  - strings are ASCII when every byte is, else UTF-16 big-endian;
///  - references and offsets take the fewest of 1, 2, 3, 4 or 8 bytes that hold the
///    object count and the offset of the table: the caller says how wide references are
///    before the first object (see referenceBytesFor) and checks the count at the end.
///
/// Limits: no data, dates, sets or null objects (the archive has none); at most 4 GiB of
/// objects before the offset table, past which std::length_error is thrown.
class TavloBinaryPlistWriter {
 public:
  /// A writer whose references take `referenceBytes` bytes (1, 2, 3, 4 or 8). `expectedBytes`
  /// and `expectedObjects` size the buffers once, when the caller can guess.
  TavloBinaryPlistWriter(unsigned referenceBytes, std::size_t expectedBytes, std::size_t expectedObjects);
  TavloBinaryPlistWriter(const TavloBinaryPlistWriter&) = delete;
  TavloBinaryPlistWriter& operator=(const TavloBinaryPlistWriter&) = delete;

  /// The width of a reference in a property list of `objects` objects.
  static unsigned referenceBytesFor(std::size_t objects);
  /// Appends to `out` the encoding of a string object holding `utf8`: ASCII when every byte
  /// is below 0x80, else UTF-16, a byte that does not decode becoming U+FFFD.
  static void appendString(std::string& out, std::string_view utf8);
  /// How many readable bytes must follow an encoding handed to `encoded`.
  static constexpr std::size_t kEncodedPadding = 16;

  /// The number of the next object written: the count of those written so far.
  uint32_t objectCount() const { return count_; }

  // Each of these writes the next object of the file.
  /// A scalar already encoded (a string made by appendString), followed in memory by
  /// kEncodedPadding readable bytes: short ones are copied a fixed 16 bytes at a time.
  void encoded(const char* bytes, std::size_t size) {
    char* to = room(size);
    if (size <= 16) {
      std::memcpy(to, bytes, 16);
    } else {
      std::memcpy(to, bytes, size);
    }
    size_ += size;
  }
  void uid(uint32_t value) {
    char* to = room(5);
    if (value < 0x100) {
      to[0] = '\x80';
      to[1] = static_cast<char>(value);
      size_ += 2;
    } else if (value < 0x10000) {
      to[0] = '\x81';
      to[1] = static_cast<char>(value >> 8);
      to[2] = static_cast<char>(value);
      size_ += 3;
    } else {
      to[0] = '\x83';
      to[1] = static_cast<char>(value >> 24);
      to[2] = static_cast<char>(value >> 16);
      to[3] = static_cast<char>(value >> 8);
      to[4] = static_cast<char>(value);
      size_ += 5;
    }
  }
  /// For each i, UID(values[i]) if numbers[i] is the next object's number: the UIDs of an
  /// array met there first, in one go.
  void uids(const uint32_t* numbers, const uint32_t* values, std::size_t count);
  void integer(int64_t value);
  void real(double value);
  void boolean(bool value);
  void array(const uint32_t* references, std::size_t count) { container(0xA, references, count, 1); }
  /// A dictionary of `count` entries from `pairs`: key, value, key, value...
  void dictionary(const uint32_t* pairs, std::size_t count) { container(0xD, pairs, count, 2); }
  /// An array of `count` references that fillArray fills in later: the members of an
  /// archive's object list are numbered after the list itself. Returns where they go.
  std::size_t arrayToFill(std::size_t count);
  void fillArray(std::size_t at, const uint32_t* references, std::size_t count);

  /// The file: the objects, the offset table and the trailer, object 0 at the top. The
  /// writer is spent afterwards.
  std::string finish();

 private:
  // Where an object of at most `bytes` bytes goes, with 16 bytes to spare; its offset noted.
  char* room(std::size_t bytes) {
    if (out_.size() - size_ < bytes + 16 || count_ == offsetsSize_) grow(bytes + 16, 1);
    offsets_[count_++] = static_cast<uint32_t>(size_);
    return out_.data() + size_;
  }
  // Room for `bytes` more bytes and `objects` more offsets.
  void grow(std::size_t bytes, std::size_t objects);
  void container(unsigned kind, const uint32_t* references, std::size_t count, std::size_t stride);

  const unsigned referenceBytes_;
  std::string out_;  // sized ahead: the first size_ bytes are the file so far
  std::size_t size_ = 0;
  // The offset of each object, by number: the first count_ are written. Not initialised:
  // for a queue it is a few hundred kilobytes, each written once.
  std::unique_ptr<uint32_t[]> offsets_;
  std::size_t offsetsSize_ = 0;
  uint32_t count_ = 0;
};
