// Strict reading of JSON. Every refusal is an InputError of one line. It begins with the line and the column in the
// text, "line 2, column 3: unexpected character", or with the path of the value, "lan[0]: expected a string, not 7".
#ifndef KAVEL_COMMON_JSON_READER_H
#define KAVEL_COMMON_JSON_READER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <json-c/json.h>
#include <memory>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <vector>

#include "input_error.h"
#include "json_text.h"

namespace kavel {

struct JsonRelease {
    void operator()(json_object *value) const { json_object_put(value); }
};
using JsonPtr = std::unique_ptr<json_object, JsonRelease>;

// Is given the text of each error, of one line, where reading can go on behind it.
using ErrorSink = std::function<void(const std::string &text)>;

struct JsonReading {
    std::string_view noun = "value"; // what the text holds one of
    // If set, it is given the errors that do not end the reading, instead of an exception for the first.
    const ErrorSink *errors = nullptr;
};

// The one JSON value that `text` consists of, blanks around it aside; null for the JSON null. Refused: a syntax error,
// a byte order mark, bytes that are not UTF-8, a NUL character, text after the value, a key that an object has twice,
// and a text of INT_MAX bytes or more. Lines and columns count from 1; a column is a character, not a byte. Only the
// keys are errors that do not end the reading; the last value of such a key counts then.
JsonPtr ParseJson(const std::string &text, const JsonReading &reading = {});

// The JSON null, which json-c represents by a null pointer, is a json_type_null.
inline bool IsType(const json_object *value, json_type type)
{
    return json_object_get_type(value) == type;
}

// `object` must be a JSON object.
inline bool HasKey(json_object *object, std::string_view key)
{
    return json_object_object_get_ex(object, std::string(key).c_str(), nullptr) != 0;
}

// The position of a value in its document, such as `dnshosts[3].ip`; empty for the outermost value. It refers to the
// path of the value around it, which must outlive it, and to the key.
class JsonPath {
  public:
    JsonPath() = default;
    [[nodiscard]] JsonPath Key(std::string_view name) const { return {this, name, 0}; }
    [[nodiscard]] JsonPath Index(std::size_t index) const { return {this, std::nullopt, index}; }
    [[nodiscard]] std::string Text() const;

  private:
    JsonPath(const JsonPath *parent, std::optional<std::string_view> name, std::size_t index)
        : parent_(parent), name_(name), index_(index)
    {
    }

    const JsonPath *parent_ = nullptr;
    std::optional<std::string_view> name_; // nothing: an element of an array
    std::size_t index_ = 0;
};

// Throws InputError: the path, if it is not empty, and `why`, as Printable() gives them.
[[noreturn]] void Refuse(const JsonPath &path, const std::string &why);

// A value and its path. The document owns the value.
struct JsonValue {
    json_object *json = nullptr;
    JsonPath path;
    const ErrorSink *errors = nullptr; // see JsonReading; it is passed on to the values inside

    [[nodiscard]] bool Is(json_type type) const { return IsType(json, type); }

    // The value as it is written in the document, at most 64 bytes of it; "an array" or "an object" for those.
    [[nodiscard]] std::string Shown() const;

    [[noreturn]] void Refuse(const std::string &why) const { kavel::Refuse(path, why); }
    // Refuses the value: "expected X, not Y".
    [[noreturn]] void RefuseKind(std::string_view expected) const;

    // Each refuses a value of another type. `expected` describes what would be right.
    [[nodiscard]] bool Bool() const;
    [[nodiscard]] std::string_view String(std::string_view expected = "a string") const;
    [[nodiscard]] std::string AbsolutePath() const;
    [[nodiscard]] std::size_t Length() const; // of an array
    void ExpectObject() const;

