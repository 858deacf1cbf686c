#include "link_config.h"

#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <ios>
#include <iterator>
#include <string_view>
#include <system_error>

#include "endpoint_config.h"
#include "json_reader.h"
#include "topics.h"

namespace kavel::link {

namespace {

using enum kavel::Presence;
using In = const JsonValue &;

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

std::string AgentPath(In value)
{
    std::string path = value.AbsolutePath();
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

constexpr std::array kLinkMembers = {
    JsonMember<LinkConfig>{"box", kRequired, [](In value, LinkConfig &config) { config.box = BoxName(value); }},
    JsonMember<LinkConfig>{"broker", kRequired,
                           [](In value, LinkConfig &config) { broker::ReadEndpoint(value, kRequired, config.broker); }},
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
