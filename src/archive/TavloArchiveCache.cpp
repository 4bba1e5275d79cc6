#include "archive/TavloArchiveCache.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "archive/TavloBinaryPlistWriter.h"
#include "util/TavloText.h"

namespace {

constexpr std::size_t kFirstSlots = 1024;
constexpr std::size_t kPadding = TavloBinaryPlistWriter::kEncodedPadding;
// Texts no archive names any more are let pile up to a third of the rest, plus this many.
constexpr std::size_t kUnnamedSlack = 256;

bool isAscii(std::string_view text) {
  for (const char c : text) {
    if (c == '\0' || static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}
// Text a property-list string carries as it is: valid UTF-8 without NUL.
bool isPlain(std::string_view text) { return TavloIsValidUTF8(text) && text.find('\0') == text.npos; }

uint64_t load64(const char* at) {
  uint64_t value;
  std::memcpy(&value, at, 8);
  return value;
}
uint64_t load32(const char* at) {
  uint32_t value;
  std::memcpy(&value, at, 4);
  return value;
}

// Gives back the memory of a buffer that grew by doubling once it holds less than two
// thirds of it, keeping a quarter to spare: a queue that grew and shrank again, or a
// cache filled in one go, keeps about what it needs.
template <class Buffer>
void trim(Buffer& buffer) {
  if (buffer.capacity() * sizeof(buffer[0]) <= 4096 || 3 * buffer.size() >= 2 * buffer.capacity()) return;
  Buffer kept;
  kept.reserve(buffer.size() + buffer.size() / 4);
  kept.insert(kept.end(), std::make_move_iterator(buffer.begin()), std::make_move_iterator(buffer.end()));
  buffer.swap(kept);
}

// The fewest power-of-two slots that hold `entries` at most three quarters full.
std::size_t slotsFor(std::size_t entries) {
  std::size_t slots = kFirstSlots;
  while (3 * slots < 4 * (entries + 1)) slots *= 2;
  return slots;
}

}  // namespace

TavloArchiveCache::TavloArchiveCache()
    : bytes_(kPadding, '\0'), slots_(kFirstSlots, 0), dictionarySlots_(kFirstSlots, 0) {}

TavloArchiveCache::~TavloArchiveCache() = default;

std::size_t TavloArchiveCache::memoryBytes() const {
  return sizeof(*this) + bytes_.capacity() + texts_.capacity() * sizeof(Text) + slots_.capacity() * sizeof(uint64_t) +
         dictionaries_.capacity() * sizeof(Dictionary) + dictionaryTexts_.capacity() * sizeof(uint32_t) +
         dictionarySlots_.capacity() * sizeof(uint32_t);
}

// A word at a time: keys and values are mostly a dozen to a few dozen bytes.
uint64_t TavloArchiveCache::hash(std::string_view text) {
  const char* bytes = text.data();
  std::size_t size = text.size();
  uint64_t h = 0x9E3779B97F4A7C15ULL * (size + 1);
  const auto mix = [&](uint64_t word) {
    h = (h ^ word) * 0xFF51AFD7ED558CCDULL;
    h ^= h >> 32;
  };
  for (; size > 8; bytes += 8, size -= 8) mix(load64(bytes));
  // The last one to eight bytes: the text's last word, overlapping the one before, or two
  // overlapping halves, or byte by byte.
  if (text.size() >= 8) {
    mix(load64(text.data() + text.size() - 8));
  } else if (size >= 4) {
    mix(load32(bytes) << 32 | load32(bytes + size - 4));
  } else if (size > 0) {
    uint64_t tail = 0x0101010101010101ULL;
    for (std::size_t i = 0; i < size; ++i) tail = tail << 8 | static_cast<unsigned char>(bytes[i]);
    mix(tail);
  }
  // MurmurHash3's finaliser: the last bytes of a text sit in the high bits of its last
  // word, and must reach the bits that choose the slot.
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ULL;
  h ^= h >> 33;
  return h;
}

uint32_t TavloArchiveCache::intern(std::string_view raw) {
  const uint64_t h = hash(raw);
  const uint64_t tag = h >> 32;
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = tag & mask;; at = (at + 1) & mask) {
    const uint64_t held = slots_[at];
    if (held == 0) break;
    if (held >> 32 != tag) continue;
    const auto text = static_cast<uint32_t>((held & 0xFFFFFFFF) - 1);
    const Text& t = texts_[text];
    if (t.rawSize == raw.size() && std::memcmp(bytes_.data() + t.rawAt, raw.data(), raw.size()) == 0) return text;
  }
  return add(raw, h);
}

uint32_t TavloArchiveCache::add(std::string_view raw, uint64_t hash) {
  // An encoding takes at most four bytes per byte of text, plus its marker and count.
  if (texts_.size() >= std::numeric_limits<uint32_t>::max() - 1 ||
      raw.size() > (std::numeric_limits<uint32_t>::max() - bytes_.size()) / 8 - 2 * kPadding) {
    throw std::length_error("archive texts past 4 GiB");
  }
  Text t{};
  bytes_.resize(bytes_.size() - kPadding);
  const bool ascii = isAscii(raw);
  if (ascii || isPlain(raw)) {
    t.canon = static_cast<uint32_t>(texts_.size());
    t.encodedAt = static_cast<uint32_t>(bytes_.size());
    TavloBinaryPlistWriter::appendString(bytes_, raw);
    t.encodedSize = static_cast<uint32_t>(bytes_.size() - t.encodedAt);
  } else {
    // Made before this text, so that a packing which keeps texts in order meets it first.
    bytes_.append(kPadding, '\0');
    t.canon = intern(TavloReplacingInvalidUTF8(raw));
    bytes_.resize(bytes_.size() - kPadding);
    t.encodedAt = texts_[t.canon].encodedAt;
    t.encodedSize = texts_[t.canon].encodedSize;
  }
  if (ascii) {
    // The encoding of ASCII holds the text as given, after the marker and count.
    t.rawAt = t.encodedAt + t.encodedSize - static_cast<uint32_t>(raw.size());
  } else {
    t.rawAt = static_cast<uint32_t>(bytes_.size());
    bytes_.append(raw);
  }
  t.rawSize = static_cast<uint32_t>(raw.size());
  bytes_.append(kPadding, '\0');
  const auto text = static_cast<uint32_t>(texts_.size());
  texts_.push_back(t);
  index(hash, text);
  return text;
}

void TavloArchiveCache::index(uint64_t hash, uint32_t text) {
  if (4 * (texts_.size() + 1) > 3 * slots_.size()) {
    // Three quarters full: twice the slots, each entry placed again by the hash it holds.
    std::vector<uint64_t> grown(2 * slots_.size(), 0);
    const std::size_t mask = grown.size() - 1;
    for (const uint64_t held : slots_) {
      if (held == 0) continue;
      std::size_t at = (held >> 32) & mask;
      while (grown[at] != 0) at = (at + 1) & mask;
      grown[at] = held;
    }
    slots_ = std::move(grown);
  }
  const uint64_t tag = hash >> 32;
  const std::size_t mask = slots_.size() - 1;
  std::size_t at = tag & mask;
  while (slots_[at] != 0) at = (at + 1) & mask;
  slots_[at] = tag << 32 | (uint64_t{text} + 1);
}

std::size_t TavloArchiveCache::slotOf(const TavloParameters* address, std::size_t mask) {
  return static_cast<std::size_t>(reinterpret_cast<uintptr_t>(address) * 0x9E3779B97F4A7C15ULL >> 32) & mask;
}

uint32_t TavloArchiveCache::dictionary(const std::shared_ptr<const TavloParameters>& parameters) {
  const std::size_t mask = dictionarySlots_.size() - 1;
  for (std::size_t at = slotOf(parameters.get(), mask); dictionarySlots_[at] != 0; at = (at + 1) & mask) {
    const uint32_t known = dictionarySlots_[at] - 1;
    if (dictionaries_[known].held.get() == parameters.get()) return known;
  }
  const std::size_t first = dictionaryTexts_.size();
  try {
    for (const auto& [key, value] : *parameters) {
      dictionaryTexts_.push_back(intern(key));
      dictionaryTexts_.push_back(intern(value));
    }
  } catch (...) {
    dictionaryTexts_.resize(first);
    throw;
  }
  dictionaries_.push_back(Dictionary{parameters, static_cast<uint32_t>(first),
                                     static_cast<uint32_t>(parameters->size()), 0, kNone});
  const auto made = static_cast<uint32_t>(dictionaries_.size() - 1);
  indexDictionary(made);
  return made;
}

void TavloArchiveCache::indexDictionary(uint32_t dictionary) {
  if (4 * (dictionaries_.size() + 1) > 3 * dictionarySlots_.size()) {
    dictionarySlots_.assign(2 * dictionarySlots_.size(), 0);
    for (uint32_t i = 0; i < dictionary; ++i) indexDictionary(i);
  }
  const std::size_t mask = dictionarySlots_.size() - 1;
  std::size_t at = slotOf(dictionaries_[dictionary].held.get(), mask);
  while (dictionarySlots_[at] != 0) at = (at + 1) & mask;
  dictionarySlots_[at] = dictionary + 1;
}

void TavloArchiveCache::beginArchive() {
  named_ = 0;
  // Number 0 is never an archive's: a text just made is not named until it is.
  if (++archive_ == 0) {
    for (Text& t : texts_) t.archive = 0;
    for (Dictionary& d : dictionaries_) d.archive = 0;
    archive_ = 1;
  }
}

void TavloArchiveCache::endArchive() {
  // The dictionaries the archive named, in their order, their texts moved down together.
  std::size_t kept = 0;
  std::size_t keptTexts = 0;
  for (Dictionary& d : dictionaries_) {
    if (d.archive != archive_) continue;
    if (d.first != keptTexts) {
      std::copy_n(dictionaryTexts_.begin() + d.first, 2 * std::size_t{d.pairs}, dictionaryTexts_.begin() + keptTexts);
    }
    d.first = static_cast<uint32_t>(keptTexts);
    keptTexts += 2 * std::size_t{d.pairs};
    if (kept != static_cast<std::size_t>(&d - dictionaries_.data())) dictionaries_[kept] = std::move(d);
    ++kept;
  }
  dictionaries_.resize(kept);
  dictionaryTexts_.resize(keptTexts);
  trim(dictionaries_);
  trim(dictionaryTexts_);
  const std::size_t slots = slotsFor(kept);
  if (slots < dictionarySlots_.size() / 4) {
    dictionarySlots_ = std::vector<uint32_t>(slots, 0);
  } else {
    std::fill(dictionarySlots_.begin(), dictionarySlots_.end(), 0);
  }
  for (uint32_t i = 0; i < kept; ++i) indexDictionary(i);

  if (texts_.size() - named_ > named_ / 3 + kUnnamedSlack) {
    pack();
  } else {
    trim(texts_);
    trim(bytes_);
  }
}

// Keeps the texts the last archive named, in their order, in memory of their own size.
void TavloArchiveCache::pack() {
  for (const uint32_t text : dictionaryTexts_) texts_[text].archive = archive_;
  // A repaired text keeps the text that stands for it, which comes before it.
  for (std::size_t i = texts_.size(); i-- > 0;) {
    if (texts_[i].archive == archive_) texts_[texts_[i].canon].archive = archive_;
  }
  // Plain ASCII is the only text whose raw form lies inside its own encoding.
  const auto rawInEncoding = [&](std::size_t i) {
    const Text& t = texts_[i];
    return t.canon == i && (static_cast<unsigned char>(bytes_[t.encodedAt]) >> 4) == 0x5;
  };
  std::size_t named = 0;
  std::size_t size = 0;
  for (std::size_t i = 0; i < texts_.size(); ++i) {
    if (texts_[i].archive != archive_) continue;
    ++named;
    size += (texts_[i].canon == i ? texts_[i].encodedSize : 0) + (rawInEncoding(i) ? 0 : texts_[i].rawSize);
  }
  std::vector<uint32_t> moved(texts_.size(), kNone);
  std::vector<Text> texts;
  std::string bytes;
  // Room for the texts that may come before the next packing, so that none moves them.
  texts.reserve(named + named / 3 + kUnnamedSlack);
  bytes.reserve(size + size / 3 + kPadding);
  for (std::size_t i = 0; i < texts_.size(); ++i) {
    Text t = texts_[i];
    if (t.archive != archive_) continue;
    if (t.canon == i) {
      t.canon = static_cast<uint32_t>(texts.size());
      t.encodedAt = static_cast<uint32_t>(bytes.size());
      bytes.append(encoded(static_cast<uint32_t>(i)), t.encodedSize);
    } else {
      t.canon = moved[t.canon];
      t.encodedAt = texts[t.canon].encodedAt;
    }
    if (rawInEncoding(i)) {
      t.rawAt = t.encodedAt + (texts_[i].rawAt - texts_[i].encodedAt);
    } else {
      t.rawAt = static_cast<uint32_t>(bytes.size());
      bytes.append(raw(static_cast<uint32_t>(i)));
    }
    moved[i] = static_cast<uint32_t>(texts.size());
    texts.push_back(t);
  }
  bytes.append(kPadding, '\0');
  const std::size_t slots = slotsFor(named + named / 3 + kUnnamedSlack);
  std::vector<uint64_t> index(slots, 0);
  for (const uint64_t held : slots_) {
    if (held == 0) continue;
    const uint32_t text = moved[(held & 0xFFFFFFFF) - 1];
    if (text == kNone) continue;
    std::size_t at = (held >> 32) & (slots - 1);
    while (index[at] != 0) at = (at + 1) & (slots - 1);
    index[at] = (held >> 32) << 32 | (uint64_t{text} + 1);
  }
  for (uint32_t& text : dictionaryTexts_) text = moved[text];
  bytes_ = std::move(bytes);
  texts_ = std::move(texts);
  slots_ = std::move(index);
}
