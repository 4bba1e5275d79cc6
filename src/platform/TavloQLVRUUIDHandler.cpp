#include "platform/TavloQLVRUUIDHandler.h"

#include "platform/TavloLogger.h"
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

// The keychain-style line above repeats on every hit and names only a status; this one
// comes once and says what it means for the hits, so that an operator who sees "uid"
// "-" in every hit finds why.
void TavloQLVRUUIDHandler::reportNoIdentifierOnce(const char* operation, int32_t status) {
  if (noIdentifierReported_) return;
  noIdentifierReported_ = true;
  const char* reason = status == TavloSecureStoreIOError
                           ? "it cannot be read or written: no data directory, or a folder this user may not write"
                       : status == TavloSecureStoreDecodeError ? "its stored item is damaged"
                                                               : "the store refused";
  TavloLogger::logTo(systemLog_.get(),
                     std::string("The device identifier cannot be ") + operation + " in the secure store (status " +
                         std::to_string(status) + ": " + reason + "); every hit carries \"uid\" \"-\" until it can be",
                     TavloLoggingModeError);
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
    reportNoIdentifierOnce("stored", status);
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
  reportNoIdentifierOnce("read", status);
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
