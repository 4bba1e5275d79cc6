// Which texts from outside may become part of a request target. Leaf helpers: no other
// folder of the library is needed, so fuzz targets and tools can reach them alone.
#pragma once

#include <string_view>

/// Whether `serial` can stand as it is, unescaped, as one segment of a URL path: the
/// authorisation URL is the endpoint, "/" and the serial, and a collection address ends
/// with it. Only the characters a path segment carries without escaping are allowed
/// (ASCII letters and digits and "-._~!$&'()*+,;=:@"); so "/", "?", "#", "%", blanks,
/// control characters and anything outside ASCII are not. "." and ".." are refused too:
/// they name the segment above, not a serial. The empty text is refused.
bool TavloIsUsableSerial(std::string_view serial);

/// Whether `host` (the collection base address an authorisation answer names) can start
/// a hit URL: an absolute "http://" or "https://" address with a non-empty authority,
/// made only of printable ASCII that URLs carry unescaped, without a query ("?") or a
/// fragment ("#") that would swallow the hit's own query. Blanks, control characters,
/// non-ASCII bytes and any other scheme are refused.
bool TavloIsUsableHostURL(std::string_view host);
