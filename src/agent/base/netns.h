// The network namespaces of the VPNs. VPN 0 is the box: the namespace in which the agent was started.
#ifndef KAVEL_AGENT_NETNS_H
#define KAVEL_AGENT_NETNS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/config.h"
#include "unique_fd.h"

namespace kavel::agent {

inline constexpr const char *kNamespaceDirectory = "/run/netns";

struct NamespaceId {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const NamespaceId &) const = default;
};

// The path of the VPN's namespace below /run/netns.
[[nodiscard]] std::string NamespacePath(const Vpn &vpn);

// The program that executes a command in a namespace, with the option "--net=FILE" in front of the command: netns-exec,
// which comes with the agent, or nsenter where that is missing or its path does not fit into a command.
[[nodiscard]] std::string NamespaceTool();
inline constexpr const char *kNsenter = "/usr/bin/nsenter";

// The namespace of a process; nothing when the process has ended.
[[nodiscard]] std::optional<NamespaceId> NamespaceOfProcess(pid_t pid);

class Namespaces {
  public:
    // Keeps the calling thread's namespace as the box's own. `config` must outlive this object. Throws
    // std::system_error.
    explicit Namespaces(const Config &config);

    // The identity of the VPN's namespace; nothing when the VPN or its namespace does not exist.
    [[nodiscard]] std::optional<NamespaceId> IdOf(std::uint32_t vpnId) const;

    // A handle of the VPN's namespace. Throws std::system_error.
    [[nodiscard]] UniqueFd Open(std::uint32_t vpnId) const;

    // Counts requests. What rarely changes and is needed for every route (the namespace of a VPN, the index of an
    // interface) is read once per request: a change during a request is seen by the next request.
    [[nodiscard]] std::uint64_t CurrentRequest() const { return request_; }
    void BeginRequest() { ++request_; }

  private:
    const Config &config_;
    UniqueFd own_;
    std::uint64_t request_ = 1;
};

// Moves the calling thread into the VPN's namespace for a scope. The constructor throws std::system_error when the
// namespace cannot be entered. A thread that cannot return aborts the process: it would work in the wrong namespace.
class NamespaceSwitch {
  public:
    NamespaceSwitch(const Namespaces &namespaces, std::uint32_t vpnId);
    NamespaceSwitch(const NamespaceSwitch &) = delete;
    NamespaceSwitch &operator=(const NamespaceSwitch &) = delete;
    ~NamespaceSwitch();

    // Leaves the thread in the VPN's namespace. Returns the handle of the namespace that it came from.
    [[nodiscard]] UniqueFd Stay();

  private:
    UniqueFd saved_;
};

} // namespace kavel::agent

#endif
