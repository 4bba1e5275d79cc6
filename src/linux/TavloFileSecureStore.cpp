#include "linux/TavloFileSecureStore.h"

#include <system_error>

namespace {

bool isKept(unsigned char byte) {
  return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
         byte == '_' || byte == '-';
}

std::string escaped(const std::string& text) {
  static constexpr char hexDigits[] = "0123456789ABCDEF";
  std::string result;
  result.reserve(text.size());
  for (const unsigned char byte : text) {
    if (isKept(byte)) {
      result.push_back(static_cast<char>(byte));
    } else {
      result.push_back('%');
      result.push_back(hexDigits[byte >> 4]);
      result.push_back(hexDigits[byte & 0x0F]);
    }
  }
  return result;
}

bool isMissing(std::error_code error) { return error == std::errc::no_such_file_or_directory; }

}  // namespace

TavloFileSecureStore::TavloFileSecureStore(std::shared_ptr<TavloFileSystem> files, std::string folder)
    : files(std::move(files)), folder(std::move(folder)) {}

std::string TavloFileSecureStore::pathFor(const TavloSecureItemQuery& query) const {
  std::string path = folder + "/genp." + escaped(query.service) + "." + escaped(query.account);
  if (query.accessGroup) path += "." + escaped(*query.accessGroup);
  return path;
}

// A file too large to be an item still is one, damaged; only a missing file is absent.
TavloFileSecureStore::Presence TavloFileSecureStore::presenceOf(const std::string& path) {
  std::string ignored;
  const std::error_code error = files->readFile(path, ignored, maxValueBytes + itemHeader.size());
  if (!error || error == std::errc::file_too_large) return Presence::present;
  if (isMissing(error)) return Presence::absent;
  return Presence::unreadable;
}

int32_t TavloFileSecureStore::write(const std::string& path, const std::string& data) {
  if (data.size() > maxValueBytes) return TavloSecureStoreIOError;
  if (files->createDirectories(folder, 0700)) return TavloSecureStoreIOError;
  std::string contents;
  contents.reserve(itemHeader.size() + data.size());
  contents.append(itemHeader);
  contents.append(data);
  if (files->writeFileAtomically(path, contents, 0600)) return TavloSecureStoreIOError;
  return TavloSecureStoreSuccess;
}

int32_t TavloFileSecureStore::copyLocked(const TavloSecureItemQuery& query, std::string* data) {
  std::string contents;
  const std::error_code error = files->readFile(pathFor(query), contents, maxValueBytes + itemHeader.size());
  if (isMissing(error)) return TavloSecureStoreItemNotFound;
  if (error == std::errc::file_too_large) return TavloSecureStoreDecodeError;
  if (error) return TavloSecureStoreIOError;
  if (contents.compare(0, itemHeader.size(), itemHeader) != 0) return TavloSecureStoreDecodeError;
  if (data != nullptr) *data = contents.substr(itemHeader.size());
  return TavloSecureStoreSuccess;
}

int32_t TavloFileSecureStore::addLocked(const TavloSecureItemQuery& query, const std::string& data) {
  const std::string path = pathFor(query);
  switch (presenceOf(path)) {
    case Presence::present: return TavloSecureStoreDuplicateItem;
    case Presence::unreadable: return TavloSecureStoreIOError;
    case Presence::absent: break;
  }
  return write(path, data);
}

// A damaged item can be updated: writing a good value over it is how it gets repaired.
int32_t TavloFileSecureStore::updateLocked(const TavloSecureItemQuery& query, const std::string& data) {
  const std::string path = pathFor(query);
  switch (presenceOf(path)) {
    case Presence::absent: return TavloSecureStoreItemNotFound;
    case Presence::unreadable: return TavloSecureStoreIOError;
    case Presence::present: break;
  }
  return write(path, data);
}

int32_t TavloFileSecureStore::removeLocked(const TavloSecureItemQuery& query) {
  const std::error_code error = files->removeFile(pathFor(query));
  if (isMissing(error)) return TavloSecureStoreItemNotFound;
  if (error) return TavloSecureStoreIOError;
  return TavloSecureStoreSuccess;
}

// The public operations add the lock, the check that there is somewhere to keep items
// and the promise not to throw: an allocation failure is reported like any other
// failure to store.
template <typename Operation>
int32_t TavloFileSecureStore::guarded(Operation operation) {
  if (!files || folder.empty() || folder.front() != '/') return TavloSecureStoreIOError;
  try {
    std::lock_guard<std::mutex> lock(itemsProtector);
    return operation();
  } catch (...) {
    return TavloSecureStoreIOError;
  }
}

int32_t TavloFileSecureStore::copyMatching(const TavloSecureItemQuery& query, std::string* data) {
  return guarded([&] { return copyLocked(query, data); });
}

int32_t TavloFileSecureStore::add(const TavloSecureItemQuery& query, const std::string& data) {
  return guarded([&] { return addLocked(query, data); });
}

int32_t TavloFileSecureStore::update(const TavloSecureItemQuery& query, const std::string& data) {
  return guarded([&] { return updateLocked(query, data); });
}

int32_t TavloFileSecureStore::remove(const TavloSecureItemQuery& query) {
  return guarded([&] { return removeLocked(query); });
}
