#include "json_reader.h"

#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "input_error.h"
#include "json_text.h"

namespace kavel {
namespace {

std::string RefusalOf(const std::function<void()> &read)
{
    try {
        read();
    } catch (const InputError &error) {
        return error.what();
    }
    return "accepted";
}

std::string SyntaxError(const std::string &text)
{
    return RefusalOf([&] { ParseJson(text); });
}

// The refusal of a document that consists of one value.
template <typename Read>
std::string RefusedValue(const std::string &text, Read read)
{
    const JsonPtr json = ParseJson(text);
    return RefusalOf([&] { read(JsonValue{json.get(), {}}); });
}

TEST(ParseJson, AcceptsEveryKindOfValue)
{
    for (const char *text : {"{}", "[]", "7", "-1.5", "\"text\"", "true", " \t\r\n{} \t\r\n"}) {
        EXPECT_TRUE(ParseJson(text)) << text;
    }
    EXPECT_FALSE(ParseJson("null"));
}

TEST(ParseJson, RefusesATextThatEndsEarly)
{
    EXPECT_EQ(SyntaxError(""), "line 1, column 1: unexpected end of file");
    EXPECT_EQ(SyntaxError("  \n "), "line 2, column 2: unexpected end of file");
    EXPECT_EQ(SyntaxError("{"), "line 1, column 2: unexpected end of file");
    EXPECT_EQ(SyntaxError("[1,\n\"a"), "line 2, column 3: unexpected end of file");
    EXPECT_EQ(SyntaxError("tru"), "line 1, column 4: unexpected end of file");
}

TEST(ParseJson, RefusesTextAfterTheValue)
{
    EXPECT_EQ(SyntaxError("{}\n  x"), "line 2, column 3: unexpected text after the value");
    EXPECT_EQ(SyntaxError("7 8"), "line 1, column 3: unexpected text after the value");
    EXPECT_EQ(SyntaxError("\"\u00e9\" x"), "line 1, column 5: unexpected text after the value");
}

TEST(ParseJson, RefusesNulCharacters)
{
    EXPECT_EQ(SyntaxError(std::string("{}\0", 3)), "line 1, column 3: NUL character");
    EXPECT_EQ(SyntaxError(std::string("{}\n\0x", 5)), "line 2, column 1: NUL character");
    EXPECT_EQ(SyntaxError(std::string("[\0]", 3)), "line 1, column 2: NUL character");
    EXPECT_EQ(SyntaxError(std::string("\0", 1)), "line 1, column 1: NUL character");
}

TEST(ParseJson, CountsColumnsInCharacters)
{
    EXPECT_EQ(SyntaxError("{\"\u00e9\u20ac\U0001F310\" 1}"),
              "line 1, column 8: object property name separator ':' expected");
    EXPECT_EQ(SyntaxError("[\"\u00e9\",\n\"\u00e9\" 1]"), "line 2, column 5: array value separator ',' expected");
}

TEST(ParseJson, IsStrict)
{
    EXPECT_EQ(SyntaxError("[1,,2]"), "line 1, column 4: unexpected character");
    EXPECT_EQ(SyntaxError("[,1]"), "line 1, column 2: unexpected character");
    EXPECT_EQ(SyntaxError("\"\xFF\""), "line 1, column 2: invalid utf-8 string");
    EXPECT_EQ(SyntaxError(std::string(100, '[')), "line 1, column 33: nesting too deep");
}

TEST(ParseJson, RefusesASecondValue)
{
    const std::string second = " begins here; put each into a file of its own";
    EXPECT_EQ(SyntaxError("{}{}"), "line 1, column 3: a second value" + second);
    EXPECT_EQ(SyntaxError("{}\n,\n{}"), "line 2, column 1: a second value" + second);
    EXPECT_EQ(RefusalOf([] { ParseJson("{}\n {}", {.noun = "message"}); }),
              "line 2, column 2: a second message" + second);
    EXPECT_EQ(SyntaxError("{},"), "line 1, column 3: unexpected text after the value");
}

TEST(ParseJson, NamesUsualMistakes)
{
    EXPECT_EQ(SyntaxError("[1, ]"), R"(line 1, column 3: trailing comma; none may stand before "]")");
    EXPECT_EQ(SyntaxError("{\"a\": 1,\n}"), R"(line 1, column 8: trailing comma; none may stand before "}")");
    EXPECT_EQ(SyntaxError("// why\n{}"), "line 1, column 1: comment; JSON has none");
    EXPECT_EQ(SyntaxError("[1, /* why */ 2]"), "line 1, column 5: comment; JSON has none");
    EXPECT_EQ(SyntaxError("{\n# why\n}"), "line 2, column 1: comment; JSON has none");
    EXPECT_EQ(SyntaxError("{} # why"), "line 1, column 4: comment; JSON has none");
    EXPECT_EQ(SyntaxError("\xEF\xBB\xBF{}"), "line 1, column 1: byte order mark; save the file as UTF-8 without one");
    EXPECT_EQ(SyntaxError("\xFF\xFE{"), "line 1, column 1: UTF-16; save the file as UTF-8");
    EXPECT_EQ(SyntaxError("['a']"), "line 1, column 2: single quote; use \"");
}

