// The agent's configuration file: if it is accepted, every name in it is safe in a path and a command; otherwise one
// line names the invalid key.
#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include <json-c/json.h>

#include "base/config.h"
#include "fuzz.h"

namespace {

using kavel::agent::Config;

constexpr std::string_view kNameCharacters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-";
constexpr size_t kInterfaceNameMax = 15;

// Has no character that is special in a path, in a shell or in a packet filter's rule.
bool IsSafe(std::string_view Name, const std::string &MoreCharacters, size_t Longest)
{
    const std::string Allowed = std::string(kNameCharacters) + MoreCharacters;
    return !Name.empty() && Name.size() <= Longest && Name.find_first_not_of(Allowed) == std::string_view::npos &&
           Name != "." && Name != "..";
}

bool IsInterface(const std::string &Name)
{
    return IsSafe(Name, "@:", kInterfaceNameMax);
}

bool IsInterfacePattern(const std::string &Name)
{
    const bool IsPrefix = Name.ends_with('*') && Name.size() <= kInterfaceNameMax;
    return IsInterface(IsPrefix ? Name.substr(0, Name.size() - 1) : Name);
}

void CheckVpn(const Config &Conf, const kavel::agent::Vpn &Vpn)
{
    constexpr size_t LongestFileName = 255;
    fuzz::Require(Vpn.id != 0, "a VPN has the id of the box");
    fuzz::Require(Conf.Find(Vpn.id) == &Vpn && Conf.Serves(Vpn.id), "a VPN is not found by its id");
    fuzz::Require(IsSafe(Vpn.netns, "", LongestFileName) && Vpn.netns.front() != '-' && Vpn.netns.front() != '.',
                  "a namespace name is unsafe");
    fuzz::Require(std::ranges::all_of(Vpn.lan, IsInterface), "a LAN name is unsafe");
    fuzz::Require(std::ranges::all_of(Vpn.wan, IsInterface, &kavel::agent::Wan::name), "a WAN name is unsafe");
}

// The first character of a user's name may not make it an option.
void CheckUsers(const std::vector<kavel::agent::SocketUser> &Users)
{
    constexpr size_t LongestName = 32;
    std::set<std::string> Names;
    for (const kavel::agent::SocketUser &Each : Users) {
        fuzz::Require(!Each.name.empty() && Each.name.size() <= LongestName && Each.name.front() != '-' &&
                          Each.name.find_first_not_of(kNameCharacters) == std::string::npos,
                      "the name of a user is unsafe");
        fuzz::Require(Names.insert(Each.name).second, "a user is there twice");
        fuzz::Require(Each.mayApply || Each.mayStatus, "a user may do nothing");
    }
}

void CheckAccepted(const Config &Conf)
{
    constexpr size_t LongestSocketPath = 107;
    std::set<std::string> Namespaces;
    uint32_t Last = 0;
    for (const kavel::agent::Vpn &Each : Conf.vpns) {
        CheckVpn(Conf, Each);
        fuzz::Require(Each.id > Last, "the VPNs are not sorted");
        fuzz::Require(Namespaces.insert(Each.netns).second, "two VPNs share a namespace");
        Last = Each.id;
    }
    fuzz::Require(Conf.Serves(0) && Conf.Find(0) == nullptr, "the box is a VPN");
    fuzz::Require(Conf.socket.starts_with('/') && Conf.socket.size() <= LongestSocketPath,
                  "the path of the socket is invalid");
    fuzz::Require(Conf.store.starts_with('/'), "the path of the store is invalid");
    fuzz::Require(std::ranges::all_of(Conf.lan, IsInterfacePattern), "a LAN name of the box is unsafe");
    fuzz::Require(std::ranges::all_of(Conf.wan, IsInterfacePattern), "a WAN name of the box is unsafe");
    fuzz::Require(std::ranges::all_of(Conf.c2p, IsInterfacePattern), "a connection name is unsafe");
    CheckUsers(Conf.users);
}

size_t LengthOf(json_object *Root, const char *Key)
{
    json_object *List = json_object_object_get(Root, Key);
    return List == nullptr ? 0 : json_object_array_length(List);
}

// The configuration has the values of the file.
void CheckAgainstFile(const Config &Conf, const std::string &Text)
{
    const std::unique_ptr<json_object, decltype(&json_object_put)> Root(json_tokener_parse(Text.c_str()),
                                                                        json_object_put);
    const char *Platform = json_object_get_string(json_object_object_get(Root.get(), "platform"));
    const bool IsPop = Conf.platform == kavel::agent::Platform::kPop;
    fuzz::Require(Platform != nullptr && std::string_view(Platform) == (IsPop ? "pop" : "cpe"), "another platform");
    fuzz::RequireSame("the customer", Conf.customer,
                      json_object_get_int64(json_object_object_get(Root.get(), "customer")));
    fuzz::Require(Conf.persistence == (json_object_get_boolean(json_object_object_get(Root.get(), "persistence")) != 0),
                  "another persistence");
    fuzz::Require(Conf.vpns.size() == LengthOf(Root.get(), "vpns"), "another number of VPNs");
    fuzz::Require(Conf.lan.size() == LengthOf(Root.get(), "lan"), "another number of LANs");
    fuzz::Require(Conf.wan.size() == LengthOf(Root.get(), "wan"), "another number of WANs");
    fuzz::Require(Conf.c2p.size() == LengthOf(Root.get(), "c2p"), "another number of connections");
    fuzz::Require(Conf.users.size() == LengthOf(Root.get(), "users"), "another number of users");
}

void CheckRefusal(const std::string &Message)
{
    const bool SaysWhere = Message.starts_with("line ") || Message.find(": ") != std::string::npos;
    fuzz::Require(SaysWhere || Message.starts_with("expected an object, not "), "a refusal does not say where");
    if (!fuzz::IsOneLine(Message)) {
        fuzz::Fail("a refusal is not one line: " + Message);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    const std::string Text(Data, Data + Size);
    try {
        const Config Conf = kavel::agent::ParseConfig(Text);
        CheckAccepted(Conf);
        CheckAgainstFile(Conf, Text);
    } catch (const kavel::agent::ConfigError &Refused) {
        CheckRefusal(Refused.what());
    }
    return 0;
}
