// One question to one DNS server on this box, and its answer.
#ifndef KAVEL_AGENT_DNS_EXCHANGE_H
#define KAVEL_AGENT_DNS_EXCHANGE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/dns_message.h"
#include "base/netns.h"
#include "event_loop.h"
#include "unique_fd.h"

namespace kavel::agent {

struct DnsQuestion {
    std::uint32_t vpnId = 0;
    std::string name;
    std::uint16_t type = 0;
};

// Asks 127.0.0.1 in the namespace of a VPN over UDP, and over TCP when the answer is truncated. It has no time limit.
// Destroying it cancels it.
class DnsExchange {
  public:
    // Nothing: nobody listens there, or the connection broke.
    using OnEnd = std::function<void(std::optional<DnsAnswer> answer)>;

    // The loop calls `onEnd` once, which may destroy this object. The references must outlive this object. The name of
    // the question must be a domain name. Throws std::system_error.
    DnsExchange(EventLoop &loop, const Namespaces &namespaces, const DnsQuestion &question, std::uint16_t port,
                OnEnd onEnd);

  private:
    void Connect(int kind);
    void ReceivePacket();
    void AdvanceStream();
    void ReceiveStream();
    void End(std::optional<DnsAnswer> answer);

    EventLoop &loop_;
    const Namespaces &namespaces_;
    std::uint32_t vpnId_;
    std::uint16_t port_;
    std::uint16_t queryId_;
    std::vector<std::uint8_t> question_;
    OnEnd onEnd_;
    bool isSent_ = false;                // over TCP
    std::vector<std::uint8_t> received_; // over TCP
    // The source is destroyed before the socket that it watches.
    UniqueFd socket_;
    EventSource source_;
};

} // namespace kavel::agent

#endif