TEST(ParseJson, NamesTypographicQuotes)
{
    EXPECT_EQ(SyntaxError("{“a”: 1}"), "line 1, column 2: typographic quote U+201C; use \"");
    EXPECT_EQ(SyntaxError("[‘a’]"), "line 1, column 2: typographic quote U+2018; use \"");
    EXPECT_EQ(SyntaxError("{\"a”: 1}"), "line 1, column 4: typographic quote U+201D; use \"");
    EXPECT_EQ(SyntaxError("{\"a”: 1, \"b\": 2}"), "line 1, column 4: typographic quote U+201D; use \"");
    EXPECT_EQ(SyntaxError("[\"it’s\", 1 2]"), "line 1, column 12: array value separator ',' expected");
    EXPECT_EQ(SyntaxError("[\"it’s\"]"), "accepted");
}

TEST(ParseJson, RefusesRepeatedKeys)
{
    EXPECT_EQ(SyntaxError(R"({"a": 1, "a": 1})"), R"(line 1, column 10: key "a" is there twice)");
    EXPECT_EQ(SyntaxError("{\"é\": [\n{\"b\": {}, \"c\": [1, 2],\n  \"b\": \"x\"}]}"),
              R"(line 3, column 3: key "b" is there twice)");
    EXPECT_EQ(SyntaxError(R"({"a\b": 1, "\u0061\u005Cb": 2})"), R"(accepted)");
    EXPECT_EQ(SyntaxError(R"({"ab": 1, "\u0061b": 2})"), R"(line 1, column 11: key "ab" is there twice)");
    EXPECT_EQ(SyntaxError(R"({"a\u0000b": 1, "a": 2})"), R"(line 1, column 17: key "a" is there twice)");
    EXPECT_EQ(SyntaxError(R"({"a\n": 1, "a\n": 2})"), R"(line 1, column 12: key "a?" is there twice)");
    EXPECT_EQ(SyntaxError(R"({"": 1, "": 2})"), R"(line 1, column 9: key "" is there twice)");
}

TEST(ParseJson, AcceptsAKeyThatOnlyAnotherObjectHas)
{
    for (const char *text : {R"({"a": {"a": {"a": "a"}}})", R"([{"a": 1}, {"a": 2}])", R"({"a": "b", "b": "a"})",
                             R"({"a": ["a", "a"], "b": ["{", "\"a\":", "a"]})", R"({"a": 1, "A": 2})"}) {
        EXPECT_EQ(SyntaxError(text), "accepted") << text;
    }
}

TEST(ParseJson, GivesEveryRepeatedKeyToTheSink)
{
    std::vector<std::string> errors;
    const ErrorSink note = [&](const std::string &error) { errors.push_back(error); };
    const JsonPtr json =
        ParseJson("{\"a\": 1, \"a\": 2,\n\"b\": {\"a\": 1},\n \"b\": 3, \"a\": 4}", {.noun = "value", .errors = &note});
    EXPECT_EQ(errors, (std::vector<std::string>{R"(line 1, column 10: key "a" is there twice)",
                                                R"(line 3, column 2: key "b" is there twice)",
                                                R"(line 3, column 10: key "a" is there twice)"}));
    EXPECT_TRUE(json);
}

