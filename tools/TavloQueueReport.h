// What a queue file holds, and what is wrong with it, as tavlo-queue reports it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/TavloCodable.h"

/// A queue file read the way the agent reads it (the library's own unarchiver and record
/// classes), plus the checks the agent does not make because it can simply drop what it
/// does not understand. Damage never stops the report: whatever could be decoded is kept
/// and listed, and every problem found is described.
///
/// Problems, in this order:
///  - the file could not be read, or the archive as a whole is unusable (then nothing is
///    listed), or some archived elements could not be decoded and were left out (the
///    unarchiver counts them);
///  - per element that was decoded: a record that is not a request, a request type,
///    sending mode or status the library does not define, a request without creation
///    date, tagger identity or parameters (keys that were damaged read as nil).
/// Elements are numbered by their place among the decoded ones, from #0.
class TavloQueueReport {
 public:
  /// Reads an archive held in memory.
  static TavloQueueReport fromData(std::string_view data);
  /// Reads a file. A missing or unreadable file, something that is not a regular file,
  /// and a file larger than the unarchiver accepts are problems of an unreadable report.
  static TavloQueueReport fromFile(const std::string& path);

  /// True when the archive opened and its list of elements was read (perhaps partly).
  bool isReadable() const { return readable_; }
  /// True when the file is readable and no problem was found.
  bool isValid() const { return readable_ && problems_.empty(); }
  /// Every problem found, one sentence each; empty for a sound file.
  const std::vector<std::string>& problems() const { return problems_; }
  /// The fingerprint (TavloSentJournal's) of the bytes `fromFile` read, so that the
  /// journal beside the file can be matched to them without reading the file again; 0
  /// for `fromData` and for an unreadable file.
  uint64_t fileFingerprint() const { return fileFingerprint_; }
  /// The decoded elements, in queue order.
  const std::vector<std::shared_ptr<TavloCodable>>& elements() const { return elements_; }

  /// "3 elements: 1 audience, 1 streaming, 1 clear-cache marker".
  std::string summary() const;
  /// A listing for people, headed by `name` and the summary. Every string from the file
  /// is quoted and escaped (TavloPrintable). Problems are not part of it.
  std::string text(const std::string& name) const;
  /// The same, problems included, as one JSON object (see tavlo-queue --help).
  std::string json(const std::string& name) const;

 private:
  void checkElements();

  bool readable_ = false;
  std::vector<std::string> problems_;
  std::vector<std::shared_ptr<TavloCodable>> elements_;
  uint64_t fileFingerprint_ = 0;
};
