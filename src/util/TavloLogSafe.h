// Text from outside on its way into a log line.
#pragma once

#include <string>
#include <string_view>

/// `text` with every character that could end, split or disguise a log line written as
/// an escape, so a serial, a label or a server's answer can never forge a line of its
/// own: "\n", "\r" and "\t"; the other C0 controls, DEL and the C1 controls as
/// "\u00XX"; the line and paragraph separators and the bidirectional overrides and
/// isolates as "\uXXXX" (upper-case hexadecimal). Everything else, backslashes and
/// malformed UTF-8 included, is kept byte for byte, so escaping twice changes nothing.
///
/// Use it on each piece of a log message that comes from input, never on the fixed text
/// around it.
std::string TavloLogSafe(std::string_view text);
