// Text from outside, made safe for one line on a terminal or in a log.
#ifndef KAVEL_COMMON_PRINTABLE_H
#define KAVEL_COMMON_PRINTABLE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace kavel {

// `text` with each control character replaced by '?', so that it can neither control a terminal nor end the line.
inline std::string Printable(std::string_view text)
{
    const auto isControl = [](unsigned char byte) { return byte < 0x20U || byte == 0x7FU; };
    // The second range of control characters, U+0080 to U+009F, in UTF-8.
    const auto isEncodedControl = [](std::string_view rest) {
        return rest.size() >= 2 && rest[0] == '\xC2' && (static_cast<unsigned char>(rest[1]) & 0xE0U) == 0x80U;
    };
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool hasTwoBytes = isEncodedControl(text.substr(i));
        result += hasTwoBytes || isControl(static_cast<unsigned char>(text[i])) ? '?' : text[i];
        i += hasTwoBytes ? 1 : 0;
    }
    return result;
}

} // namespace kavel

#endif
