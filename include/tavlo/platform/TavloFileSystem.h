// Platform seam: files in the user's private data directory.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "tavlo/TavloExport.h"

/// The few file operations the library needs. Paths are absolute. Errors are returned,
/// never thrown; "no such file" is std::errc::no_such_file_or_directory.
/// Implementations must be callable from any thread.
class TAVLO_EXPORT TavloFileSystem {
 public:
  virtual ~TavloFileSystem() = default;

  /// The per-user private data directory ($XDG_DATA_HOME, else ~/.local/share on Linux).
  virtual std::string dataDirectory() = 0;

  /// Creates `path` and any missing parents with `mode` (e.g. 0700). An existing
  /// directory is success; `path` itself is then narrowed to `mode` if it allows more
  /// (the parents that existed are left as they are), and an error when that cannot be
  /// done or `path` is a symbolic link, so private data never sits in a folder others
  /// can reach.
  virtual std::error_code createDirectories(const std::string& path, unsigned mode) = 0;

  /// Reads the whole file into `contents`. A file larger than `maxBytes` is refused with
  /// std::errc::file_too_large and `contents` left empty, so a hostile file cannot make
  /// the library allocate without bound.
  virtual std::error_code readFile(const std::string& path, std::string& contents, std::size_t maxBytes) = 0;

  /// Replaces the file at `path` with `contents` atomically: after a crash the file holds
  /// either the old contents or the new ones, never a mix. The file gets `mode` (e.g. 0600).
  virtual std::error_code writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode) = 0;

  /// Appends `contents` to the file at `path` (made with `mode` if missing). On return the
  /// bytes must outlive the process (a kill right after still finds them), but need not be
  /// flushed to the storage: a power cut may take the append back. After a crash the file
  /// holds its old contents followed by a prefix of `contents`. The default rewrites the
  /// whole file atomically; a platform that can append in place should.
  virtual std::error_code appendToFile(const std::string& path, std::string_view contents, unsigned mode) {
    std::string whole;
    std::error_code error = readFile(path, whole, 64 * 1024 * 1024);
    if (error && error != std::errc::no_such_file_or_directory) return error;
    whole.append(contents);
    return writeFileAtomically(path, whole, mode);
  }

  /// A file held open for a series of appends; destroying it closes the file.
  class Appender {
   public:
    virtual ~Appender() = default;
    /// Appends `contents` with the guarantees of `appendToFile`.
    virtual std::error_code append(std::string_view contents) = 0;
  };
  /// Opens the file at `path` (made with `mode` if missing) for a caller that appends to
  /// it many times over: one open for the whole series instead of one per append. The
  /// caller drops the appender before it replaces or removes the file. Nothing, with
  /// `error` set, when the file cannot be opened. The default needs nothing new from a
  /// platform: each append goes through `appendToFile`. A platform that can keep the
  /// file open should.
  virtual std::unique_ptr<Appender> openForAppending(const std::string& path, unsigned mode, std::error_code& error) {
    class ByPath final : public Appender {
     public:
      ByPath(TavloFileSystem& files, std::string path, unsigned mode)
          : files_(files), path_(std::move(path)), mode_(mode) {}
      std::error_code append(std::string_view contents) override { return files_.appendToFile(path_, contents, mode_); }

     private:
      TavloFileSystem& files_;
      const std::string path_;
      const unsigned mode_;
    };
    error.clear();
    return std::make_unique<ByPath>(*this, path, mode);
  }
  /// Removes the file; a missing file is std::errc::no_such_file_or_directory.
  virtual std::error_code removeFile(const std::string& path) = 0;

  /// Held while it exists; destroying it releases the lock.
  class Lock {
   public:
    virtual ~Lock() = default;
  };

  /// Removes what interrupted `writeFileAtomically` calls for `path` left behind (a
  /// process killed in the middle of one leaves its temporary file). Call it only while
  /// no writer of `path` can be running. Platforms whose writes leave nothing behind
  /// keep the default, which does nothing.
  virtual void removeLeftoverTemporaries(const std::string& path) { (void)path; }

  /// Takes an exclusive advisory lock on `path` (created with mode 0600 if missing)
  /// without waiting. Nothing, with `error` set, when another holder has it
  /// (std::errc::resource_unavailable_try_again) or the file cannot be opened. A platform
  /// without such locks answers an empty lock: every caller gets it.
  virtual std::unique_ptr<Lock> tryLockFile(const std::string& path, std::error_code& error) {
    error.clear();
    (void)path;
    return std::make_unique<Lock>();
  }
};
