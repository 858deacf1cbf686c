// Reads JSON values into the fields of a generated message. A table of Field describes a message; the functions here
// are the entries of such tables. Every refusal is an InputError that begins with the field's path.
#ifndef KAVEL_CTL_MESSAGE_FIELDS_H
#define KAVEL_CTL_MESSAGE_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <protobuf-c/protobuf-c.h>

#include "json_reader.h"

namespace kavel::ctl {

// Owns everything that a message points at.
using Arena = std::pmr::monotonic_buffer_resource;

// A member of a JSON object, read into a message.
template <typename Message>
using Field = JsonMember<Message, Arena>;

protobuf_c_boolean ReadBool(const JsonValue &value, Arena &arena);
std::uint32_t ReadNumber(const JsonValue &value, Arena &arena);
std::uint32_t ReadOperation(const JsonValue &value, Arena &arena); // "reload", "reboot" or a number
char *ReadText(const JsonValue &value, Arena &arena);
std::uint32_t ReadIpv4(const JsonValue &value, Arena &arena); // in host byte order
ProtobufCBinaryData ReadIpv6(const JsonValue &value, Arena &arena);

// The entries of a table: a plain field, one with a presence flag, and a repeated one.
template <auto Member, auto Read, typename Message>
void Set(const JsonValue &value, Message &message, Arena &arena)
{
    message.*Member = Read(value, arena);
}

template <auto Has, auto Member, auto Read, typename Message>
void SetOptional(const JsonValue &value, Message &message, Arena &arena)
{
    message.*Has = 1;
    message.*Member = Read(value, arena);
}

template <auto Count, auto Array, auto Read, typename Message>
void SetList(const JsonValue &value, Message &message, Arena &arena)
{
    using Element = decltype(Read(value, arena));
    const std::size_t count = value.Length();
    auto *const elements = std::pmr::polymorphic_allocator<>(&arena).allocate_object<Element>(count);
    for (std::size_t i = 0; i < count; ++i) {
        value.Attempt([&] { elements[i] = Read(value.Element(i), arena); });
    }
    message.*Count = count;
    message.*Array = elements;
}

// Reads an object into a new message `Item`.
template <typename Item, const auto &Fields, auto Init>
Item *ReadItem(const JsonValue &value, Arena &arena)
{
    auto *const item = std::pmr::polymorphic_allocator<>(&arena).allocate_object<Item>();
    Init(item);
    ReadMembers(value, Fields, *item, arena);
    return item;
}

} // namespace kavel::ctl

#endif
