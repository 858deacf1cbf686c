#include "base/port_owners.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>

#include "base/procfs.h"
#include "number.h"

namespace kavel::agent {
namespace {

constexpr int kHexadecimal = 16;
constexpr unsigned kListening = 10; // the state of a TCP socket, as the kernel prints it

// The columns of the kernel's tables that are read here.
struct SocketRow {
    unsigned port = 0;
    unsigned state = 0;
    std::string inode;
};

SocketRow RowOf(const std::string &line)
{
    std::istringstream columns(line);
    std::string number;
    std::string local;
    std::string remote;
    std::string state;
    std::string skipped;
    SocketRow row;
    columns >> number >> local >> remote >> state;
    for (int column = 0; column < 5; ++column) { // queues, timers, retransmits, user, timeout
        columns >> skipped;
    }
    columns >> row.inode;
    const std::size_t colon = local.rfind(':');
    if (colon != std::string::npos) {
        row.port = static_cast<unsigned>(std::stoul(local.substr(colon + 1), nullptr, kHexadecimal));
        row.state = static_cast<unsigned>(std::stoul(state, nullptr, kHexadecimal));
    }
    return row;
}

// The sockets of the calling thread's namespace that have the port: their link below /proc/PID/fd, and whether it is
// TCP.
std::map<std::string, bool> SocketsOfPort(std::uint16_t port)
{
    std::map<std::string, bool> sockets;
    for (const std::string_view table : {"tcp", "tcp6", "udp", "udp6"}) {
        const bool overTcp = table.starts_with("tcp");
        std::ifstream file("/proc/thread-self/net/" + std::string(table));
        std::string line;
        std::getline(file, line); // the titles
        while (std::getline(file, line)) {
            const SocketRow row = RowOf(line);
            if (row.port == port && (!overTcp || row.state == kListening)) {
                sockets["socket:[" + row.inode + "]"] = overTcp;
            }
        }
    }
    return sockets;
}

std::map<std::string, bool> SocketsInNamespace(const Namespaces &namespaces, std::uint32_t vpnId, std::uint16_t port)
{
    const NamespaceSwitch inside(namespaces, vpnId);
    return SocketsOfPort(port);
}

} // namespace

std::vector<PortOwner> OwnersOfPort(const Namespaces &namespaces, std::uint32_t vpnId, std::uint16_t port)
{
    const auto sockets = SocketsInNamespace(namespaces, vpnId, port);
    std::vector<PortOwner> owners;
    if (sockets.empty()) {
        return owners;
    }
    for (const pid_t pid : AllProcesses()) {
        std::error_code ignored;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ignored)) {
            const auto found = sockets.find(std::filesystem::read_symlink(entry.path(), ignored).string());
            const bool isNew =
                found != sockets.end() && std::ranges::find(owners, PortOwner{pid, found->second}) == owners.end();
            if (isNew) {
                owners.push_back({pid, found->second});
            }
        }
    }
    return owners;
}

} // namespace kavel::agent
