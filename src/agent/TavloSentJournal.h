// The record of what was sent since the queue file was last written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Sending a hit removes it from the queue, and that removal must be on disk before the
/// next hit goes out, or a process killed in the middle of a drain sends again what was
/// already answered. Rewriting the whole queue file for every hit sent costs a full
/// encode and a rewrite of up to a megabyte of flash per hit; instead the agent appends
/// the sent hit's position in the last written queue file to a small journal beside it,
/// "requests.ser.sent". The queue file itself is rewritten only when something else
/// changes the queue (new hits were queued, the library shuts down after such a change),
/// which empties the journal; the journal holds at most one entry per request of the file.
///
/// Appends are not synced to the storage: a killed process leaves them in the page cache,
/// where the next start reads them, so a kill resends at most the hit in flight. A power
/// cut during a burst may take back the entries since the queue file was last written,
/// and those hits are then sent twice; it never loses one, since the queue file itself is
/// synced. Syncing each append would cost a flash write per hit sent.
///
/// Layout: the 8 bytes "TvloSnt1", the fingerprint of the queue file the positions refer
/// to (8 bytes, little-endian), then one 4-byte little-endian position per sent hit. A
/// journal whose fingerprint is not that of the queue file beside it (the process died
/// between writing a new queue file and removing the journal) is ignored, as is a torn
/// last entry; positions beyond the queue are ignored.
class TavloSentJournal {
 public:
  /// The journal of the queue file at `queuePath`.
  static std::string pathFor(const std::string& queuePath) { return queuePath + ".sent"; }

  /// Identifies the bytes of one queue file (FNV-1a, 64 bits).
  static uint64_t fingerprint(std::string_view queueFile);

  /// What starts a journal for the queue file of `fingerprint`.
  static std::string header(uint64_t fingerprint);
  /// One sent hit, at `position` in that queue file.
  static std::string entry(uint32_t position);

  /// The positions `journal` lists for the queue file of `fingerprint` holding `length`
  /// entries, each once, in the order sent; nothing when the journal is another file's or
  /// not a journal at all.
  static std::vector<uint32_t> sentPositions(std::string_view journal, uint64_t fingerprint, std::size_t length);
};