    // The number from 0 to 4294967295 that the value is; nothing for every other value.
    [[nodiscard]] std::optional<std::uint32_t> TryNumber() const;
    // Refuses what is not a number from `lowest` to 4294967295.
    [[nodiscard]] std::uint32_t Number(std::uint32_t lowest = 0) const;
    // Refuses what is not a number from `lowest`, which is not negative, to 2^63 - 1.
    [[nodiscard]] std::int64_t LargeNumber(std::int64_t lowest = 0) const;

    // The element at `index`, which is below Length(). It refers to this value.
    [[nodiscard]] JsonValue Element(std::size_t index) const
    {
        return {json_object_array_get_idx(json, index), path.Index(index), errors};
    }

    // Calls `read()`, which may throw InputError: the error goes to `errors` if there are any.
    template <typename Read>
    void Attempt(Read read) const
    {
        if (errors == nullptr) {
            return read();
        }
        try {
            read();
        } catch (const InputError &error) {
            (*errors)(error.what());
        }
    }

    // Calls `read(element)` for each element of an array, in order.
    template <typename Read>
    void ForEachElement(Read read) const
    {
        const std::size_t length = Length();
        for (std::size_t i = 0; i < length; ++i) {
            Attempt([&] { read(Element(i)); });
        }
    }
};

// "a number from 1 to 4294967295"
std::string NumberRange(std::uint32_t lowest);

enum class Presence { kRequired, kOptional };

// One member of a JSON object, and the function that reads it into the targets.
template <typename... Target>
struct JsonMember {
    std::string_view name;
    Presence presence = Presence::kRequired;
    void (*read)(const JsonValue &value, Target &...target) = nullptr;
};

// The entry of a table of JsonMember, or of other entries with a `name`; the end of the table when there is none.
template <typename Table>
auto FindByName(const Table &table, std::string_view name)
{
    return std::ranges::find_if(table, [name](const auto &entry) { return entry.name == name; });
}

// The text for a key that the table does not have.
template <typename Table>
std::string UnknownKeyTextFor(std::string_view key, const Table &table)
{
    std::vector<std::string_view> names;
    std::ranges::transform(table, std::back_inserter(names), [](const auto &entry) { return entry.name; });
    return UnknownKeyText(key, names);
}

// Reads an object's members, in the order of the document, by a table of JsonMember. Refuses a value that is not an
// object, a key that the table does not have, and an object without a required key.
template <typename Table, typename... Target>
void ReadMembers(const JsonValue &object, const Table &table, Target &...target)
{
    object.ExpectObject();
    const json_object_iterator end = json_object_iter_end(object.json);
    json_object_iterator it = json_object_iter_begin(object.json);
    for (; json_object_iter_equal(&it, &end) == 0; json_object_iter_next(&it)) {
        const std::string_view key = json_object_iter_peek_name(&it);
        const JsonPath path = object.path.Key(key);
        const auto member = FindByName(table, key);
        object.Attempt([&] {
            if (member == std::ranges::end(table)) {
                Refuse(path, UnknownKeyTextFor(key, table));
            }
            member->read(JsonValue{json_object_iter_peek_value(&it), path, object.errors}, target...);
        });
    }
    for (const auto &member : table) {
        if (member.presence == Presence::kRequired && !HasKey(object.json, member.name)) {
            object.Attempt([&] { Refuse(object.path.Key(member.name), "is missing"); });
        }
    }
}

// The same for a document that a newer program may have written: a key that the table does not have is passed over. The
// members are read in the order of the table.
template <typename Table, typename... Target>
void ReadKnownMembers(const JsonValue &object, const Table &table, Target &...target)
{
    object.ExpectObject();
    for (const auto &member : table) {
        const JsonPath path = object.path.Key(member.name);
        json_object *value = nullptr;
        const bool isThere = json_object_object_get_ex(object.json, std::string(member.name).c_str(), &value) != 0;
        object.Attempt([&] {
            if (isThere) {
                member.read(JsonValue{value, path, object.errors}, target...);
            } else if (member.presence == Presence::kRequired) {
                Refuse(path, "is missing");
            }
        });
    }
}

} // namespace kavel

#endif
