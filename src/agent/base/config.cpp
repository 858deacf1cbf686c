#include "base/config.h"

#include <net/if.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "input_error.h"
#include "json_reader.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kNamespaceNameMax = 255;
constexpr std::size_t kSystemNameMax = 32; // of users and groups
constexpr std::uint32_t kMemoryMiBMin = 8;
constexpr std::uint32_t kWatchSecondsMax = 86400;
constexpr std::size_t kSocketPathMax = sizeof(sockaddr_un::sun_path) - 1;

// The name becomes part of a file name and of a packet filter's rule.
bool IsInterfaceName(std::string_view name)
{
    const bool good = std::ranges::all_of(name, [](unsigned char letter) {
        return std::isalnum(letter) != 0 ||
               std::string_view("_.@:-").find(static_cast<char>(letter)) != std::string_view::npos;
    });
    return !name.empty() && name.size() < IFNAMSIZ && good && name != "." && name != "..";
}

std::string InterfaceName(const JsonValue &value)
{
    const std::string_view name = value.String();
    if (!IsInterfaceName(name)) {
        value.Refuse(value.Shown() + " is not an interface name");
    }
    return std::string(name);
}

// An interface name, or a prefix of interface names that ends in '*'.
std::string InterfacePattern(const JsonValue &value)
{
    const std::string_view pattern = value.String();
    std::string_view name = pattern;
    if (name.ends_with('*') && name.size() < IFNAMSIZ) {
        name.remove_suffix(1);
    }
    if (!IsInterfaceName(name)) {
        value.Refuse(value.Shown() + " is neither an interface name nor a prefix that ends in *");
    }
    return std::string(pattern);
}

// The name becomes part of a path and of a shell command.
std::string NamespaceName(const JsonValue &value)
{
    const std::string_view name = value.String();
    const bool good = std::ranges::all_of(name, [](unsigned char letter) {
        return std::isalnum(letter) != 0 || letter == '_' || letter == '.' || letter == '-';
    });
    if (name.empty() || name.size() > kNamespaceNameMax || !good || name.front() == '-' || name.front() == '.') {
        value.Refuse(value.Shown() + " is not a namespace name");
    }
    return std::string(name);
}

std::string SocketPath(const JsonValue &value)
{
    std::string path = value.AbsolutePath();
    if (path.size() > kSocketPathMax) {
        value.Refuse("is longer than " + std::to_string(kSocketPathMax) + " bytes");
    }
    return path;
}

// `kind`: "the name of a group".
std::string SystemName(const JsonValue &value, std::string_view kind)
{
    const std::string_view name = value.String(kind);
    const bool good = std::ranges::all_of(name, [](unsigned char letter) {
        return std::isalnum(letter) != 0 || letter == '_' || letter == '.' || letter == '-';
    });
    if (name.empty() || name.size() > kSystemNameMax || !good || name.front() == '-') {
        value.Refuse(value.Shown() + " is not " + std::string(kind));
    }
    return std::string(name);
}

Platform ReadPlatform(const JsonValue &value)
{
    constexpr std::string_view kExpected = R"("cpe" or "pop")";
    const std::string_view name = value.String(kExpected);
    if (name != "cpe" && name != "pop") {
        value.RefuseKind(kExpected);
    }
    return name == "cpe" ? Platform::kCpe : Platform::kPop;
}

LogLevel ReadLogLevel(const JsonValue &value)
{
    constexpr std::string_view kExpected = R"("error", "warning", "notice" or "debug")";
    const auto level = LogLevelByName(value.String(kExpected));
    if (!level) {
        value.RefuseKind(kExpected);
    }
    return *level;
}

template <typename Read>
auto ReadList(const JsonValue &value, Read read)
{
    std::vector<decltype(read(value))> list;
    value.ForEachElement([&](const JsonValue &element) { list.push_back(read(element)); });
    return list;
}

using enum Presence;
using In = const JsonValue &;

