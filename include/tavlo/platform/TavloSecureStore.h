// Platform seam: a small persistent store for secrets (the device identifier).
#pragma once

#include <cstdint>
#include <string>

#include "tavlo/TavloExport.h"
#include "tavlo/TavloTypes.h"

/// Status codes of the secure store. The first three are the values a keychain reports
/// and must be kept; the others are distinct codes for what else can go wrong.
enum TavloSecureStoreStatus : int32_t {
  TavloSecureStoreSuccess = 0,
  TavloSecureStoreItemNotFound = -25300,
  TavloSecureStoreDuplicateItem = -25299,
  /// The item could not be read or written (permissions, full disk, missing folder).
  TavloSecureStoreIOError = -36,
  /// The item exists but its stored form is damaged.
  TavloSecureStoreDecodeError = -26275,
};

/// Identifies one generic item: its service, its account and, when present, the access
/// group that shares it between applications.
struct TAVLO_EXPORT TavloSecureItemQuery {
  std::string service;      ///< the item's service
  std::string account;      ///< the item's account
  TavloString accessGroup;  ///< absent: the application's own items
};

/// A keychain-like store of generic items that outlive the application's installation.
/// Implementations must be callable from any thread.
class TAVLO_EXPORT TavloSecureStore {
 public:
  virtual ~TavloSecureStore() = default;
  /// Tells whether the item exists; when `data` is not null, also reads its value.
  virtual int32_t copyMatching(const TavloSecureItemQuery& query, std::string* data) = 0;
  /// Adds a new item; TavloSecureStoreDuplicateItem if it already exists.
  virtual int32_t add(const TavloSecureItemQuery& query, const std::string& data) = 0;
  /// Replaces the value of an existing item; TavloSecureStoreItemNotFound if there is none.
  virtual int32_t update(const TavloSecureItemQuery& query, const std::string& data) = 0;
  /// Deletes the item; TavloSecureStoreItemNotFound if there is none.
  virtual int32_t remove(const TavloSecureItemQuery& query) = 0;
};
