// Bounds on what the library sends over HTTP.
#pragma once

#include <cstddef>

/// The longest URL the library ever sends, in bytes. libcurl writes a request's line and
/// headers into one buffer of at most 1 MiB and refuses the whole request when they do
/// not fit; 64 KiB of that is left to the "Host", "User-Agent" and other headers. A hit
/// longer than this can never be sent, by any client: refuse it where it is made.
inline constexpr std::size_t TavloMaxUrlBytes = 1024 * 1024 - 64 * 1024;