constexpr std::array kWanMembers = {
    JsonMember<Wan>{"name", kRequired, [](In value, Wan &wan) { wan.name = InterfaceName(value); }},
    JsonMember<Wan>{"sysRoute", kOptional, [](In value, Wan &wan) { wan.sysRoute = value.Bool(); }},
};

Wan ReadWan(const JsonValue &value)
{
    Wan wan;
    ReadMembers(value, kWanMembers, wan);
    return wan;
}

// Sets what an element of "may" names.
void AllowClass(const JsonValue &value, SocketUser &user)
{
    constexpr std::string_view kExpected = R"("apply" or "status")";
    const std::string_view name = value.String(kExpected);
    if (name != "apply" && name != "status") {
        value.RefuseKind(kExpected);
    }
    bool &isAllowed = name == "apply" ? user.mayApply : user.mayStatus;
    if (std::exchange(isAllowed, true)) {
        value.Refuse(value.Shown() + " is there twice");
    }
}

void ReadMay(const JsonValue &value, SocketUser &user)
{
    if (value.Length() == 0) {
        value.Refuse("is empty");
    }
    value.ForEachElement([&user](const JsonValue &element) { AllowClass(element, user); });
}

constexpr std::array kUserMembers = {
    JsonMember<SocketUser>{"name", kRequired,
                           [](In value, SocketUser &user) { user.name = SystemName(value, "the name of a user"); }},
    JsonMember<SocketUser>{"may", kRequired, ReadMay},
};

SocketUser ReadUser(const JsonValue &value)
{
    SocketUser user;
    user.path = value.path.Text();
    ReadMembers(value, kUserMembers, user);
    return user;
}

void RefuseDuplicates(const std::vector<SocketUser> &users)
{
    std::set<std::string> names;
    for (const SocketUser &user : users) {
        if (!names.insert(user.name).second) {
            throw ConfigError(user.path + ".name: \"" + user.name + "\" is there twice");
        }
    }
}

constexpr std::array kVpnMembers = {
    JsonMember<Vpn>{"id", kRequired, [](In value, Vpn &vpn) { vpn.id = value.Number(1); }},
    JsonMember<Vpn>{"customer", kOptional, [](In value, Vpn &vpn) { vpn.customer = value.Number(); }},
    JsonMember<Vpn>{"namespace", kOptional, [](In value, Vpn &vpn) { vpn.netns = NamespaceName(value); }},
    JsonMember<Vpn>{"lan", kOptional, [](In value, Vpn &vpn) { vpn.lan = ReadList(value, InterfaceName); }},
    JsonMember<Vpn>{"wan", kOptional, [](In value, Vpn &vpn) { vpn.wan = ReadList(value, ReadWan); }},
};

Vpn ReadVpn(const JsonValue &value)
{
    Vpn vpn;
    vpn.path = value.path.Text();
    ReadMembers(value, kVpnMembers, vpn);
    if (vpn.netns.empty()) {
        vpn.netns = "vpn_" + std::to_string(vpn.id);
    }
    return vpn;
}

// Two instances in one namespace cannot both listen on port 53.
void RefuseDuplicates(const std::vector<Vpn> &vpns)
{
    std::set<std::uint32_t> ids;
    std::set<std::string> namespaces;
    for (const Vpn &vpn : vpns) {
        if (!ids.insert(vpn.id).second) {
            throw ConfigError(vpn.path + ".id: " + std::to_string(vpn.id) + " is configured twice");
        }
        if (!namespaces.insert(vpn.netns).second) {
            throw ConfigError(vpn.path + ".namespace: \"" + vpn.netns + "\" belongs to another VPN already");
        }
    }
}

std::uint32_t ReadSeconds(In value)
{
    const std::uint32_t seconds = value.Number(1);
    if (seconds > kWatchSecondsMax) {
        value.Refuse(value.Shown() + " is more than " + std::to_string(kWatchSecondsMax) + " seconds");
    }
    return seconds;
}