TEST(UnknownKeyText, SuggestsANearName)
{
    const std::vector<std::string_view> known = {"vpnid",      "enable",    "dnshosts", "dnsservers",
                                                 "dnsproxies", "dnsmxhost", "ip",       "ipv6"};
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"VpnID", "vpnid"},        {"vpn_id", "vpnid"},       {"vpn", "vpnid"},      {"dnshost", "dnshosts"},
        {"dsnhosts", "dnshosts"},  {"servers", "dnsservers"}, {"enabled", "enable"}, {"dnsmx", "dnsmxhost"},
        {"proxies", "dnsproxies"}, {"ip6", "ipv6"},           {"ipv4", "ip"},
    };
    for (const auto &[key, meant] : cases) {
        EXPECT_EQ(UnknownKeyText(key, known), "unknown key; did you mean \"" + meant + "\"?") << key;
    }
    for (const char *key : {"", "colour", "dns", "ttl", "localip6address", "n"}) {
        EXPECT_EQ(UnknownKeyText(key, known), "unknown key") << key;
    }
    EXPECT_EQ(UnknownKeyText(std::string(65, 'v'), known), "unknown key");
    EXPECT_EQ(UnknownKeyText("vpnid", {}), "unknown key");
}

TEST(JsonPath, NamesEachStep)
{
    const JsonPath root;
    const JsonPath list = root.Key("vpns");
    const JsonPath element = list.Index(1);
    const JsonPath inner = element.Key("lan");
    EXPECT_EQ(root.Text(), "");
    EXPECT_EQ(list.Text(), "vpns");
    EXPECT_EQ(inner.Index(0).Text(), "vpns[1].lan[0]");
    const JsonPath outermost = root.Index(2);
    EXPECT_EQ(outermost.Key("a").Text(), "[2].a");
    EXPECT_EQ(root.Key("").Text(), R"("")");
}

TEST(JsonValue, RefusesAnotherType)
{
    const auto readBool = [](const JsonValue &value) { return value.Bool(); };
    const auto readString = [](const JsonValue &value) { return value.String(); };
    const auto readLength = [](const JsonValue &value) { return value.Length(); };
    EXPECT_EQ(RefusedValue("1", readBool), "expected true or false, not 1");
    EXPECT_EQ(RefusedValue("null", readBool), "expected true or false, not null");
    EXPECT_EQ(RefusedValue("[1]", readString), "expected a string, not an array");
    EXPECT_EQ(RefusedValue("{\"a\": 1}", readLength), "expected an array, not an object");
    EXPECT_EQ(RefusedValue("\"a/b\"", readLength), R"(expected an array, not "a/b")");
    EXPECT_EQ(RefusedValue("[]", [](const JsonValue &value) { value.ExpectObject(); }),
              "expected an object, not an array");
    EXPECT_EQ(RefusedValue("true", [](const JsonValue &value) { return value.String("a name"); }),
              "expected a name, not true");
}

TEST(JsonValue, NumberHasARange)
{
    const auto readFromOne = [](const JsonValue &value) { return value.Number(1); };
    EXPECT_EQ(RefusedValue("1", readFromOne), "accepted");
    EXPECT_EQ(RefusedValue("4294967295", readFromOne), "accepted");
    for (const char *text : {"0", "-1", "4294967296", "18446744073709551616", "1.0", "\"1\"", "null", "true"}) {
        EXPECT_EQ(RefusedValue(text, readFromOne).substr(0, 44), "expected a number from 1 to 4294967295, not ")
            << text;
    }
    EXPECT_EQ(RefusedValue("0", [](const JsonValue &value) { return value.Number(); }), "accepted");
}

