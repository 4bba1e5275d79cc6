// What the C interface keeps behind its platform handle, shared with its tests.
#pragma once

#include "tavlo/TavloTypes.h"
#include "tavlo/platform/TavloPlatform.h"
#include "tavlo/tavlo.h"

/// A platform as a C program describes it: only what the C interface lets it set. The
/// TavloPlatform itself is built when installed, because the Linux device information
/// takes the application's name and version at construction.
struct tavlo_platform_t {
  TavloApplicationInfo application;
  /// Every endpoint at this base; the built-in endpoints while absent.
  TavloString endpointsBaseURL;
};

/// The platform tavlo_platform_install installs for `platform`: the Linux defaults with
/// the application's name and version, and the endpoints it chose.
TavloPlatform TavloPlatformFromC(const tavlo_platform_t& platform);
