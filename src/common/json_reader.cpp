#include "json_reader.h"

#include <limits>
#include <new>

#include "input_error.h"
#include "json_text.h"
#include "printable.h"

namespace kavel {

namespace {

constexpr std::string_view kBlanks = " \t\n\v\f\r";

[[noreturn]] void RefuseAt(std::string_view text, const JsonMistake &mistake)
{
    throw InputError(TextPosition(text).At(mistake.offset) + ": " + mistake.what);
}

// A NUL character is named for what it is: the words of json-c do not show it.
[[noreturn]] void RefuseSyntax(std::string_view text, std::size_t offset, json_tokener_error error)
{
    const bool isAtEnd = offset >= text.size();
    std::optional<JsonMistake> mistake = isAtEnd ? std::nullopt : FindMistakeAt(text, offset);
    if (!mistake) {
        mistake = FindTypographicQuote(text, offset);
    }
    if (mistake) {
        RefuseAt(text, *mistake);
    }
    if (isAtEnd) {
        RefuseAt(text, {text.size(), "unexpected end of file"});
    }
    RefuseAt(text, {offset, text[offset] == '\0' ? "NUL character" : json_tokener_error_desc(error)});
}

// Whether another object begins there, with or without a comma before it.
bool BeginsObject(std::string_view rest)
{
    if (rest.starts_with(',')) {
        rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks, 1), rest.size()));
    }
    return rest.starts_with('{');
}

void RefuseTextAfterValue(std::string_view text, std::size_t valueEnd, std::string_view noun)
{
    const std::size_t offset = text.find_first_not_of(kBlanks, valueEnd);
    if (offset == std::string_view::npos) {
        return;
    }
    if (text[offset] == '\0') {
        RefuseAt(text, {offset, "NUL character"});
    }
    if (BeginsObject(text.substr(offset))) {
        RefuseAt(text, {offset, "a second " + std::string(noun) + " begins here; put each into a file of its own"});
    }
    RefuseAt(text, FindMistakeAt(text, offset).value_or(JsonMistake{offset, "unexpected text after the value"}));
}

void RefuseRepeatedKeys(std::string_view text, const ErrorSink *errors)
{
    TextPosition position(text);
    FindRepeatedKeys(text, [&](const JsonMistake &repeated) {
        const std::string refusal = position.At(repeated.offset) + ": " + repeated.what;
        errors != nullptr ? (*errors)(refusal) : throw InputError(refusal);
    });
}

} // namespace

JsonPtr ParseJson(const std::string &text, const JsonReading &reading)
{
    if (text.size() >= static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw InputError("is too large");
    }
    if (const std::optional<JsonMistake> mark = FindByteOrderMark(text)) {
        RefuseAt(text, *mark);
    }
    const std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(), json_tokener_free);
    if (!tokener) {
        throw std::bad_alloc();
    }
    // Text after the value is refused here: json-c would call it an unexpected character.
    json_tokener_set_flags(tokener.get(),
                           JSON_TOKENER_STRICT | JSON_TOKENER_ALLOW_TRAILING_CHARS | JSON_TOKENER_VALIDATE_UTF8);
    // With the terminator, which ends a number that nothing else ends.
    JsonPtr value(json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size() + 1)));
    const std::size_t end = json_tokener_get_parse_end(tokener.get());
    if (const json_tokener_error error = json_tokener_get_error(tokener.get()); error != json_tokener_success) {
        RefuseSyntax(text, end, error);
    }
    RefuseTextAfterValue(text, end, reading.noun);
    RefuseRepeatedKeys(std::string_view(text).substr(0, end), reading.errors);
    return value;
}

std::string JsonPath::Text() const
{
    std::string text;
    for (const JsonPath *at = this; at->parent_ != nullptr; at = at->parent_) {
        if (!at->name_) {
            text.insert(0, "[" + std::to_string(at->index_) + "]");
            continue;
        }
        text.insert(0, at->name_->empty() ? R"("")" : *at->name_);
        if (at->parent_->parent_ != nullptr) {
            text.insert(0, ".");
        }
    }
    return text;
}

void Refuse(const JsonPath &path, const std::string &why)
{
    const std::string where = path.Text();
    throw InputError(Printable(where.empty() ? why : where + ": " + why));
}

std::string JsonValue::Shown() const
{
    if (Is(json_type_array)) {
        return "an array";
    }
    if (Is(json_type_object)) {
        return "an object";
    }
    return Shortened(json_object_to_json_string_ext(json, JSON_C_TO_STRING_NOSLASHESCAPE));
}

void JsonValue::RefuseKind(std::string_view expected) const
{
    Refuse("expected " + std::string(expected) + ", not " + Shown());
}

bool JsonValue::Bool() const
{
    if (!Is(json_type_boolean)) {
        RefuseKind("true or false");
    }
    return json_object_get_boolean(json) != 0;
}

std::string_view JsonValue::String(std::string_view expected) const
{
    if (!Is(json_type_string)) {
        RefuseKind(expected);
    }
    return {json_object_get_string(json), static_cast<std::size_t>(json_object_get_string_len(json))};
}

std::string JsonValue::AbsolutePath() const
{
    constexpr std::string_view kExpected = "an absolute path";
    const std::string_view given = String(kExpected);
    if (!given.starts_with('/') || given.find('\0') != std::string_view::npos) {
        RefuseKind(kExpected);
    }
    return std::string(given);
}

std::size_t JsonValue::Length() const
{
    if (!Is(json_type_array)) {
        RefuseKind("an array");
    }
    return json_object_array_length(json);
}

void JsonValue::ExpectObject() const
{
    if (!Is(json_type_object)) {
        RefuseKind("an object");
    }
}

std::optional<std::uint32_t> JsonValue::TryNumber() const
{
    // json-c reads a number beyond 64 bits as the nearest that fits, which is out of this range as well.
    const std::int64_t number = json_object_get_int64(json);
    const bool fits = number >= 0 && number <= std::numeric_limits<std::uint32_t>::max();
    return Is(json_type_int) && fits ? std::optional(static_cast<std::uint32_t>(number)) : std::nullopt;
}

std::uint32_t JsonValue::Number(std::uint32_t lowest) const
{
    const std::optional<std::uint32_t> number = TryNumber();
    if (!number || *number < lowest) {
        RefuseKind(NumberRange(lowest));
    }
    return *number;
}

std::int64_t JsonValue::LargeNumber(std::int64_t lowest) const
{
    constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
    const std::int64_t number = json_object_get_int64(json);
    // As a signed number json-c gives a larger one as the largest.
    const bool fits = number >= lowest && json_object_get_uint64(json) <= static_cast<std::uint64_t>(kHighest);
    if (!Is(json_type_int) || !fits) {
        RefuseKind("a number from " + std::to_string(lowest) + " to " + std::to_string(kHighest));
    }
    return number;
}

std::string NumberRange(std::uint32_t lowest)
{
    return "a number from " + std::to_string(lowest) + " to " +
           std::to_string(std::numeric_limits<std::uint32_t>::max());
}

} // namespace kavel
