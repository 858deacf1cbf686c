// Asks instances over UDP whether they answer.
#ifndef KAVEL_AGENT_DNS_PROBE_H
#define KAVEL_AGENT_DNS_PROBE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "base/event_loop.h"
#include "base/netns.h"
#include "unique_fd.h"

namespace kavel::agent {

// One question to several instances at once. Destroying it cancels it.
class DnsProbe {
  public:
    // The VPNs in whose namespace 127.0.0.1 has answered.
    using OnEnd = std::function<void(const std::set<std::uint32_t> &answering)>;

    // Asks the instances of `vpnIds`. The loop calls `onEnd` once: when every instance has answered or has refused, and
    // at the latest after `timeout`. `loop` must outlive this object; `namespaces` is used by the constructor only.
    // Throws std::system_error.
    DnsProbe(EventLoop &loop, const Namespaces &namespaces, const std::vector<std::uint32_t> &vpnIds,
             std::chrono::milliseconds timeout, OnEnd onEnd);

  private:
    // The source is destroyed before the socket that it watches.
    struct Question {
        std::uint16_t queryId;
        UniqueFd socket;
        EventSource source;
    };

    void Ask(EventLoop &loop, const Namespaces &namespaces, std::uint32_t vpnId, std::uint16_t queryId);
    void ReadAnswer(std::uint32_t vpnId);

    std::map<std::uint32_t, Question> pending_;
    std::set<std::uint32_t> answering_;
    OnEnd onEnd_;
    EventSource timer_;
};

} // namespace kavel::agent

#endif
