// What is meant to run, what runs, and where the two differ.
#ifndef KAVEL_AGENT_STATUS_H
#define KAVEL_AGENT_STATUS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavel::agent {

struct VpnStatus {
    std::uint32_t vpn = 0;
    std::string netns; // "-" for the box's own
    bool meant = false;
    bool pidFile = false;
    pid_t pid = 0;
    bool alive = false;
    bool isDnsmasq = false;
    bool inNamespace = false;
    bool answers = false;
    std::uint64_t uptimeSeconds = 0;
    std::uint64_t memoryBytes = 0;
    std::uint32_t hosts = 0;
    std::uint32_t mxHosts = 0;
    std::uint32_t servers = 0;
    std::uint32_t forwards = 0;
    std::uint32_t routes = 0;
    std::optional<bool> stored; // nothing: not known, or persistence is switched off
    std::optional<bool> storedEnable;
    std::optional<bool> rule;          // nothing: not known
    std::optional<bool> dnat;          // nothing: not known, or none belongs here
    std::vector<std::string> problems; // plain words
};

// In the order of `vpnIds`, which are configured VPNs or 0.
std::vector<VpnStatus> StatusOf(const std::vector<std::uint32_t> &vpnIds);

// Of the instances that run although their VPNs are not configured any more.
std::vector<VpnStatus> StatusOfStrays();

} // namespace kavel::agent

#endif
