// Platform seam: the device advertising identifier.
#pragma once

#include "tavlo/TavloExport.h"
#include "tavlo/TavloTypes.h"

/// Supplies the advertising identifier that taggers send as "did" when their `useIDFA`
/// switch is on. None is registered by default: Linux has no such identifier, and a
/// platform shim that has one registers a provider. The application remains responsible
/// for the viewer's consent; the library does not ask.
class TAVLO_EXPORT TavloAdvertisingIdProvider {
 public:
  virtual ~TavloAdvertisingIdProvider() = default;
  /// The identifier as a UUID string, or nothing.
  virtual TavloString advertisingIdentifier() = 0;
};
