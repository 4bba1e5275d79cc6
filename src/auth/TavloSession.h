// The visit a serial's hits belong to.
#pragma once

#include <memory>

#include "archive/TavloCodable.h"
#include "tavlo/TavloTypes.h"

class TavloKeyedUnarchiver;

/// A serial and its visit identifier `cmsVI` (sent with streaming hits), from the
/// authorisation server or made up locally. Immutable; archived under keys spelt
/// "TavloSesion_..." with one "s", the spelling earlier queue files carry.
class TavloSession final : public TavloCodable {
 public:
  static std::shared_ptr<TavloSession> TavloSessionWithSerial(TavloString serial, TavloString cmsVI);
  TavloSession(TavloString serial, TavloString cmsVI);

  const TavloString& serial() const { return serial_; }
  const TavloString& cmsVI() const { return cmsVI_; }

  std::shared_ptr<TavloSession> copy() const;

  static std::shared_ptr<TavloCodable> initWithCoder(TavloKeyedUnarchiver& coder);
  std::vector<std::string> classChain() const override;
  void encodeWithCoder(TavloKeyedArchiver& coder) const override;

 private:
  const TavloString serial_;
  const TavloString cmsVI_;
};
