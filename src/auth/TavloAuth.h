// A session and an access together: the authorisation a request is sent under.
#pragma once

#include <memory>

#include "archive/TavloCodable.h"
#include "auth/TavloAccess.h"
#include "auth/TavloSession.h"

class TavloKeyedUnarchiver;

/// The authorisation of one tagger identity. Copies share the session and access objects,
/// so marking the access of a copy marks the cached original too.
///
/// `isDefaultValues` is false for every record made in memory, whatever was passed at
/// creation: the authorisation cache relies on that to ask the server only once per
/// identity. Only a record read from an archive carries the flag it was stored with.
/// Immutable apart from the shared access's first-hit flag.
class TavloAuth final : public TavloCodable {
 public:
  static std::shared_ptr<TavloAuth> TavloAuthWithSession(std::shared_ptr<TavloSession> session,
                                                         std::shared_ptr<TavloAccess> access, bool isDefault);
  TavloAuth(std::shared_ptr<TavloSession> session, std::shared_ptr<TavloAccess> access, bool isDefault);

  const std::shared_ptr<TavloSession>& currentSession() const { return currentSession_; }
  const std::shared_ptr<TavloAccess>& currentAccess() const { return currentAccess_; }
  bool isDefaultValues() const { return defaultValues_; }

  /// A new record sharing this one's session and access objects.
  std::shared_ptr<TavloAuth> copy() const;

  static std::shared_ptr<TavloCodable> initWithCoder(TavloKeyedUnarchiver& coder);
  std::vector<std::string> classChain() const override;
  void encodeWithCoder(TavloKeyedArchiver& coder) const override;

 private:
  const std::shared_ptr<TavloSession> currentSession_;
  const std::shared_ptr<TavloAccess> currentAccess_;
  bool defaultValues_ = false;
};
