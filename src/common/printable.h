// Text from outside, made safe for a terminal and for a log.
#ifndef KAVEL_COMMON_PRINTABLE_H
#define KAVEL_COMMON_PRINTABLE_H

#include <string>
#include <string_view>

namespace kavel {

// `text` in UTF-8, with '?' in the place of what could control a terminal, end the line or change the order in which
// characters are shown: control characters (U+0000 to U+001F, U+007F to U+009F), bidirectional controls (U+061C,
// U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069), line and paragraph separators (U+2028, U+2029), and each byte
// that is not part of valid UTF-8.
std::string Printable(std::string_view text);

// `json`, a JSON text whose only control characters are line feeds between its tokens, with the escape \uXXXX in the
// place of each other character that Printable() replaces. The escape of a byte that is not part of valid UTF-8 is
// \ufffd.
std::string PrintableJson(std::string_view json);

} // namespace kavel

#endif
