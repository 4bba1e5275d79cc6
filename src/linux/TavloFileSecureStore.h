// The secure store on Linux: one private file per item.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "tavlo/platform/TavloFileSystem.h"
#include "tavlo/platform/TavloSecureStore.h"

/// Keeps each generic item in its own file inside `folder`, which is created with mode
/// 0700 on the first write; each item file has mode 0600 and is replaced atomically,
/// so a crash never leaves half an identifier behind.
///
/// The file is named "genp." followed by the service, the account and, when there is
/// one, the access group, joined by "." with every byte outside [A-Za-z0-9_-] escaped
/// as "%XX" (the dot included, so no two queries share a file, and no query can reach
/// outside `folder`). Its contents are the line "TAVLO-SECURE-ITEM 1" and then the
/// value's bytes, unchanged; a file without that first line is reported as damaged.
///
/// Without a keychain there is nothing to encrypt with that an attacker holding the
/// user's files would not also hold, so the protection is the file mode, as it is for
/// the user's other secrets (ssh keys, browser profiles).
///
/// Every operation holds `itemsProtector`, so an add racing another add of the same
/// item in this process yields exactly one success and one duplicate. Nothing throws:
/// any failure becomes a status. Callable from any thread.
class TavloFileSecureStore : public TavloSecureStore {
 public:
  /// The first line of every item file, version 1 of the stored form.
  static constexpr std::string_view itemHeader = "TAVLO-SECURE-ITEM 1\n";
  /// The largest value stored. Larger ones are refused with TavloSecureStoreIOError,
  /// and a larger file is reported as damaged rather than read whole.
  static constexpr std::size_t maxValueBytes = 64 * 1024;

  /// Without `files`, or with a `folder` that is not an absolute path (the process has
  /// no home to keep it in), every operation answers TavloSecureStoreIOError.
  TavloFileSecureStore(std::shared_ptr<TavloFileSystem> files, std::string folder);
  TavloFileSecureStore(const TavloFileSecureStore&) = delete;
  TavloFileSecureStore& operator=(const TavloFileSecureStore&) = delete;

  int32_t copyMatching(const TavloSecureItemQuery& query, std::string* data) override;
  int32_t add(const TavloSecureItemQuery& query, const std::string& data) override;
  int32_t update(const TavloSecureItemQuery& query, const std::string& data) override;
  int32_t remove(const TavloSecureItemQuery& query) override;

  /// The file that holds the item of `query`.
  std::string pathFor(const TavloSecureItemQuery& query) const;

 private:
  enum class Presence { absent, present, unreadable };
  template <typename Operation>
  int32_t guarded(Operation operation);
  Presence presenceOf(const std::string& path);
  int32_t copyLocked(const TavloSecureItemQuery& query, std::string* data);
  int32_t addLocked(const TavloSecureItemQuery& query, const std::string& data);
  int32_t updateLocked(const TavloSecureItemQuery& query, const std::string& data);
  int32_t removeLocked(const TavloSecureItemQuery& query);
  int32_t write(const std::string& path, const std::string& data);

  const std::shared_ptr<TavloFileSystem> files;
  const std::string folder;
  std::mutex itemsProtector;  // held for each whole operation, so checks and writes pair up
};
