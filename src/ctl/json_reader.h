// Reads JSON values into the fields of a generated message. What a message looks like is told by tables of Field; the
// functions here are what such tables are made of. Every refusal is an InputError that begins with the field's path.
#ifndef KAVEL_CTL_JSON_READER_H
#define KAVEL_CTL_JSON_READER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <json-c/json.h>
#include <memory>
#include <memory_resource>
#include <optional>
#include <protobuf-c/protobuf-c.h>
#include <ranges>
#include <string>
#include <string_view>

namespace kavel::ctl {

struct JsonRelease {
    void operator()(json_object *value) const { json_object_put(value); }
};
using JsonPtr = std::unique_ptr<json_object, JsonRelease>;

// The one JSON value that `text` consists of; null for the JSON null. A syntax error is told by line and column.
JsonPtr ParseJson(const std::string &text);

// The JSON null, which json-c represents by a null pointer, is a json_type_null.
inline bool IsType(const json_object *value, json_type type)
{
    return json_object_get_type(value) == type;
}

inline bool HasKey(json_object *object, std::string_view key)
{
    return json_object_object_get_ex(object, std::string(key).c_str(), nullptr) != 0;
}

// Where a value stands in its file, such as `dnshosts[3].ip`. Refers to its parent, which must outlive it.
class Path {
  public:
    Path() = default;
    [[nodiscard]] Path Key(std::string_view name) const { return Path(this, name, 0); }
    [[nodiscard]] Path Index(std::size_t index) const { return Path(this, std::nullopt, index); }
    [[nodiscard]] std::string Text() const;

  private:
    Path(const Path *parent, std::optional<std::string_view> name, std::size_t index)
        : parent_(parent), name_(name), index_(index)
    {
    }

    const Path *parent_ = nullptr;
    std::optional<std::string_view> name_; // none: an index
    std::size_t index_ = 0;
};

// Everything that a message points at lives here, and goes with it.
using Arena = std::pmr::monotonic_buffer_resource;

// One value on its way into a message.
struct Place {
    json_object *value = nullptr;
    Path path;
    Arena &arena;
};

[[noreturn]] void Refuse(const Path &path, const std::string &why);

// Refuses the value: "expected X, not Y".
[[noreturn]] void RefuseKind(const Place &at, std::string_view expected);

// The value as a person would recognise it in the file: scalars as written, cut when long; "a list", "an object".
std::string Shown(json_object *value);

protobuf_c_boolean ReadBool(const Place &at);
std::uint32_t ReadNumber(const Place &at);
std::uint32_t ReadOperation(const Place &at);
char *ReadText(const Place &at);
std::uint32_t ReadIpv4(const Place &at);
ProtobufCBinaryData ReadIpv6(const Place &at);

enum class Presence { kRequired, kOptional };

// One member of a JSON object and how it gets into `Message`.
template <typename Message>
struct Field {
    std::string_view name;
    Presence presence = Presence::kRequired;
    void (*read)(const Place &at, Message &message) = nullptr;
};

template <typename Fields>
auto FindField(const Fields &fields, std::string_view name)
{
    return std::ranges::find_if(fields, [name](const auto &field) { return field.name == name; });
}

template <typename Fields, typename Message>
void ReadFields(const Place &at, const Fields &fields, Message &message)
{
    if (!IsType(at.value, json_type_object)) {
        RefuseKind(at, "an object");
    }
    const json_object_iterator end = json_object_iter_end(at.value);
    json_object_iterator it = json_object_iter_begin(at.value);
    for (; json_object_iter_equal(&it, &end) == 0; json_object_iter_next(&it)) {
        const Path path = at.path.Key(json_object_iter_peek_name(&it));
        const auto field = FindField(fields, json_object_iter_peek_name(&it));
        if (field == std::ranges::end(fields)) {
            Refuse(path, "unknown key");
        }
        field->read(Place{json_object_iter_peek_value(&it), path, at.arena}, message);
    }
    for (const auto &field : fields) {
        if (field.presence == Presence::kRequired && !HasKey(at.value, field.name)) {
            Refuse(at.path.Key(field.name), "is missing");
        }
    }
}

// The building blocks of a table: a plain member, one with a presence flag, a list, and an item of a list.
template <auto Member, auto Read, typename Message>
void Set(const Place &at, Message &message)
{
    message.*Member = Read(at);
}

template <auto Has, auto Member, auto Read, typename Message>
void SetOptional(const Place &at, Message &message)
{
    message.*Has = 1;
    message.*Member = Read(at);
}

template <auto Count, auto Array, auto Read, typename Message>
void SetList(const Place &at, Message &message)
{
    if (!IsType(at.value, json_type_array)) {
        RefuseKind(at, "a list");
    }
    using Element = decltype(Read(at));
    const std::size_t count = json_object_array_length(at.value);
    Element *elements = std::pmr::polymorphic_allocator<>(&at.arena).allocate_object<Element>(count);
    for (std::size_t i = 0; i < count; ++i) {
        elements[i] = Read(Place{json_object_array_get_idx(at.value, i), at.path.Index(i), at.arena});
    }
    message.*Count = count;
    message.*Array = elements;
}

template <typename Item, const auto &Fields, auto Init>
Item *ReadItem(const Place &at)
{
    Item *item = std::pmr::polymorphic_allocator<>(&at.arena).allocate_object<Item>();
    Init(item);
    ReadFields(at, Fields, *item);
    return item;
}

} // namespace kavel::ctl

#endif