TEST(JsonValue, LargeNumberHasARange)
{
    const auto readFromOne = [](const JsonValue &value) { return value.LargeNumber(1); };
    EXPECT_EQ(RefusedValue("1", readFromOne), "accepted");
    EXPECT_EQ(RefusedValue("9223372036854775807", readFromOne), "accepted");
    for (const char *text : {"0", "-1", "9223372036854775808", "18446744073709551615", "18446744073709551616", "1.0",
                             "\"1\"", "null", "true", "{}"}) {
        EXPECT_TRUE(
            RefusedValue(text, readFromOne).starts_with("expected a number from 1 to 9223372036854775807, not "))
            << text;
    }
    const JsonPtr largest = ParseJson("9223372036854775807");
    EXPECT_EQ((JsonValue{largest.get(), {}}.LargeNumber()), INT64_MAX);
    EXPECT_EQ(RefusedValue("0", [](const JsonValue &value) { return value.LargeNumber(); }), "accepted");
    EXPECT_TRUE(RefusedValue("-9223372036854775808", [](const JsonValue &value) {
                    return value.LargeNumber();
                }).starts_with("expected a number from 0 to "));
}

TEST(JsonValue, RefusalIsOneLine)
{
    EXPECT_EQ(RefusedValue("1", [](const JsonValue &value) { value.Refuse("a\nb\033"); }), "a?b?");
}

struct Point {
    std::uint32_t x = 0;
    std::vector<std::string> names;
};

constexpr std::array kPointMembers = {
    JsonMember<Point>{"x", Presence::kRequired, [](const JsonValue &value, Point &point) { point.x = value.Number(); }},
    JsonMember<Point>{"names", Presence::kOptional,
                      [](const JsonValue &value, Point &point) {
                          value.ForEachElement(
                              [&](const JsonValue &element) { point.names.emplace_back(element.String()); });
                      }},
};

std::string RefusedPoint(const std::string &text)
{
    return RefusedValue(text, [](const JsonValue &value) {
        Point point;
        ReadMembers(value, kPointMembers, point);
    });
}

TEST(ReadMembers, FillsTheTarget)
{
    const JsonPtr json = ParseJson(R"({"names": ["a", "b"], "x": 7})");
    Point point;
    ReadMembers(JsonValue{json.get(), {}}, kPointMembers, point);
    EXPECT_EQ(point.x, 7U);
    EXPECT_EQ(point.names, (std::vector<std::string>{"a", "b"}));
}

TEST(ReadMembers, SaysWhichKeyIsWrong)
{
    EXPECT_EQ(RefusedPoint(R"({"x": 7, "names": ["a", 5]})"), "names[1]: expected a string, not 5");
    EXPECT_EQ(RefusedPoint(R"({"x": 7, "y": 8})"), "y: unknown key");
    EXPECT_EQ(RefusedPoint(R"({"x": 7, "": 8})"), R"("": unknown key)");
    EXPECT_EQ(RefusedPoint(R"({"x": 7, "a\nb": 8})"), "a?b: unknown key");
    EXPECT_EQ(RefusedPoint("{}"), "x: is missing");
    EXPECT_EQ(RefusedPoint("[]"), "expected an object, not an array");
    EXPECT_EQ(RefusedPoint("null"), "expected an object, not null");
}

TEST(ReadKnownMembers, PassesOverOtherKeys)
{
    const JsonPtr json = ParseJson(R"({"newer": [1], "x": 7, "": null})");
    Point point;
    ReadKnownMembers(JsonValue{json.get(), {}}, kPointMembers, point);
    EXPECT_EQ(point.x, 7U);
}

TEST(ReadKnownMembers, SaysWhichKeyIsWrong)
{
    const auto read = [](const JsonValue &value) {
        Point point;
        ReadKnownMembers(value, kPointMembers, point);
    };
    EXPECT_EQ(RefusedValue(R"({"x": 7, "names": ["a", 5]})", read), "names[1]: expected a string, not 5");
    EXPECT_EQ(RefusedValue(R"({"y": 7})", read), "x: is missing");
    EXPECT_EQ(RefusedValue("[]", read), "expected an object, not an array");
}

} // namespace
} // namespace kavel
