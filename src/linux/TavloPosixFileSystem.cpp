#include "linux/TavloPosixFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <utility>
#include <vector>

namespace {

std::error_code lastError() { return std::error_code(errno, std::generic_category()); }

std::error_code errorOf(std::errc condition) { return std::make_error_code(condition); }

bool isAbsolute(const char* path) { return path != nullptr && path[0] == '/'; }

std::string homeFromPasswordEntry() {
  long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 16384);
  struct passwd entry {};
  struct passwd* found = nullptr;
  while (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < (1u << 20)) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr || !isAbsolute(found->pw_dir)) return {};
  return found->pw_dir;
}

// Closes a descriptor when the scope ends, keeping the first error for callers that
// care (a failed close after writing can mean the data never reached the disk).
class Descriptor {
 public:
  explicit Descriptor(int value) : value(value) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : value(std::exchange(other.value, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      close();
      value = std::exchange(other.value, -1);
    }
    return *this;
  }
  int get() const { return value; }
  bool isOpen() const { return value >= 0; }
  std::error_code close() {
    if (value < 0) return {};
    const int result = ::close(value);
    value = -1;
    // After EINTR Linux has already released the descriptor; retrying would close
    // someone else's.
    if (result != 0 && errno != EINTR) return lastError();
    return {};
  }

 private:
  int value;
};

std::error_code writeAll(int descriptor, std::string_view contents) {
  const char* next = contents.data();
  size_t remaining = contents.size();
  while (remaining > 0) {
    const ssize_t written = ::write(descriptor, next, remaining);
    if (written < 0) {
      if (errno == EINTR) continue;
      return lastError();
    }
    next += written;
    remaining -= static_cast<size_t>(written);
  }
  return {};
}

std::string parentOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Opens a temporary file that no other writer can be using: O_EXCL refuses a name
// that exists, and the name carries the process and a per-process counter so
// concurrent writers, in this process or another, pick different ones.
std::string temporaryPrefix(const std::string& target) { return "." + nameOf(target) + ".tmp-"; }

int openUniqueTemporary(const std::string& target, unsigned mode, std::string& temporaryPath) {
  static std::atomic<unsigned long> counter{0};
  const std::string prefix = parentOf(target) + "/" + temporaryPrefix(target) + std::to_string(getpid()) + "-";
  for (int attempt = 0; attempt < 100; ++attempt) {
    temporaryPath = prefix + std::to_string(counter.fetch_add(1));
    const int descriptor =
        ::open(temporaryPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode & 07777));
    if (descriptor >= 0 || errno != EEXIST) return descriptor;
  }
  errno = EEXIST;
  return -1;
}

std::error_code syncFolder(const std::string& folder) {
  Descriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.isOpen()) return lastError();
  // Some file systems cannot sync a directory at all (EINVAL); the rename is then as
  // durable as that file system makes it, which is not ours to improve.
  if (::fsync(directory.get()) != 0 && errno != EINVAL) return lastError();
  return {};
}

}  // namespace

TavloPosixFileSystem::TavloPosixFileSystem(std::optional<std::string> dataDirectoryOverride)
    : dataDirectoryOverride(std::move(dataDirectoryOverride)) {}

std::string TavloPosixFileSystem::dataDirectory() {
  if (dataDirectoryOverride) return *dataDirectoryOverride;
  // A relative XDG_DATA_HOME is invalid by the XDG rules and must be ignored: it would
  // put the viewer's identifier wherever the process happened to start.
  const char* xdgDataHome = std::getenv("XDG_DATA_HOME");
  if (isAbsolute(xdgDataHome)) return xdgDataHome;
  const char* home = std::getenv("HOME");
  if (isAbsolute(home)) return std::string(home) + "/.local/share";
  const std::string passwordHome = homeFromPasswordEntry();
  if (!passwordHome.empty()) return passwordHome + "/.local/share";
  return {};
}

std::error_code TavloPosixFileSystem::createDirectories(const std::string& path, unsigned mode) {
  if (path.empty()) return errorOf(std::errc::invalid_argument);
  size_t end = 0;
  while (end != std::string::npos) {
    end = path.find('/', end + 1);
    const std::string prefix = path.substr(0, end);
    if (prefix.empty() || prefix.back() == '/') continue;  // the root, or a doubled slash
    if (::mkdir(prefix.c_str(), static_cast<mode_t>(mode & 07777)) == 0) {
      // mkdir's mode passes through the umask; the caller asked for this one.
      if (::chmod(prefix.c_str(), static_cast<mode_t>(mode & 07777)) != 0) return lastError();
      continue;
    }
    if (errno != EEXIST) return lastError();
    const bool last = end == std::string::npos || path.find_first_not_of('/', end) == std::string::npos;
    struct stat status {};
    if ((last ? ::lstat(prefix.c_str(), &status) : ::stat(prefix.c_str(), &status)) != 0) return lastError();
    if (last && S_ISLNK(status.st_mode)) return errorOf(std::errc::too_many_symbolic_link_levels);
    if (!S_ISDIR(status.st_mode)) return errorOf(std::errc::not_a_directory);
    // A folder someone made before us, open to others, is narrowed; one we cannot narrow
    // (another user's) is refused.
    const mode_t allowed = static_cast<mode_t>(mode & 07777);
    if (last && (status.st_mode & 07777 & ~allowed) != 0 &&
        ::chmod(prefix.c_str(), static_cast<mode_t>(status.st_mode & 07777 & allowed)) != 0) {
      return lastError();
    }
    if (last) break;
  }
  return {};
}

