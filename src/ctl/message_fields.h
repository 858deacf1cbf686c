// The fields of a generated message as members of a JSON object. A table of Field describes a message: it is read and
// written by the same table. Every refusal of a read is an InputError that begins with the field's path.
#ifndef KAVEL_CTL_MESSAGE_FIELDS_H
#define KAVEL_CTL_MESSAGE_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <protobuf-c/protobuf-c.h>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "json_output.h"
#include "json_reader.h"

namespace kavel::ctl {

// Owns everything that a message points at.
using Arena = std::pmr::monotonic_buffer_resource;

// A member of a JSON object that is a field of `Message`.
template <typename Message>
struct Field {
    std::string_view name;
    Presence presence = Presence::kRequired;
    void (*read)(const JsonValue &value, Message &message, Arena &arena) = nullptr;
    // Without a value, the message does not have the field. Throws std::bad_alloc.
    JsonPtr (*write)(const Message &message) = nullptr;
};

// "192.168.7.1"; `address` is in host byte order.
std::string Ipv4Text(std::uint32_t address);

// How one value is read and written. An address that JSON cannot represent is written as no value.
struct BoolCodec {
    static protobuf_c_boolean Read(const JsonValue &value, Arena &arena);
    static JsonPtr Write(protobuf_c_boolean value);
};
struct NumberCodec {
    static std::uint32_t Read(const JsonValue &value, Arena &arena);
    static JsonPtr Write(std::uint32_t value);
};
struct OperationCodec { // "reload", "reboot" or a number
    static std::uint32_t Read(const JsonValue &value, Arena &arena);
    static JsonPtr Write(std::uint32_t value);
};
struct TextCodec {
    static char *Read(const JsonValue &value, Arena &arena);
    static JsonPtr Write(const char *value); // null: no value
};
struct Ipv4Codec { // in host byte order
    static std::uint32_t Read(const JsonValue &value, Arena &arena);
    static JsonPtr Write(std::uint32_t value);
};
struct Ipv6Codec {
    static ProtobufCBinaryData Read(const JsonValue &value, Arena &arena);
    static JsonPtr Write(const ProtobufCBinaryData &value);
};

// An object with the fields of a message, those that it has.
template <typename Message, typename Fields>
JsonPtr WriteMembers(const Message &message, const Fields &fields)
{
    JsonPtr object = NewJsonObject();
    for (const auto &field : fields) {
        if (JsonPtr value = field.write(message)) {
            AddMember(object.get(), std::string(field.name).c_str(), std::move(value));
        }
    }
    return object;
}

// A message `Item` inside another one.
template <typename Item, const auto &Fields, auto Init>
struct ItemCodec {
    static Item *Read(const JsonValue &value, Arena &arena)
    {
        auto *const item = std::pmr::polymorphic_allocator<>(&arena).allocate_object<Item>();
        Init(item);
        ReadMembers(value, Fields, *item, arena);
        return item;
    }
    static JsonPtr Write(const Item *item) { return WriteMembers(*item, Fields); }
};

template <typename Member>
struct MemberTraits;
template <typename Message, typename Value>
struct MemberTraits<Value Message::*> {
    using Class = Message;
};
template <auto Member>
using ClassOf = typename MemberTraits<decltype(Member)>::Class;

// The entries of a table: a plain field, one with a presence flag, and a repeated one.
template <auto Member, typename Codec>
constexpr Field<ClassOf<Member>> Plain(std::string_view name, Presence presence)
{
    using Message = ClassOf<Member>;
    return {name, presence,
            [](const JsonValue &value, Message &message, Arena &arena) { message.*Member = Codec::Read(value, arena); },
            [](const Message &message) { return Codec::Write(message.*Member); }};
}

template <auto Has, auto Member, typename Codec>
constexpr Field<ClassOf<Member>> Optional(std::string_view name)
{
    using Message = ClassOf<Member>;
    return {name, Presence::kOptional,
            [](const JsonValue &value, Message &message, Arena &arena) {
                message.*Has = 1;
                message.*Member = Codec::Read(value, arena);
            },
            [](const Message &message) { return message.*Has != 0 ? Codec::Write(message.*Member) : JsonPtr(); }};
}

template <auto Count, auto Array, typename Codec>
void ReadList(const JsonValue &value, ClassOf<Array> &message, Arena &arena)
{
    using Element = decltype(Codec::Read(value, arena));
    const std::size_t count = value.Length();
    auto *const elements = std::pmr::polymorphic_allocator<>(&arena).allocate_object<Element>(count);
    for (std::size_t i = 0; i < count; ++i) {
        value.Attempt([&] { elements[i] = Codec::Read(value.Element(i), arena); });
    }
    message.*Count = count;
    message.*Array = elements;
}

template <auto Count, auto Array, typename Codec>
JsonPtr WriteList(const ClassOf<Array> &message)
{
    JsonPtr array = NewJsonArray();
    for (const auto &element : std::span(message.*Array, message.*Count)) {
        if (JsonPtr value = Codec::Write(element)) {
            AddElement(array.get(), std::move(value));
        }
    }
    return array;
}

// An optional list that is empty is not written: the message does not tell it from one that is absent.
template <auto Count, auto Array, typename Codec>
constexpr Field<ClassOf<Array>> List(std::string_view name, Presence presence)
{
    using Message = ClassOf<Array>;
    if (presence == Presence::kRequired) {
        return {name, presence, ReadList<Count, Array, Codec>, WriteList<Count, Array, Codec>};
    }
    return {name, presence, ReadList<Count, Array, Codec>, [](const Message &message) {
                return message.*Count != 0 ? WriteList<Count, Array, Codec>(message) : JsonPtr();
            }};
}

} // namespace kavel::ctl

#endif
