#include "json_reader.h"

#include <limits>
#include <new>

#include "input_error.h"
#include "printable.h"

namespace kavel {

namespace {

constexpr std::size_t kShownMax = 64;
constexpr std::string_view kBlanks = " \t\n\v\f\r";

// Whether a byte of UTF-8 is not the first of its character.
bool ContinuesCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

[[noreturn]] void RefuseAt(std::string_view text, std::size_t offset, std::string_view why)
{
    const std::string_view before = text.substr(0, offset);
    const auto line = 1 + std::ranges::count(before, '\n');
    const std::string_view last = before.substr(before.rfind('\n') + 1); // npos + 1 is 0, the start of the first line
    const auto column = last.size() - static_cast<std::size_t>(std::ranges::count_if(last, ContinuesCharacter)) + 1;
    throw InputError("line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + std::string(why));
}

[[noreturn]] void RefuseSyntax(std::string_view text, std::size_t offset, json_tokener_error error)
{
    if (offset >= text.size()) {
        RefuseAt(text, text.size(), "unexpected end of file");
    }
    RefuseAt(text, offset, text[offset] == '\0' ? "NUL character" : json_tokener_error_desc(error));
}

void RefuseTextAfterValue(std::string_view text, std::size_t valueEnd)
{
    const std::size_t offset = text.find_first_not_of(kBlanks, valueEnd);
    if (offset != std::string_view::npos) {
        RefuseAt(text, offset, text[offset] == '\0' ? "NUL character" : "unexpected text after the value");
    }
}

} // namespace

JsonPtr ParseJson(const std::string &text)
{
    if (text.size() >= static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw InputError("is too large");
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
    RefuseTextAfterValue(text, end);
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
    std::string text = json_object_to_json_string_ext(json, JSON_C_TO_STRING_NOSLASHESCAPE);
    if (text.size() > kShownMax) {
        std::size_t cut = kShownMax;
        while (ContinuesCharacter(text[cut])) {
            --cut;
        }
        text.resize(cut);
        text += "...";
    }
    return text;
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

std::string NumberRange(std::uint32_t lowest)
{
    return "a number from " + std::to_string(lowest) + " to " +
           std::to_string(std::numeric_limits<std::uint32_t>::max());
}

} // namespace kavel
