// A secure store in memory, with failures on demand.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>

#include "tavlo/platform/TavloSecureStore.h"

/// Items live in a map keyed by service, account and access group (an absent group and
/// an empty one are different items, as in the file store). Each operation can be made
/// to fail with a chosen status: while a failure is set for an operation, every call of
/// it answers that status and changes nothing. Every call is counted, failed or not.
/// Callable from any thread; `itemsProtector` guards everything.
class TavloMemorySecureStore : public TavloSecureStore {
 public:
  enum class Operation { copy, add, update, remove };

  int32_t copyMatching(const TavloSecureItemQuery& query, std::string* data) override;
  int32_t add(const TavloSecureItemQuery& query, const std::string& data) override;
  int32_t update(const TavloSecureItemQuery& query, const std::string& data) override;
  int32_t remove(const TavloSecureItemQuery& query) override;

  /// Makes `operation` answer `status` until clearFailure or clearFailures.
  void setFailure(Operation operation, int32_t status);
  void clearFailure(Operation operation);
  void clearFailures();

  /// The number of calls of `operation` so far.
  int calls(Operation operation);
  void resetCalls();

  /// Direct access to the items, bypassing failures and counters.
  std::optional<std::string> item(const TavloSecureItemQuery& query);
  void setItem(const TavloSecureItemQuery& query, const std::string& data);
  size_t itemCount();

 private:
  using Key = std::tuple<std::string, std::string, std::optional<std::string>>;
  static Key keyOf(const TavloSecureItemQuery& query);
  /// Counts the call and answers the failure set for it, if any. REQUIRES: lock held.
  std::optional<int32_t> beginLocked(Operation operation);

  std::mutex itemsProtector;
  std::map<Key, std::string> items;            // guarded by itemsProtector
  std::map<Operation, int32_t> failures;       // guarded by itemsProtector
  std::map<Operation, int> callCounts;         // guarded by itemsProtector
};
