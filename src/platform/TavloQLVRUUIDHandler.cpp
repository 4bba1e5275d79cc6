#include "platform/TavloQLVRUUIDHandler.h"

#include "util/TavloText.h"

namespace {
const char* const kService = "qlvr_uuid_service";
const char* const kAccount = "qlvr_uuid_account";
}  // namespace

TavloQLVRUUIDHandler::TavloQLVRUUIDHandler(std::shared_ptr<TavloSecureStore> store,
                                           std::shared_ptr<TavloRandom> random,
                                           std::shared_ptr<TavloLogSink> systemLog)
    : store_(std::move(store)), random_(std::move(random)), systemLog_(std::move(systemLog)) {}

TavloSecureItemQuery TavloQLVRUUIDHandler::query() const { return {kService, kAccount, accessGroup_}; }

void TavloQLVRUUIDHandler::writeSystemLog(const std::string& text, int32_t status) {
  if (systemLog_) systemLog_->writeLine(text + std::to_string(status), TavloLogLevel::Error);
}

std::string TavloQLVRUUIDHandler::generateUUID() { return random_ ? random_->newUUIDString() : std::string(); }

TavloString TavloQLVRUUIDHandler::storeUUID(bool update) {
  std::lock_guard lock(mutex_);
  return storeUUIDLocked(update);
}

TavloString TavloQLVRUUIDHandler::storeUUIDLocked(bool update) {
  const std::string uuid = generateUUID();
  if (uuid.empty() || !store_) return std::nullopt;
  const int32_t status = update ? store_->update(query(), uuid) : store_->add(query(), uuid);
  if (status != TavloSecureStoreSuccess) {
    writeSystemLog("QLVRUUIDHandler Keychain Save Error: ", status);
    return std::nullopt;
  }
  return uuid;
}

TavloString TavloQLVRUUIDHandler::UUID() {
  std::lock_guard lock(mutex_);
  if (!cachedUUID_.empty()) return cachedUUID_;
  if (!store_) return std::nullopt;

  int32_t status = store_->copyMatching(query(), nullptr);
  if (status == TavloSecureStoreSuccess) {
    std::string data;
    status = store_->copyMatching(query(), &data);
    if (status == TavloSecureStoreSuccess) {
      // Bytes that are not text leave the cache empty, as an item with no data does.
      if (TavloIsValidUTF8(data)) cachedUUID_ = data;
      if (cachedUUID_.empty()) return std::nullopt;
      return cachedUUID_;
    }
  }
  if (status == TavloSecureStoreItemNotFound) return storeUUIDLocked(false);
  writeSystemLog("QLVRUUIDHandler Unhandled Keychain Error ", status);
  return std::nullopt;
}

void TavloQLVRUUIDHandler::reset() {
  std::lock_guard lock(mutex_);
  cachedUUID_.clear();
  if (!store_) return;
  if (store_->copyMatching(query(), nullptr) == TavloSecureStoreItemNotFound) return;
  const int32_t status = store_->remove(query());
  if (status != TavloSecureStoreSuccess) writeSystemLog("QLVRUUIDHandler Keychain Delete Error: ", status);
}

TavloString TavloQLVRUUIDHandler::accessGroup() const {
  std::lock_guard lock(mutex_);
  return accessGroup_;
}

void TavloQLVRUUIDHandler::setAccessGroup(TavloString group) {
  std::lock_guard lock(mutex_);
  accessGroup_ = std::move(group);
}
