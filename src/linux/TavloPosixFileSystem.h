// Files on a POSIX system.
#pragma once

#include <optional>
#include <string>

#include "tavlo/platform/TavloFileSystem.h"

/// The file seam on Linux, straight on the system calls. Holds no state besides the
/// optional data-directory override, so it is callable from any thread; two threads
/// replacing the same file at once each write their own temporary file and the last
/// rename wins, whole.
class TavloPosixFileSystem : public TavloFileSystem {
 public:
  /// With `dataDirectoryOverride`, dataDirectory() answers it as it is (tests, and
  /// applications that keep their data elsewhere).
  explicit TavloPosixFileSystem(std::optional<std::string> dataDirectoryOverride = std::nullopt);

  /// The override, else $XDG_DATA_HOME when it is an absolute path, else
  /// $HOME/.local/share, else the home folder of the user's password entry followed by
  /// /.local/share. Empty when the process has no home at all: the caller then has no
  /// private place to write and should not pretend it has.
  std::string dataDirectory() override;

  /// Directories this call makes get exactly `mode`, whatever the process's umask.
  std::error_code createDirectories(const std::string& path, unsigned mode) override;

  /// Only regular files are read: a directory is refused with EISDIR, anything else
  /// (a FIFO, a device) with EINVAL, so nothing can block or stream forever.
  std::error_code readFile(const std::string& path, std::string& contents, std::size_t maxBytes) override;

  /// Writes a fresh temporary file next to `path`, flushes it to the disk, renames it
  /// over `path` and flushes the folder, so the rename itself survives a power cut.
  /// On failure the temporary file is removed and `path` is left as it was.
  std::error_code writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode) override;

  /// O_APPEND, without a sync: once write(2) returns, the bytes outlive the process. A
  /// symbolic link at `path`, or anything but a regular file, is refused.
  std::error_code appendToFile(const std::string& path, std::string_view contents, unsigned mode) override;
  /// The same, on one descriptor kept open until the appender is destroyed.
  std::unique_ptr<Appender> openForAppending(const std::string& path, unsigned mode, std::error_code& error) override;

  std::error_code removeFile(const std::string& path) override;
  /// Removes the ".<name>.tmp-<pid>-<n>" files next to `path`.
  void removeLeftoverTemporaries(const std::string& path) override;
  /// flock(2) on a descriptor of its own: two holders in one process exclude each other
  /// as two processes do. A symbolic link at `path` is refused, never followed.
  std::unique_ptr<Lock> tryLockFile(const std::string& path, std::error_code& error) override;

 private:
  const std::optional<std::string> dataDirectoryOverride;
};
