// A private folder for one test, removed with everything in it afterwards.
#pragma once

#include <string>

/// Makes a fresh folder under /tmp (mode 0700, via mkdtemp) and removes it recursively
/// when destroyed, whatever the test left inside, also after a failed assertion.
/// Throws std::system_error when no folder can be made: a test cannot go on without it.
class TavloTemporaryDirectory {
 public:
  TavloTemporaryDirectory();
  ~TavloTemporaryDirectory();
  TavloTemporaryDirectory(const TavloTemporaryDirectory&) = delete;
  TavloTemporaryDirectory& operator=(const TavloTemporaryDirectory&) = delete;

  /// The folder's absolute path, without a trailing slash.
  const std::string& path() const;
  /// path() + "/" + `relative`.
  std::string pathFor(const std::string& relative) const;

  /// Writes `contents` to `relative`, making its missing folders; for laying out fake
  /// system files. Throws std::system_error on failure.
  void writeFile(const std::string& relative, const std::string& contents) const;

 private:
  std::string folder;
};