constexpr std::array kWatchMembers = {
    JsonMember<Watch>{"repair", kOptional, [](In value, Watch &watch) { watch.repair = value.Bool(); }},
    JsonMember<Watch>{"udpSeconds", kOptional, [](In value, Watch &watch) { watch.udpSeconds = ReadSeconds(value); }},
    JsonMember<Watch>{"tcpSeconds", kOptional, [](In value, Watch &watch) { watch.tcpSeconds = ReadSeconds(value); }},
    JsonMember<Watch>{"upstreamSeconds", kOptional,
                      [](In value, Watch &watch) { watch.upstreamSeconds = ReadSeconds(value); }},
    JsonMember<Watch>{"lookSeconds", kOptional, [](In value, Watch &watch) { watch.lookSeconds = ReadSeconds(value); }},
    JsonMember<Watch>{"memoryMiB", kOptional,
                      [](In value, Watch &watch) { watch.memoryMiB = value.Number(kMemoryMiBMin); }},
};

constexpr std::array kConfigMembers = {
    JsonMember<Config>{"platform", kRequired, [](In value, Config &config) { config.platform = ReadPlatform(value); }},
    JsonMember<Config>{"customer", kOptional, [](In value, Config &config) { config.customer = value.Number(); }},
    JsonMember<Config>{"persistence", kOptional, [](In value, Config &config) { config.persistence = value.Bool(); }},
    JsonMember<Config>{"store", kOptional, [](In value, Config &config) { config.store = value.AbsolutePath(); }},
    JsonMember<Config>{"socket", kOptional, [](In value, Config &config) { config.socket = SocketPath(value); }},
    JsonMember<Config>{"readers", kOptional,
                       [](In value, Config &config) { config.readers = SystemName(value, "the name of a group"); }},
    JsonMember<Config>{"users", kOptional, [](In value, Config &config) { config.users = ReadList(value, ReadUser); }},
    JsonMember<Config>{"log", kOptional, [](In value, Config &config) { config.log = ReadLogLevel(value); }},
    JsonMember<Config>{"lan", kOptional,
                       [](In value, Config &config) { config.lan = ReadList(value, InterfacePattern); }},
    JsonMember<Config>{"wan", kOptional,
                       [](In value, Config &config) { config.wan = ReadList(value, InterfacePattern); }},
    JsonMember<Config>{"c2p", kOptional,
                       [](In value, Config &config) { config.c2p = ReadList(value, InterfacePattern); }},
    JsonMember<Config>{"watch", kOptional,
                       [](In value, Config &config) { ReadMembers(value, kWatchMembers, config.watch); }},
    JsonMember<Config>{"vpns", kOptional, [](In value, Config &config) { config.vpns = ReadList(value, ReadVpn); }},
};

} // namespace

const Vpn *Config::Find(std::uint32_t id) const
{
    const auto found = std::ranges::lower_bound(vpns, id, {}, &Vpn::id);
    return found != vpns.end() && found->id == id ? &*found : nullptr;
}

std::optional<std::string> Config::FixedKeyThatDiffers(const Config &other) const
{
    if (platform != other.platform) {
        return "platform";
    }
    if (persistence != other.persistence) {
        return "persistence";
    }
    if (store != other.store) {
        return "store";
    }
    if (socket != other.socket) {
        return "socket";
    }
    if (readers != other.readers) {
        return "readers";
    }
    return users != other.users ? std::optional<std::string>("users") : std::nullopt;
}

Config ParseConfig(const std::string &text)
{
    Config config;
    try {
        const JsonPtr root = ParseJson(text);
        ReadMembers(JsonValue{root.get(), {}}, kConfigMembers, config);
    } catch (const InputError &error) {
        throw ConfigError(error.what());
    }
    RefuseDuplicates(config.users);
    RefuseDuplicates(config.vpns);
    std::ranges::sort(config.vpns, {}, &Vpn::id);
    return config;
}

Config LoadConfig(const std::string &file)
{
    std::string text;
    try {
        std::ifstream stream;
        stream.exceptions(std::ios::badbit | std::ios::failbit);
        stream.open(file, std::ios::binary);
        text.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    } catch (const std::system_error &) {
        throw ConfigError(std::string("cannot be read: ") + std::strerror(errno));
    }
    return ParseConfig(text);
}

} // namespace kavel::agent
