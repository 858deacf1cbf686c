// The agent's configuration file.
#ifndef KAVEL_AGENT_CONFIG_H
#define KAVEL_AGENT_CONFIG_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/log.h"
#include "frame.h"

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
};

struct Vpn {
    std::uint32_t id = 0;
    std::optional<std::uint32_t> customer;
    std::string netns;
    std::vector<std::string> lan;
    std::vector<Wan> wan;
    std::string path; // in the configuration file, for messages: "vpns[1]"
};

struct Config {
    Platform platform = Platform::kCpe;
    std::uint32_t customer = 0;
    bool persistence = false;
    std::string store = "/var/lib/kavel/agent.db";
    std::string socket = control::kDefaultSocket;
    LogLevel log = LogLevel::kNotice;
    std::vector<std::string> lan; // the box's own LAN interfaces: names, or prefixes that end in '*'
    std::vector<std::string> wan; // the box's own WAN interfaces: names or prefixes as well
    std::vector<std::string> c2p; // the interfaces of connections from CPEs to this POP: names or prefixes as well
    std::vector<Vpn> vpns;        // by rising id; the box itself, VPN 0, is not among them

    // Null when the VPN is not configured.
    [[nodiscard]] const Vpn *Find(std::uint32_t id) const;
    // Whether `id` is the box itself or a configured VPN.
    [[nodiscard]] bool Serves(std::uint32_t id) const { return id == 0 || Find(id) != nullptr; }
};

// Read and check the configuration in a file or in a text. Both throw ConfigError.
Config LoadConfig(const std::string &file);
Config ParseConfig(const std::string &text);

} // namespace kavel::agent

#endif
