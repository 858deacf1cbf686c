#include "message_fields.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "operation.h"

namespace kavel::ctl {

namespace {

constexpr std::size_t kIpv6Size = 16;

// inet_pton() stops at a NUL character, which an address must not contain.
bool ParseAddress(int family, const std::string &text, void *address)
{
    return text.find('\0') == std::string::npos && ::inet_pton(family, text.c_str(), address) == 1;
}

} // namespace

protobuf_c_boolean ReadBool(const JsonValue &value, Arena & /*arena*/)
{
    return value.Bool() ? 1 : 0;
}

std::uint32_t ReadNumber(const JsonValue &value, Arena & /*arena*/)
{
    return value.Number();
}

std::uint32_t ReadOperation(const JsonValue &value, Arena & /*arena*/)
{
    if (const std::optional<std::uint32_t> number = value.TryNumber()) {
        return *number;
    }
    const std::string expected = R"("reload", "reboot" or )" + NumberRange(0);
    const auto *const operation = FindByName(kOperations, value.String(expected));
    if (operation == kOperations.end()) {
        value.RefuseKind(expected);
    }
    return operation->number;
}

char *ReadText(const JsonValue &value, Arena &arena)
{
    const std::string_view text = value.String();
    if (text.find('\0') != std::string_view::npos) {
        value.Refuse("contains a NUL character");
    }
    char *const copy = std::pmr::polymorphic_allocator<>(&arena).allocate_object<char>(text.size() + 1);
    std::ranges::copy(text, copy);
    copy[text.size()] = '\0';
    return copy;
}

std::uint32_t ReadIpv4(const JsonValue &value, Arena & /*arena*/)
{
    in_addr address{};
    if (!ParseAddress(AF_INET, std::string(value.String("an IPv4 address in quotes")), &address)) {
        value.Refuse(value.Shown() + " is not an IPv4 address");
    }
    return ntohl(address.s_addr);
}

ProtobufCBinaryData ReadIpv6(const JsonValue &value, Arena &arena)
{
    auto *const bytes = std::pmr::polymorphic_allocator<>(&arena).allocate_object<std::uint8_t>(kIpv6Size);
    if (!ParseAddress(AF_INET6, std::string(value.String("an IPv6 address in quotes")), bytes)) {
        value.Refuse(value.Shown() + " is not an IPv6 address");
    }
    return {kIpv6Size, bytes};
}

} // namespace kavel::ctl
