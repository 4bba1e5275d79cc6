// Helpers for tests that push records through real archive files.
#pragma once

#include <memory>
#include <string>

#include "archive/TavloCodable.h"

/// Archives `record` into a file under a fresh temporary folder, reads the file back and
/// unarchives it with the library's record classes. Null if anything fails.
std::shared_ptr<TavloCodable> TavloRoundTripThroughFile(const TavloCodable& record);

template <class T>
std::shared_ptr<T> TavloRoundTrip(const TavloCodable& record) {
  return std::dynamic_pointer_cast<T>(TavloRoundTripThroughFile(record));
}

/// The keys of the archived dictionary of the first object of class `className` in the
/// archive `data`, sorted and joined with ",". Empty if there is no such object.
std::string TavloArchivedKeysOfClass(const std::string& data, const std::string& className);
