#include "base/config.h"

#include <json-c/json.h>
#include <net/if.h>
#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <set>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>

#include "printable.h"

namespace kavel::agent {
namespace {

constexpr std::int64_t kIdMax = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kNamespaceNameMax = 255;
constexpr std::size_t kSocketPathMax = sizeof(sockaddr_un::sun_path) - 1;

[[noreturn]] void Fail(const std::string &path, const std::string &text)
{
    // Keys and values come out of the file as they are.
    throw ConfigError(control::Printable(path.empty() ? text : path + ": " + text));
}

std::string Quoted(const std::string &text)
{
    return '"' + text + '"';
}

// A value of the file and where it stands.
struct Value {
    json_object *json;
    std::string path;

    void Expect(json_type type, const char *what) const
    {
        if (json_object_get_type(json) != type) {
            Fail(path, std::string("expected ") + what);
        }
    }
};

std::string Text(const Value &value)
{
    value.Expect(json_type_string, "a string");
    return {json_object_get_string(value.json), static_cast<std::size_t>(json_object_get_string_len(value.json))};
}

bool Flag(const Value &value)
{
    value.Expect(json_type_boolean, "true or false");
    return json_object_get_boolean(value.json) != 0;
}

std::uint32_t Number(const Value &value, std::int64_t lowest)
{
    const std::string range = "a number from " + std::to_string(lowest) + " to " + std::to_string(kIdMax);
    value.Expect(json_type_int, range.c_str());
    const std::int64_t number = json_object_get_int64(value.json);
    if (number < lowest || number > kIdMax) {
        Fail(value.path, "expected " + range);
    }
    return static_cast<std::uint32_t>(number);
}

struct Key {
    std::string_view name;
    std::function<void(const Value &)> take;
};

void TakeMembers(const Value &object, std::span<const Key> keys)
{
    object.Expect(json_type_object, "an object");
    json_object_iterator member = json_object_iter_begin(object.json);
    const json_object_iterator end = json_object_iter_end(object.json);
    for (; json_object_iter_equal(&member, &end) == 0; json_object_iter_next(&member)) {
        const std::string name = json_object_iter_peek_name(&member);
        const std::string shown = name.empty() ? Quoted(name) : name;
        const std::string path = object.path.empty() ? shown : object.path + "." + shown;
        const auto key = std::ranges::find(keys, name, &Key::name);
        if (key == keys.end()) {
            Fail(path, "unknown key");
        }
        key->take({json_object_iter_peek_value(&member), path});
    }
}

void Require(const Value &object, const char *name)
{
    if (json_object_object_get_ex(object.json, name, nullptr) == 0) {
        Fail(object.path.empty() ? name : object.path + "." + name, "is missing");
    }
}

void ForEachElement(const Value &array, const std::function<void(const Value &)> &take)
{
    array.Expect(json_type_array, "an array");
    for (std::size_t i = 0; i < json_object_array_length(array.json); ++i) {
        take({json_object_array_get_idx(array.json, i), array.path + "[" + std::to_string(i) + "]"});
    }
}

// The name becomes part of a file name and of a packet filter's rule.
bool IsInterfaceName(std::string_view name)
{
    const bool good = std::ranges::all_of(name, [](unsigned char letter) {
        return std::isalnum(letter) != 0 ||
               std::string_view("_.@:-").find(static_cast<char>(letter)) != std::string_view::npos;
    });
    return !name.empty() && name.size() < IFNAMSIZ && good && name != "." && name != "..";
}

std::string InterfaceName(const Value &value)
{
    std::string name = Text(value);
    if (!IsInterfaceName(name)) {
        Fail(value.path, Quoted(name) + " is not an interface name");
    }
    return name;
}

// A name, or the beginning of names with a '*' behind it.
std::string InterfacePattern(const Value &value)
{
    std::string pattern = Text(value);
    std::string_view name = pattern;
    if (name.ends_with('*') && name.size() < IFNAMSIZ) {
        name.remove_suffix(1);
    }
    if (!IsInterfaceName(name)) {
        Fail(value.path, Quoted(pattern) + " is neither an interface name nor a prefix that ends in *");
    }
    return pattern;
}

// The name becomes part of a path and of a shell command.
std::string NamespaceName(const Value &value)
{
    std::string name = Text(value);
    const bool good = std::ranges::all_of(name, [](unsigned char letter) {
        return std::isalnum(letter) != 0 || letter == '_' || letter == '.' || letter == '-';
    });
    if (name.empty() || name.size() > kNamespaceNameMax || !good || name.front() == '-' || name.front() == '.') {
        Fail(value.path, Quoted(name) + " is not a namespace name");
    }
    return name;
}

std::string AbsolutePath(const Value &value)
{
    std::string path = Text(value);
    if (!path.starts_with('/') || path.find('\0') != std::string::npos) {
        Fail(value.path, "expected an absolute path");
    }
    return path;
}

std::string SocketPath(const Value &value)
{
    std::string path = AbsolutePath(value);
    if (path.size() > kSocketPathMax) {
        Fail(value.path, "is longer than " + std::to_string(kSocketPathMax) + " bytes");
    }
    return path;
}

Wan ReadWan(const Value &value)
{
    Wan wan;
    const Key keys[] = {
        {"name", [&](const Value &v) { wan.name = InterfaceName(v); }},
        {"sysRoute", [&](const Value &v) { wan.sysRoute = Flag(v); }},
    };
    TakeMembers(value, keys);
    Require(value, "name");
    return wan;
}

Vpn ReadVpn(const Value &value)
{
    Vpn vpn;
    vpn.path = value.path;
    const Key keys[] = {
        {"id", [&](const Value &v) { vpn.id = Number(v, 1); }},
        {"customer", [&](const Value &v) { vpn.customer = Number(v, 0); }},
        {"namespace", [&](const Value &v) { vpn.netns = NamespaceName(v); }},
        {"lan",
         [&](const Value &v) { ForEachElement(v, [&](const Value &e) { vpn.lan.push_back(InterfaceName(e)); }); }},
        {"wan", [&](const Value &v) { ForEachElement(v, [&](const Value &e) { vpn.wan.push_back(ReadWan(e)); }); }},
    };
    TakeMembers(value, keys);
    Require(value, "id");
    if (vpn.netns.empty()) {
        vpn.netns = "vpn_" + std::to_string(vpn.id);
    }
    return vpn;
}

Platform ReadPlatform(const Value &value)
{
    const std::string name = Text(value);
    if (name != "cpe" && name != "pop") {
        Fail(value.path, R"(expected "cpe" or "pop")");
    }
    return name == "cpe" ? Platform::kCpe : Platform::kPop;
}

LogLevel ReadLogLevel(const Value &value)
{
    const auto level = LogLevelByName(Text(value));
    if (!level) {
        Fail(value.path, R"(expected "error", "warning", "notice" or "debug")");
    }
    return *level;
}

// Two instances in one namespace would fight for port 53.
void RefuseDuplicates(const std::vector<Vpn> &vpns)
{
    std::set<std::uint32_t> ids;
    std::set<std::string> namespaces;
    for (const Vpn &vpn : vpns) {
        if (!ids.insert(vpn.id).second) {
            Fail(vpn.path + ".id", std::to_string(vpn.id) + " is configured twice");
        }
        if (!namespaces.insert(vpn.netns).second) {
            Fail(vpn.path + ".namespace", Quoted(vpn.netns) + " belongs to another VPN already");
        }
    }
}

Config ReadConfig(const Value &root)
{
    Config config;
    const Key keys[] = {
        {"platform", [&](const Value &v) { config.platform = ReadPlatform(v); }},
        {"customer", [&](const Value &v) { config.customer = Number(v, 0); }},
        {"persistence", [&](const Value &v) { config.persistence = Flag(v); }},
        {"store", [&](const Value &v) { config.store = AbsolutePath(v); }},
        {"socket", [&](const Value &v) { config.socket = SocketPath(v); }},
        {"log", [&](const Value &v) { config.log = ReadLogLevel(v); }},
        {"lan",
         [&](const Value &v) {
             ForEachElement(v, [&](const Value &e) { config.lan.push_back(InterfacePattern(e)); });
         }},
        {"c2p",
         [&](const Value &v) {
             ForEachElement(v, [&](const Value &e) { config.c2p.push_back(InterfacePattern(e)); });
         }},
        {"vpns",
         [&](const Value &v) { ForEachElement(v, [&](const Value &e) { config.vpns.push_back(ReadVpn(e)); }); }},
    };
    TakeMembers(root, keys);
    Require(root, "platform");
    RefuseDuplicates(config.vpns);
    std::ranges::sort(config.vpns, {}, &Vpn::id);
    return config;
}

struct JsonRelease {
    void operator()(json_object *object) const { json_object_put(object); }
    void operator()(json_tokener *tokener) const { json_tokener_free(tokener); }
};

[[noreturn]] void FailAt(const std::string &text, std::size_t offset, const char *what)
{
    const std::string_view before = std::string_view(text).substr(0, offset);
    const auto line = std::ranges::count(before, '\n') + 1;
    const std::size_t lineStart = before.rfind('\n') + 1; // npos + 1 is the first line's 0
    throw ConfigError("line " + std::to_string(line) + ", column " + std::to_string(before.size() - lineStart + 1) +
                      ": " + what);
}

std::unique_ptr<json_object, JsonRelease> ParseJson(const std::string &text)
{
    const std::unique_ptr<json_tokener, JsonRelease> tokener(json_tokener_new());
    if (!tokener) {
        throw std::bad_alloc();
    }
    if (text.size() >= static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw ConfigError("is too large");
    }
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    // The terminator goes with it: it tells the parser that nothing follows.
    std::unique_ptr<json_object, JsonRelease> root(
        json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size()) + 1));
    const std::size_t end = json_tokener_get_parse_end(tokener.get());
    const json_tokener_error error = json_tokener_get_error(tokener.get());
    if (error != json_tokener_success) {
        const bool cut = error == json_tokener_continue || end >= text.size();
        FailAt(text, std::min(end, text.size()), cut ? "unexpected end of file" : json_tokener_error_desc(error));
    }
    if (end < text.size()) {
        FailAt(text, end, "unexpected text after the configuration");
    }
    return root;
}

} // namespace

const Vpn *Config::Find(std::uint32_t id) const
{
    const auto found = std::ranges::lower_bound(vpns, id, {}, &Vpn::id);
    return found != vpns.end() && found->id == id ? &*found : nullptr;
}

Config ParseConfig(const std::string &text)
{
    const auto root = ParseJson(text);
    return ReadConfig({root.get(), ""});
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
