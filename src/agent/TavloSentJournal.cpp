#include "agent/TavloSentJournal.h"

#include <algorithm>

#include "util/TavloStringHash.h"

namespace {

constexpr std::string_view kMagic = "TvloSnt1";

void appendLittleEndian(std::string& out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

uint64_t readLittleEndian(std::string_view in, std::size_t at, int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(static_cast<unsigned char>(in[at + i])) << (8 * i);
  return value;
}

}  // namespace

uint64_t TavloSentJournal::fingerprint(std::string_view queueFile) { return TavloStringHash(queueFile); }

std::string TavloSentJournal::header(uint64_t fingerprint) {
  std::string out(kMagic);
  appendLittleEndian(out, fingerprint, 8);
  return out;
}

std::string TavloSentJournal::entry(uint32_t position) {
  std::string out;
  appendLittleEndian(out, position, 4);
  return out;
}

std::vector<uint32_t> TavloSentJournal::sentPositions(std::string_view journal, uint64_t fingerprint,
                                                      std::size_t length) {
  const std::size_t headerSize = kMagic.size() + 8;
  if (journal.size() < headerSize || journal.substr(0, kMagic.size()) != kMagic ||
      readLittleEndian(journal, kMagic.size(), 8) != fingerprint) {
    return {};
  }
  std::vector<uint32_t> positions;
  std::vector<bool> seen(length, false);
  for (std::size_t at = headerSize; at + 4 <= journal.size(); at += 4) {
    const auto position = static_cast<uint32_t>(readLittleEndian(journal, at, 4));
    if (position >= length || seen[position]) continue;
    seen[position] = true;
    positions.push_back(position);
  }
  return positions;
}
