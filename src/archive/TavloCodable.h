// What a record implements to travel through a keyed archive.
#pragma once

#include <string>
#include <vector>

class TavloKeyedArchiver;

/// A record that writes itself into a keyed archive under its own keys. Reading back is
/// done by a decoder function registered under the record's class name (see
/// TavloKeyedUnarchiver's class table), the counterpart of `initWithCoder`.
class TavloCodable {
 public:
  virtual ~TavloCodable() = default;

  /// The record's class followed by its ancestors, ending with "NSObject": written as
  /// "$classes", its first entry as "$classname". The same for every record of a class:
  /// an archive asks once per class.
  virtual std::vector<std::string> classChain() const = 0;

  /// Writes the record's fields with the archiver's encode operations.
  virtual void encodeWithCoder(TavloKeyedArchiver& coder) const = 0;
};