std::error_code TavloPosixFileSystem::readFile(const std::string& path, std::string& contents, std::size_t maxBytes) {
  contents.clear();
  // O_NONBLOCK keeps a FIFO planted at the path from blocking the open; it changes
  // nothing for the regular files that are all we read.
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.isOpen()) return lastError();
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return lastError();
  if (S_ISDIR(status.st_mode)) return errorOf(std::errc::is_a_directory);
  if (!S_ISREG(status.st_mode)) return errorOf(std::errc::invalid_argument);
  if (status.st_size > 0 && static_cast<unsigned long long>(status.st_size) > maxBytes) {
    return errorOf(std::errc::file_too_large);
  }

  // The size from fstat is only a hint: /proc and /sys files report 0 or a page, and a
  // file can grow while it is read. Reading stops one byte past the cap.
  std::string buffer;
  char chunk[8192];
  for (;;) {
    const ssize_t count = ::read(file.get(), chunk, sizeof chunk);
    if (count < 0) {
      if (errno == EINTR) continue;
      return lastError();
    }
    if (count == 0) break;
    buffer.append(chunk, static_cast<size_t>(count));
    if (buffer.size() > maxBytes) return errorOf(std::errc::file_too_large);
  }
  contents = std::move(buffer);
  return {};
}

std::error_code TavloPosixFileSystem::writeFileAtomically(const std::string& path, std::string_view contents,
                                                          unsigned mode) {
  if (path.empty() || path.back() == '/') return errorOf(std::errc::invalid_argument);
  std::string temporaryPath;
  Descriptor temporary(openUniqueTemporary(path, mode, temporaryPath));
  if (!temporary.isOpen()) return lastError();

  auto failed = [&](std::error_code error) {
    temporary.close();
    ::unlink(temporaryPath.c_str());
    return error;
  };
  // The mode given to open passed through the umask; set the one asked for.
  if (::fchmod(temporary.get(), static_cast<mode_t>(mode & 07777)) != 0) return failed(lastError());
  if (auto error = writeAll(temporary.get(), contents)) return failed(error);
  if (::fsync(temporary.get()) != 0) return failed(lastError());
  if (auto error = temporary.close()) return failed(error);
  if (::rename(temporaryPath.c_str(), path.c_str()) != 0) return failed(lastError());
  return syncFolder(parentOf(path));
}

namespace {
// A regular file opened for appending, never through a link planted at its name.
std::error_code openForAppend(const std::string& path, unsigned mode, Descriptor& file) {
  file = Descriptor(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY,
                           static_cast<mode_t>(mode & 07777)));
  if (!file.isOpen()) return lastError();
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return lastError();
  if (!S_ISREG(status.st_mode)) return errorOf(std::errc::invalid_argument);
  return {};
}

class DescriptorAppender final : public TavloFileSystem::Appender {
 public:
  explicit DescriptorAppender(Descriptor&& file) : file_(std::move(file)) {}
  // No fdatasync: once write() returns, the page cache holds the bytes for any other
  // process and outlives this one. Syncing every append cost a flash write per hit sent.
  std::error_code append(std::string_view contents) override { return writeAll(file_.get(), contents); }

 private:
  Descriptor file_;
};
}  // namespace

std::error_code TavloPosixFileSystem::appendToFile(const std::string& path, std::string_view contents, unsigned mode) {
  Descriptor file(-1);
  if (auto error = openForAppend(path, mode, file)) return error;
  if (auto error = writeAll(file.get(), contents)) return error;
  return file.close();
}

std::unique_ptr<TavloFileSystem::Appender> TavloPosixFileSystem::openForAppending(const std::string& path,
                                                                                  unsigned mode,
                                                                                  std::error_code& error) {
  Descriptor file(-1);
  error = openForAppend(path, mode, file);
  if (error) return nullptr;
  return std::make_unique<DescriptorAppender>(std::move(file));
}

std::error_code TavloPosixFileSystem::removeFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0) return lastError();
  return {};
}

void TavloPosixFileSystem::removeLeftoverTemporaries(const std::string& path) {
  const std::string folder = parentOf(path);
  const std::string prefix = temporaryPrefix(path);
  DIR* directory = ::opendir(folder.c_str());
  if (directory == nullptr) return;
  while (const dirent* entry = ::readdir(directory)) {
    if (std::string_view(entry->d_name).starts_with(prefix)) ::unlinkat(::dirfd(directory), entry->d_name, 0);
  }
  ::closedir(directory);
}

namespace {
class FlockLock final : public TavloFileSystem::Lock {
 public:
  explicit FlockLock(int descriptor) : descriptor_(descriptor) {}
  ~FlockLock() override { ::close(descriptor_); }  // closing releases the lock

 private:
  const int descriptor_;
};
}  // namespace

std::unique_ptr<TavloFileSystem::Lock> TavloPosixFileSystem::tryLockFile(const std::string& path,
                                                                          std::error_code& error) {
  // O_NOFOLLOW: a link planted at the lock's name must not make us create its target.
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) {
    error = std::error_code(errno, std::generic_category());
    return nullptr;
  }
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    error = std::error_code(errno == EWOULDBLOCK ? EAGAIN : errno, std::generic_category());
    ::close(descriptor);
    return nullptr;
  }
  error.clear();
  return std::make_unique<FlockLock>(descriptor);
}
