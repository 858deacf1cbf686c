// The agent's configuration file.
#ifndef KAVEL_AGENT_CONFIG_H
#define KAVEL_AGENT_CONFIG_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "frame.h"
#include "log.h"

namespace kavel::agent {

// The text is one line that says what is wrong. It begins with the path of the key, "vpns[1].id: 7 is configured
// twice", or with the position of a syntax error, "line 2, column 3: unexpected character".
class ConfigError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class Platform { kCpe, kPop };

struct Wan {
    std::string name;
    bool sysRoute = false;
    bool operator==(const Wan &) const = default;
};

struct Vpn {
    std::uint32_t id = 0;
    std::optional<std::uint32_t> customer;
    std::string netns;
    std::vector<std::string> lan;
    std::vector<Wan> wan;
    std::string path; // in the configuration file, for messages: "vpns[1]"

    // Whether rules and routes are the same for both.
    [[nodiscard]] bool HasSameInterfaces(const Vpn &other) const
    {
        return customer == other.customer && netns == other.netns && lan == other.lan && wan == other.wan;
    }
};

// A user of the system that may connect to the control socket.
struct SocketUser {
    std::string name;
    bool mayApply = false;  // apply and check messages
    bool mayStatus = false; // ask for the status
    std::string path;       // in the configuration file, for messages: "users[0]"
    bool operator==(const SocketUser &) const = default;
};

// How instances are watched. Times are in seconds.
struct Watch {
    bool repair = true;                 // restart what has ended, and repair what differs from what is in force
    std::uint32_t udpSeconds = 10;      // between two queries over UDP to an instance
    std::uint32_t tcpSeconds = 60;      // the same over TCP
    std::uint32_t upstreamSeconds = 60; // between two queries to its upstream servers
    std::uint32_t lookSeconds = 30;     // between two looks for what no event tells
    std::uint32_t memoryMiB = 512;      // resident memory with which the agent exits, to be started again
};

struct Config {
    Platform platform = Platform::kCpe;
    std::uint32_t customer = 0;
    bool persistence = false;
    std::string store = "/var/lib/kavel/agent.db";
    std::string socket = control::kDefaultSocket;
    std::optional<std::string> readers; // the group whose members may ask the agent for what changes nothing
    std::vector<SocketUser> users;
    LogLevel log = LogLevel::kNotice;
    std::vector<std::string> lan; // the box's own LAN interfaces: names, or prefixes that end in '*'
    std::vector<std::string> wan; // the box's own WAN interfaces: names or prefixes as well
    std::vector<std::string> c2p; // the interfaces of connections from CPEs to this POP: names or prefixes as well
    Watch watch;
    std::vector<Vpn> vpns; // by rising id; the box itself, VPN 0, is not among them

    // Null when the VPN is not configured.
    [[nodiscard]] const Vpn *Find(std::uint32_t id) const;
    // The key of this configuration that differs and that cannot be changed while the agent runs; nothing when there is
    // none.
    [[nodiscard]] std::optional<std::string> FixedKeyThatDiffers(const Config &other) const;
    // Whether `id` is the box itself or a configured VPN.
    [[nodiscard]] bool Serves(std::uint32_t id) const { return id == 0 || Find(id) != nullptr; }
};

// Read and check the configuration in a file or in a text. Both throw ConfigError.
Config LoadConfig(const std::string &file);
Config ParseConfig(const std::string &text);

} // namespace kavel::agent

#endif
