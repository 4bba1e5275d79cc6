// Whole-field reads and writes under a mutex, for records whose fields are each read and
// replaced whole (taggers' properties, a request's fields).
#pragma once

#include <mutex>
#include <utility>

/// A copy of `field`, taken with `mutex` held.
template <class T>
T TavloLockedRead(std::mutex& mutex, const T& field) {
  std::lock_guard lock(mutex);
  return field;
}

/// Replaces `field` with `value`, with `mutex` held.
template <class T, class U>
void TavloLockedWrite(std::mutex& mutex, T& field, U&& value) {
  std::lock_guard lock(mutex);
  field = std::forward<U>(value);
}
