// Text helpers: the library's strings are UTF-8, but lengths and cuts of parameter values
// count UTF-16 code units, as the platforms the library first ran on count them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Whether `text` is well-formed UTF-8 (no overlongs, no surrogates, nothing above U+10FFFF).
bool TavloIsValidUTF8(std::string_view text);
