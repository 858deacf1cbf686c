// A dnsmasq that lives for one query: it reads the files of a VPN, logs what it does and serves a port of its own.
#ifndef KAVEL_AGENT_QUERY_INSTANCE_H
#define KAVEL_AGENT_QUERY_INSTANCE_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/netns.h"
#include "event_loop.h"
#include "unique_fd.h"

namespace kavel::agent {

// It listens on 127.0.0.1 in the namespace of the VPN, writes no pid file, and is not taken for the VPN's instance.
// Destroying this object ends it. If the agent is killed, it ends after kQueryInstanceLife.
class QueryInstance {
  public:
    // Is given each line of the log without its prefix, and an empty one when the process has ended.
    using OnLine = std::function<void(std::string_view line)>;

    // Starts the process with the configuration file `config`. The loop calls `onLine`, which must not destroy this
    // object. The references must outlive this object. Throws std::system_error.
    QueryInstance(EventLoop &loop, const Namespaces &namespaces, std::uint32_t vpnId, const std::string &config,
                  OnLine onLine);
    QueryInstance(const QueryInstance &) = delete;
    QueryInstance &operator=(const QueryInstance &) = delete;
    ~QueryInstance();

    // Whether a line of the log says that it serves its port.
    [[nodiscard]] static bool SaysStarted(std::string_view line) { return line.starts_with("started, "); }

    [[nodiscard]] std::uint16_t Port() const { return port_; }

    // Reads what it has logged so far.
    void ReadLog();

  private:
    void TakeLines();

    OnLine onLine_;
    std::uint16_t port_;
    pid_t pid_ = -1;
    std::string unfinished_; // the beginning of a line
    bool hasEnded_ = false;
    // The source is destroyed before the descriptor that it watches.
    UniqueFd log_;
    EventSource source_;
};

inline constexpr std::chrono::seconds kQueryInstanceLife{8};

} // namespace kavel::agent

#endif
