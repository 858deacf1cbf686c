// Asks DNS servers whether they answer: instances, and the upstream servers of instances.
#ifndef KAVEL_AGENT_DNS_PROBE_H
#define KAVEL_AGENT_DNS_PROBE_H

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "base/netns.h"
#include "unique_fd.h"

namespace kavel::agent {

// A server that is asked from inside the namespace of a VPN.
struct DnsTarget {
    std::uint32_t vpnId = 0;
    bool overTcp = false;
    std::uint32_t address = INADDR_LOOPBACK; // IPv4, in the host's byte order
    std::optional<in6_addr> address6 = {};   // in its place, if set
    std::string interface = {};              // the question leaves through this one; empty: through any
    bool isInstance = true;                  // it is asked what dnsmasq knows by itself and never forwards

    [[nodiscard]] static std::vector<DnsTarget> Instances(const std::vector<std::uint32_t> &vpnIds,
                                                          bool overTcp = false);
};

// The targets that have answered, by their position, and after how long.
using DnsAnswers = std::map<std::size_t, std::chrono::milliseconds>;

// One question to several servers at once. Destroying it cancels it.
class DnsProbe {
  public:
    using OnEnd = std::function<void(const DnsAnswers &answering)>;

    // The loop calls `onEnd` once, which may destroy this object: when every target has answered or has refused, and at
    // the latest after `timeout`. `loop` must outlive this object; `namespaces` is used by the constructor only. Throws
    // std::system_error.
    DnsProbe(EventLoop &loop, const Namespaces &namespaces, const std::vector<DnsTarget> &targets,
             std::chrono::milliseconds timeout, OnEnd onEnd);

  private:
    // The source is destroyed before the socket that it watches.
    struct Question {
        DnsTarget target;
        std::uint16_t queryId = 0;
        bool isSent = false;
        std::vector<std::uint8_t> received; // over TCP
        UniqueFd socket;
        EventSource source;
    };

    void Ask(EventLoop &loop, const Namespaces &namespaces, std::size_t position);
    void Advance(std::size_t position);
    void EndQuestion(std::size_t position, bool hasAnswered);

    std::vector<Question> questions_;
    std::size_t pending_ = 0;
    DnsAnswers answering_;
    EventLoop::Clock::time_point begun_ = EventLoop::Clock::now();
    OnEnd onEnd_;
    EventSource timer_;
};

} // namespace kavel::agent

#endif
