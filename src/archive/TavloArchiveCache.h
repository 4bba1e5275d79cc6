// What one save of the queue file leaves for the next: texts encoded once, and the texts of
// each parameter dictionary in the order an archive names them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tavlo/TavloTypes.h"

/// Lets TavloKeyedArchiver skip, from one archive to the next, the work that does not
/// change: a save of the queue file usually follows a small change (a hit appended, a few
/// sent from the head), so nearly every text of the queue was checked, hashed and encoded
/// by the save before.
///
/// It holds:
///  - every text met in recent archives, once, with the bytes of its property-list
///    string: an identifier per text, found by a hash of the text, so that an archive
///    numbers equal texts by array look-ups instead of comparing them;
///  - for each parameter dictionary the last archive named, the identifiers of its keys
///    and values in the order an archive names them, found by the dictionary's address.
///    A queued request's dictionary never changes once made (it is replaced whole, see
///    TavloRequest), and the cache holds it (a shared pointer) as long as it keeps its
///    entry, so an address always names the dictionary the entry was made from.
///
/// Memory: after each archive, the entries of dictionaries it did not name are dropped,
/// and with them the cache's hold on those dictionaries (a hit sent from the queue is
/// held until the next save at most); when the texts it did not name outnumber a third of
/// those it did (plus a few hundred), the texts are packed into memory of their own size,
/// and buffers that grew by doubling give back what they no longer need. What stays is
/// about what the last archive named: some 60 bytes per distinct text and 5 per
/// parameter, about 1.3 MB for a full queue of 500 hits of 35 values all their own and
/// 0.4 MB when values repeat as they do in practice (bench/TavloQueueFileBench.cpp prints
/// it), and some ten kilobytes once the queue is empty.
///
/// The output never depends on what the cache holds: an archive made through a cache is
/// byte for byte the one made without.
///
/// Not thread-safe: one archive at a time (the agent uses it under the lock that orders
/// its saves). Copying is deleted; what it holds is worth nothing to another owner.
class TavloArchiveCache {
 public:
  TavloArchiveCache();
  ~TavloArchiveCache();
  TavloArchiveCache(const TavloArchiveCache&) = delete;
  TavloArchiveCache& operator=(const TavloArchiveCache&) = delete;

  /// The bytes the cache holds, roughly: for the benchmark.
  std::size_t memoryBytes() const;

 private:
  friend class TavloKeyedArchiver;
  static constexpr uint32_t kNone = UINT32_MAX;

  /// A text as given to the archiver, and what a property list makes of it.
  struct Text {
    uint32_t encodedAt;  // its string object's bytes in bytes_, shared with `canon`'s
    uint32_t encodedSize;
    uint32_t rawAt;      // the text as given, in bytes_ (inside the encoding for plain ASCII)
    uint32_t rawSize;
    // The text that stands for this one in a property list: itself, unless the text is
    // not valid UTF-8 or holds a NUL, then its repaired form (U+FFFD in place of each
    // bad byte). Texts that repair alike are one string object, yet each its own "$objects"
    // entry: the archive's entries go by the text as given.
    uint32_t canon;
    uint32_t archive;  // the last archive that named it
  };
  /// A parameter dictionary's texts: key, value, key, value, in the map's order.
  struct Dictionary {
    std::shared_ptr<const TavloParameters> held;  // keeps the address from naming another
    uint32_t first;    // its texts in dictionaryTexts_
    uint32_t pairs;
    uint32_t archive;  // the last archive that named it
    uint32_t uid;      // its "$objects" entry in that archive
  };

  /// The identifier of `raw`, made (and encoded) the first time it is met.
  uint32_t intern(std::string_view raw);
  std::string_view raw(uint32_t text) const { return {bytes_.data() + texts_[text].rawAt, texts_[text].rawSize}; }
  /// Its string object's bytes, followed by TavloBinaryPlistWriter::kEncodedPadding more.
  const char* encoded(uint32_t text) const { return bytes_.data() + texts_[text].encodedAt; }
  /// Notes that the current archive names `text`.
  void name(uint32_t text) {
    Text& t = texts_[text];
    if (t.archive != archive_) {
      t.archive = archive_;
      ++named_;
    }
  }
  /// The index in dictionaries_ of the entry of `parameters`, made the first time.
  uint32_t dictionary(const std::shared_ptr<const TavloParameters>& parameters);

  /// Starts an archive.
  void beginArchive();
  /// After an archive made in full: drops the dictionaries it did not name, and packs the
  /// texts when too many are no longer named.
  void endArchive();

  static uint64_t hash(std::string_view text);
  static std::size_t slotOf(const TavloParameters* address, std::size_t mask);
  uint32_t add(std::string_view raw, uint64_t hash);
  void index(uint64_t hash, uint32_t text);
  void indexDictionary(uint32_t dictionary);
  void pack();

  // The texts' encodings, and their raw forms where these differ, then padding.
  std::string bytes_;
  std::vector<Text> texts_;
  // Texts by hash, in open addressing over slots holding hash << 32 | (text + 1), 0 when free.
  std::vector<uint64_t> slots_;
  std::vector<Dictionary> dictionaries_;
  std::vector<uint32_t> dictionaryTexts_;
  // Dictionaries by address, in open addressing over slots holding index + 1, 0 when free.
  std::vector<uint32_t> dictionarySlots_;
  uint32_t archive_ = 0;    // the number of the current (or last) archive
  std::size_t named_ = 0;   // texts the current archive named

  // Sizes of the last archive, to size the next one's buffers once.
  std::size_t lastEntries_ = 0;
  std::size_t lastUIDs_ = 0;
  std::size_t lastFields_ = 0;
  std::size_t lastObjects_ = 0;
  std::size_t lastBytes_ = 0;
  unsigned lastReferenceBytes_ = 0;
};
