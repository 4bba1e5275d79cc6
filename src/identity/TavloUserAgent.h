// The "User-Agent" text by which the library introduces itself to both servers.
#pragma once

#include <string>

#include "tavlo/platform/TavloDeviceInfo.h"

/// "<bundle name>/<bundle version> Tavlo SDK v<version> apple <tv|ipad|iphone>", with
/// "(null)" standing for a missing name or version. It sits below both the agent (every
/// hit) and the authorisation manager (every exchange), which each send it.
/// Threads: any thread (the device-information seam is thread-safe).
std::string TavloUserAgentOf(TavloDeviceInfo& deviceInfo);
