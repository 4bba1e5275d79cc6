// The key of the agent's table of audience taggers.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "tavlo/TavloTypes.h"

/// Serial and customer data of an audience tagger: an application that asks twice for a
/// tagger with the same pair gets the same tagger. Not archived. Immutable.
class TavloTaggerIdentifier {
 public:
  static std::shared_ptr<TavloTaggerIdentifier> TavloTaggerIdentifierWithSerial(TavloString serial,
                                                                                  TavloString customerData);
  TavloTaggerIdentifier(TavloString serial, TavloString customerData);

  const TavloString& serial() const { return serial_; }
  const TavloString& customerData() const { return customerData_; }

  std::shared_ptr<TavloTaggerIdentifier> copy() const;

  /// Serials equal (both nil counts as equal) and customer data equal likewise. Nil and
  /// the empty string are different values.
  bool isEqual(const TavloTaggerIdentifier& other) const;
  bool operator==(const TavloTaggerIdentifier& other) const { return isEqual(other); }

  /// 31 * hash(serial) + hash(customerData) + 961, wrapping; nil hashes as 0.
  uint64_t hash() const;

 private:
  const TavloString serial_;
  const TavloString customerData_;
};

template <>
struct std::hash<TavloTaggerIdentifier> {
  size_t operator()(const TavloTaggerIdentifier& id) const noexcept { return static_cast<size_t>(id.hash()); }
};
