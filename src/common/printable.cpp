#include "printable.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <optional>

namespace kavel {

namespace {

// A character of UTF-8.
struct Character {
    char32_t code = 0;
    std::size_t size = 0; // in bytes
};

struct CodeRange {
    char32_t first;
    char32_t last;
};

constexpr std::array<CodeRange, 6> kUnprintable{{
    {0x00, 0x1F},     // the control characters of ASCII
    {0x7F, 0x9F},     // DEL, and the second range of control characters
    {0x061C, 0x061C}, // a direction mark
    {0x200E, 0x200F}, // direction marks
    {0x2028, 0x202E}, // line and paragraph separators; embeddings and overrides of the direction
    {0x2066, 0x2069}, // isolates of a direction
}};

constexpr std::size_t kSequenceMax = 4;
constexpr char32_t kLargestCode = 0x10FFFF;
constexpr CodeRange kSurrogates{0xD800, 0xDFFF};
constexpr char32_t kReplacementCharacter = 0xFFFD;

// The smallest code that needs so many bytes.
constexpr std::array<char32_t, kSequenceMax + 1> kSmallestCodes{0, 0, 0x80, 0x800, 0x10000};

constexpr bool Contains(CodeRange range, char32_t code)
{
    return code >= range.first && code <= range.last;
}

bool IsPrintable(char32_t code)
{
    return std::ranges::none_of(kUnprintable, [code](CodeRange range) { return Contains(range, code); });
}

// The first character of `text`, which is not empty; nothing when the first byte is not part of valid UTF-8.
std::optional<Character> DecodeFirst(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text.front());
    const auto size = static_cast<std::size_t>(std::countl_one(lead));
    if (size == 0) {
        return Character{lead, 1};
    }
    if (size == 1 || size > kSequenceMax || text.size() < size) {
        return std::nullopt;
    }
    char32_t code = lead & (0x7FU >> size);
    for (const char next : text.substr(1, size - 1)) {
        const auto byte = static_cast<unsigned char>(next);
        if ((byte & 0xC0U) != 0x80U) {
            return std::nullopt;
        }
        code = code << 6U | (byte & 0x3FU);
    }
    const bool isValid = code >= kSmallestCodes.at(size) && code <= kLargestCode && !Contains(kSurrogates, code);
    return isValid ? std::optional(Character{code, size}) : std::nullopt;
}

// Calls `replace(result, code)` for each character that is not printable; the code of an invalid byte is U+FFFD.
template <typename Replace>
std::string ReplaceUnprintable(std::string_view text, Replace replace)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::optional<Character> character = DecodeFirst(text);
        const std::size_t size = character ? character->size : 1;
        if (character && IsPrintable(character->code)) {
            result.append(text.substr(0, size));
        } else {
            replace(result, character ? character->code : kReplacementCharacter);
        }
        text.remove_prefix(size);
    }
    return result;
}

// All characters that are not printable have four digits at most.
void AppendEscape(std::string &text, char32_t code)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    text += "\\u";
    for (const unsigned shift : {12U, 8U, 4U, 0U}) {
        text += kDigits[(code >> shift) & 0xFU];
    }
}

} // namespace

std::string Printable(std::string_view text)
{
    return ReplaceUnprintable(text, [](std::string &result, char32_t /*code*/) { result += '?'; });
}

std::string PrintableJson(std::string_view json)
{
    return ReplaceUnprintable(json, [](std::string &result, char32_t code) {
        if (code == U'\n') {
            result += '\n';
        } else {
            AppendEscape(result, code);
        }
    });
}

} // namespace kavel
