#include "tavlo/testkit/TavloMemorySecureStore.h"

TavloMemorySecureStore::Key TavloMemorySecureStore::keyOf(const TavloSecureItemQuery& query) {
  return Key(query.service, query.account, query.accessGroup);
}

std::optional<int32_t> TavloMemorySecureStore::beginLocked(Operation operation) {
  ++callCounts[operation];
  const auto failure = failures.find(operation);
  if (failure == failures.end()) return std::nullopt;
  return failure->second;
}

int32_t TavloMemorySecureStore::copyMatching(const TavloSecureItemQuery& query, std::string* data) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  if (auto failure = beginLocked(Operation::copy)) return *failure;
  const auto found = items.find(keyOf(query));
  if (found == items.end()) return TavloSecureStoreItemNotFound;
  if (data != nullptr) *data = found->second;
  return TavloSecureStoreSuccess;
}

int32_t TavloMemorySecureStore::add(const TavloSecureItemQuery& query, const std::string& data) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  if (auto failure = beginLocked(Operation::add)) return *failure;
  const bool inserted = items.emplace(keyOf(query), data).second;
  return inserted ? TavloSecureStoreSuccess : TavloSecureStoreDuplicateItem;
}

int32_t TavloMemorySecureStore::update(const TavloSecureItemQuery& query, const std::string& data) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  if (auto failure = beginLocked(Operation::update)) return *failure;
  const auto found = items.find(keyOf(query));
  if (found == items.end()) return TavloSecureStoreItemNotFound;
  found->second = data;
  return TavloSecureStoreSuccess;
}

int32_t TavloMemorySecureStore::remove(const TavloSecureItemQuery& query) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  if (auto failure = beginLocked(Operation::remove)) return *failure;
  return items.erase(keyOf(query)) > 0 ? TavloSecureStoreSuccess : TavloSecureStoreItemNotFound;
}

void TavloMemorySecureStore::setFailure(Operation operation, int32_t status) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  failures[operation] = status;
}

void TavloMemorySecureStore::clearFailure(Operation operation) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  failures.erase(operation);
}

void TavloMemorySecureStore::clearFailures() {
  std::lock_guard<std::mutex> lock(itemsProtector);
  failures.clear();
}

int TavloMemorySecureStore::calls(Operation operation) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  const auto found = callCounts.find(operation);
  return found == callCounts.end() ? 0 : found->second;
}

void TavloMemorySecureStore::resetCalls() {
  std::lock_guard<std::mutex> lock(itemsProtector);
  callCounts.clear();
}

std::optional<std::string> TavloMemorySecureStore::item(const TavloSecureItemQuery& query) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  const auto found = items.find(keyOf(query));
  if (found == items.end()) return std::nullopt;
  return found->second;
}

void TavloMemorySecureStore::setItem(const TavloSecureItemQuery& query, const std::string& data) {
  std::lock_guard<std::mutex> lock(itemsProtector);
  items[keyOf(query)] = data;
}

size_t TavloMemorySecureStore::itemCount() {
  std::lock_guard<std::mutex> lock(itemsProtector);
  return items.size();
}
