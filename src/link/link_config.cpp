#include "link_config.h"

#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <ios>
#include <iterator>
#include <limits>
#include <string_view>
#include <system_error>

#include "json_reader.h"
#include "topics.h"

namespace kavel::link {

namespace {

using enum kavel::Presence;
using In = const JsonValue &;

constexpr std::size_t kHostMax = 253;
constexpr std::size_t kAgentPathMax = sizeof(sockaddr_un::sun_path) - 1;

std::string BoxName(In value)
{
    const std::string_view name = value.String("the name of a box");
    if (!broker::IsBoxName(name)) {
        value.Refuse(value.Shown() + " is not a name of 1 to " + std::to_string(broker::kBoxNameMax) +
                     " letters, digits, '.', '_' and '-'");
    }
    return std::string(name);
}

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

std::string FilePath(In value)
{
    constexpr std::string_view kExpected = "an absolute path";
    const std::string_view path = value.String(kExpected);
    if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) {
        value.RefuseKind(kExpected);
    }
    return std::string(path);
}

std::string AgentPath(In value)
{
    std::string path = FilePath(value);
    if (path.size() > kAgentPathMax) {
        value.Refuse("is longer than " + std::to_string(kAgentPathMax) + " bytes");
    }
    return path;
}

LogLevel Level(In value)
{
    constexpr std::string_view kExpected = R"("error", "warning", "notice" or "debug")";
    const auto level = LogLevelByName(value.String(kExpected));
    if (!level) {
        value.RefuseKind(kExpected);
    }
    return *level;
}

using broker::Endpoint;

constexpr std::array kEndpointMembers = {
    JsonMember<Endpoint>{"host", kRequired, [](In value, Endpoint &endpoint) { endpoint.host = HostName(value); }},
    JsonMember<Endpoint>{"port", kOptional, [](In value, Endpoint &endpoint) { endpoint.port = PortNumber(value); }},
    JsonMember<Endpoint>{"ca", kRequired, [](In value, Endpoint &endpoint) { endpoint.ca = FilePath(value); }},
    JsonMember<Endpoint>{"certificate", kRequired,
                         [](In value, Endpoint &endpoint) { endpoint.certificate = FilePath(value); }},
    JsonMember<Endpoint>{"key", kRequired, [](In value, Endpoint &endpoint) { endpoint.key = FilePath(value); }},
};

constexpr std::array kLinkMembers = {
    JsonMember<LinkConfig>{"box", kRequired, [](In value, LinkConfig &config) { config.box = BoxName(value); }},
    JsonMember<LinkConfig>{"broker", kRequired,
                           [](In value, LinkConfig &config) { ReadMembers(value, kEndpointMembers, config.broker); }},
    JsonMember<LinkConfig>{"agent", kOptional, [](In value, LinkConfig &config) { config.agent = AgentPath(value); }},
    JsonMember<LinkConfig>{"log", kOptional, [](In value, LinkConfig &config) { config.log = Level(value); }},
};

} // namespace

LinkConfig ParseLinkConfig(const std::string &text)
{
    LinkConfig config;
    const JsonPtr root = ParseJson(text);
    ReadMembers(JsonValue{root.get(), {}}, kLinkMembers, config);
    return config;
}

LinkConfig LoadLinkConfig(const std::string &file)
{
    std::string text;
    try {
        std::ifstream stream;
        stream.exceptions(std::ios::badbit | std::ios::failbit);
        stream.open(file, std::ios::binary);
        text.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    } catch (const std::system_error &) {
        throw InputError(std::string("cannot be read: ") + std::strerror(errno));
    }
    return ParseLinkConfig(text);
}

} // namespace kavel::link
