// The library's version, for applications and for tools that inspect the binary.
#pragma once

#include "tavlo/TavloExport.h"

/// The library version, "5.4.5". Also sent as "v" with every hit and in the
/// "User-Agent" header.
inline constexpr const char* TavloVersionString = "5.4.5";

extern "C" {
/// Build-version marker, as what(1) finds it: "@(#)PROGRAM:Tavlo_tvOS  PROJECT:TavloUniversal-1\n"
/// followed by a NUL. Exported from the shared library under exactly this name.
TAVLO_EXPORT extern const unsigned char Tavlo_tvOSVersionString[];
/// Build-version number, 1.0. Exported from the shared library under exactly this name.
TAVLO_EXPORT extern const double Tavlo_tvOSVersionNumber;
}
