#include "endpoint_config.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace kavel::broker {

namespace {

using In = const JsonValue &;

constexpr std::size_t kHostMax = 253;

std::string HostName(In value)
{
    constexpr std::string_view kExpected = "a host name or an address";
    const std::string_view name = value.String(kExpected);
    constexpr std::string_view kNowhere("\0 /\t\r\n", 6);
    if (name.empty() || name.size() > kHostMax || name.find_first_of(kNowhere) != std::string_view::npos) {
        value.RefuseKind(kExpected);
    }
    return std::string(name);
}

std::uint16_t PortNumber(In value)
{
    const std::uint32_t port = value.Number(1);
    if (port > std::numeric_limits<std::uint16_t>::max()) {
        value.RefuseKind("a number from 1 to 65535");
    }
    return static_cast<std::uint16_t>(port);
}

constexpr std::array kEndpointMembers = {
    JsonMember<Endpoint>{"host", kavel::Presence::kRequired,
                         [](In value, Endpoint &endpoint) { endpoint.host = HostName(value); }},
    JsonMember<Endpoint>{"port", kavel::Presence::kOptional,
                         [](In value, Endpoint &endpoint) { endpoint.port = PortNumber(value); }},
    JsonMember<Endpoint>{"ca", kavel::Presence::kRequired,
                         [](In value, Endpoint &endpoint) { endpoint.ca = value.AbsolutePath(); }},
    JsonMember<Endpoint>{"certificate", kavel::Presence::kRequired,
                         [](In value, Endpoint &endpoint) { endpoint.certificate = value.AbsolutePath(); }},
    JsonMember<Endpoint>{"key", kavel::Presence::kRequired,
                         [](In value, Endpoint &endpoint) { endpoint.key = value.AbsolutePath(); }},
};

} // namespace

void ReadEndpoint(const JsonValue &value, kavel::Presence presence, Endpoint &endpoint)
{
    auto members = kEndpointMembers;
    for (auto &member : members) {
        member.presence = presence == kavel::Presence::kOptional ? kavel::Presence::kOptional : member.presence;
    }
    ReadMembers(value, members, endpoint);
}

} // namespace kavel::broker
