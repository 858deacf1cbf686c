#include "message_fields.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
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

protobuf_c_boolean BoolCodec::Read(const JsonValue &value, Arena & /*arena*/)
{
    return value.Bool() ? 1 : 0;
}

JsonPtr BoolCodec::Write(protobuf_c_boolean value)
{
    return JsonBool(value != 0);
}

std::uint32_t NumberCodec::Read(const JsonValue &value, Arena & /*arena*/)
{
    return value.Number();
}

JsonPtr NumberCodec::Write(std::uint32_t value)
{
    return JsonNumber(value);
}

std::uint32_t OperationCodec::Read(const JsonValue &value, Arena & /*arena*/)
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

JsonPtr OperationCodec::Write(std::uint32_t value)
{
    const auto *const operation = std::ranges::find(kOperations, value, &Operation::number);
    return operation != kOperations.end() ? JsonText(std::string(operation->name)) : JsonNumber(value);
}

char *TextCodec::Read(const JsonValue &value, Arena &arena)
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

JsonPtr TextCodec::Write(const char *value)
{
    return value != nullptr ? JsonText(value) : JsonPtr();
}

std::uint32_t Ipv4Codec::Read(const JsonValue &value, Arena & /*arena*/)
{
    in_addr address{};
    if (!ParseAddress(AF_INET, std::string(value.String("an IPv4 address in quotes")), &address)) {
        value.Refuse(value.Shown() + " is not an IPv4 address");
    }
    return ntohl(address.s_addr);
}

JsonPtr Ipv4Codec::Write(std::uint32_t value)
{
    return JsonText(Ipv4Text(value));
}

ProtobufCBinaryData Ipv6Codec::Read(const JsonValue &value, Arena &arena)
{
    auto *const bytes = std::pmr::polymorphic_allocator<>(&arena).allocate_object<std::uint8_t>(kIpv6Size);
    if (!ParseAddress(AF_INET6, std::string(value.String("an IPv6 address in quotes")), bytes)) {
        value.Refuse(value.Shown() + " is not an IPv6 address");
    }
    return {kIpv6Size, bytes};
}

JsonPtr Ipv6Codec::Write(const ProtobufCBinaryData &value)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (value.len != kIpv6Size || ::inet_ntop(AF_INET6, value.data, text.data(), text.size()) == nullptr) {
        return {};
    }
    return JsonText(text.data());
}

std::string Ipv4Text(std::uint32_t address)
{
    const in_addr network{htonl(address)};
    std::array<char, INET_ADDRSTRLEN> text{};
    return ::inet_ntop(AF_INET, &network, text.data(), text.size()) != nullptr ? text.data() : "";
}

} // namespace kavel::ctl
