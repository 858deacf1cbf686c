#include "printable.h"

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <string>

#include "json_reader.h"

namespace kavel {
namespace {

// The UTF-8 of a code, also of one that is not valid.
std::string Utf8(char32_t code)
{
    const auto tail = [code](unsigned shift) { return static_cast<char>(0x80U | ((code >> shift) & 0x3FU)); };
    if (code < 0x80) {
        return {static_cast<char>(code)};
    }
    if (code < 0x800) {
        return {static_cast<char>(0xC0U | (code >> 6U)), tail(0)};
    }
    if (code < 0x10000) {
        return {static_cast<char>(0xE0U | (code >> 12U)), tail(6), tail(0)};
    }
    return {static_cast<char>(0xF0U | (code >> 18U)), tail(12), tail(6), tail(0)};
}

bool IsReplaced(char32_t code)
{
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C || code == 0x200E || code == 0x200F ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

TEST(Printable, ReplacesExactlyTheControlsOfAllCharacters)
{
    constexpr char32_t kBlock = 0x100;
    for (char32_t first = 0; first <= 0x10FFFF; first += kBlock) {
        if (first >= 0xD800 && first <= 0xDFFF) {
            continue; // no characters
        }
        std::string text;
        std::string expected;
        for (char32_t code = first; code < first + kBlock; ++code) {
            const std::string character = Utf8(code);
            text += character;
            expected += IsReplaced(code) ? "?" : character;
        }
        ASSERT_EQ(Printable(text), expected) << "from " << static_cast<std::uint32_t>(first);
    }
}

TEST(Printable, KeepsTheTextAroundAControl)
{
    EXPECT_EQ(Printable("caf\u00e9 \t\x7f\u009bm \u00a0."), "caf\u00e9 ???m \u00a0.");
    EXPECT_EQ(Printable("abc\u202Edef\u2028\U0001F600"), "abc?def?\U0001F600");
    EXPECT_EQ(Printable(std::string("a\0b", 3)), "a?b");
    EXPECT_EQ(Printable(""), "");
}

TEST(Printable, ReplacesEachByteThatIsNotUtf8)
{
    EXPECT_EQ(Printable("a\x9B"
                        "b\xFF"),
              "a?b?");
    EXPECT_EQ(Printable("\x80\xBF\xC0\xC1\xF5\xF8\xFC\xFE"), "????????");
}

TEST(Printable, ReplacesACharacterThatIsCut)
{
    EXPECT_EQ(Printable("ends in \xC2"), "ends in ?");
    EXPECT_EQ(Printable("\xE2\x82"), "??");
    EXPECT_EQ(Printable("\xF0\x9F\x98"), "???");
    EXPECT_EQ(Printable("\xE2\x82"
                        "a"),
              "??a");
    EXPECT_EQ(Printable("\xC3\xC3\xA9"), "?\u00e9") << "the second byte begins a character of its own";
}

TEST(Printable, ReplacesCodesThatAreTooLong)
{
    EXPECT_EQ(Printable("\xC0\x9B\xC1\xBF"), "????");
    EXPECT_EQ(Printable("\xE0\x80\x9B\xE0\x9F\xBF"), "??????");
    EXPECT_EQ(Printable("\xF0\x80\x80\x9B\xF0\x8F\xBF\xBF"), "????????");
}

TEST(Printable, ReplacesSurrogatesAndCodesBeyondTheLast)
{
    for (const char32_t code : {0xD800U, 0xDBFFU, 0xDC00U, 0xDFFFU}) {
        EXPECT_EQ(Printable(Utf8(code)), "???");
    }
    for (const char32_t code : {0x110000U, 0x13FFFFU, 0x1FFFFFU}) {
        EXPECT_EQ(Printable(Utf8(code)), "????");
    }
}

TEST(PrintableJson, EscapesWhatIsNotPrintable)
{
    EXPECT_EQ(PrintableJson("{\n  \"caf\u00e9\": \"\u202E\u009b\x7f\"\n}"),
              "{\n  \"caf\u00e9\": \"\\u202e\\u009b\\u007f\"\n}");
    EXPECT_EQ(PrintableJson("\"\x9B\xC2\""), R"("\ufffd\ufffd")");
}

TEST(PrintableJson, IsTheSameValue)
{
    const std::string text = "\"a\u061C\u200E\u2028\u2066\u0080 \u00e9\"";
    const std::string escaped = PrintableJson(text);
    EXPECT_EQ(Printable(escaped), escaped);
    EXPECT_STREQ(json_object_get_string(ParseJson(escaped).get()), json_object_get_string(ParseJson(text).get()));
}

} // namespace
} // namespace kavel
