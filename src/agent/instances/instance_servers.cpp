#include "instances/instance_servers.h"

#include <arpa/inet.h>

#include <fstream>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace kavel::agent {
namespace {

constexpr std::string_view kServerOption = "server=";

bool IsAddress(const std::string &text)
{
    in6_addr address{};
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1 || ::inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

// What the lines "server=VALUE" of a file have as their values, in order.
std::vector<std::string> ServerOptions(const std::string &path)
{
    std::vector<std::string> values;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(kServerOption)) {
            values.push_back(line.substr(kServerOption.size()));
        }
    }
    return values;
}

std::map<std::string, std::string> BoundInterfaces(const std::string &directory)
{
    std::map<std::string, std::string> interfaces; // by address
    for (const std::string &value : ServerOptions(directory + "/dnsmasq.d/ServerMap.conf")) {
        const std::size_t at = value.find('@');
        if (at != std::string::npos) {
            interfaces[value.substr(0, at)] = value.substr(at + 1);
        }
    }
    return interfaces;
}

} // namespace

std::string InstanceServer::Name() const
{
    return interface.empty() ? address : address + " through " + interface;
}

DnsTarget InstanceServer::Target(std::uint32_t vpnId) const
{
    DnsTarget target{.vpnId = vpnId, .interface = interface, .isInstance = false};
    in_addr ipv4{};
    in6_addr ipv6{};
    if (::inet_pton(AF_INET, address.c_str(), &ipv4) == 1) {
        target.address = ntohl(ipv4.s_addr);
    } else if (::inet_pton(AF_INET6, address.c_str(), &ipv6) == 1) {
        target.address6 = ipv6;
    }
    return target;
}

std::vector<InstanceServer> UpstreamsOf(const Instances &instances, std::uint32_t vpnId)
{
    const std::string directory = instances.Directory(vpnId);
    const auto interfaces = BoundInterfaces(directory);
    std::map<std::string, InstanceServer> upstreams; // by name
    std::ifstream resolver(directory + "/resolv.conf");
    for (std::string word; resolver >> word;) {
        if (word == "nameserver" || !IsAddress(word)) {
            continue;
        }
        const auto bound = interfaces.find(word);
        InstanceServer server{word, bound == interfaces.end() ? "" : bound->second, ""};
        upstreams.emplace(server.Name(), std::move(server));
    }
    std::vector<InstanceServer> servers;
    servers.reserve(upstreams.size());
    for (auto &[name, server] : upstreams) {
        servers.push_back(std::move(server));
    }
    return servers;
}

std::vector<InstanceServer> ForwardServersOf(const Instances &instances, std::uint32_t vpnId, std::size_t most)
{
    std::vector<InstanceServer> servers;
    std::set<std::string> known;
    for (const std::string &value : ServerOptions(instances.Directory(vpnId) + "/dnsmasq.d/DnsProxy.conf")) {
        // "/DOMAIN/ADDRESS"
        const std::size_t second = value.find('/', 1);
        if (!value.starts_with('/') || second == std::string::npos || servers.size() == most) {
            continue;
        }
        const std::string address = value.substr(second + 1);
        if (IsAddress(address) && known.insert(address).second) {
            servers.push_back({address, "", value.substr(1, second - 1)});
        }
    }
    return servers;
}

} // namespace kavel::agent
