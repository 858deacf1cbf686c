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

#include "event_loop.h"
#include "services/host.h"
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
    std::string counter = "cachesize";       // which of dnsmasq's counters an instance is asked for
    bool isWhole = false;                    // the whole answer is read, for DnsProbe::AnswerOf

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
    // the latest after `timeout`. The references must outlive this object. Questions to instances over UDP are added to
    // the agent's own ones. Throws std::system_error.
    DnsProbe(EventLoop &loop, Host &host, const std::vector<DnsTarget> &targets, std::chrono::milliseconds timeout,
             OnEnd onEnd);

    struct Reply {
        std::vector<std::uint8_t> message;
        std::uint64_t questionsBefore = 0; // the agent's own, which the instance got before this one
    };
    // Of a target that has answered, and whose answer is read whole. Valid until this object is destroyed.
    [[nodiscard]] const Reply &AnswerOf(std::size_t position) const { return questions_[position].reply; }

  private:
    // The source is destroyed before the socket that it watches.
    struct Question {
        DnsTarget target;
        std::uint16_t queryId = 0;
        bool isSent = false;
        std::vector<std::uint8_t> received; // over TCP
        Reply reply;
        std::optional<OwnQuestions::Ticket> counted;
        UniqueFd socket;
        EventSource source;
    };

    void Ask(EventLoop &loop, std::size_t position);
    void Send(Question &question);
    void Advance(std::size_t position);
    void EndQuestion(std::size_t position, bool hasAnswered);

    Host &host_;
    std::vector<Question> questions_;
    std::size_t pending_ = 0;
    DnsAnswers answering_;
    EventLoop::Clock::time_point begun_ = EventLoop::Clock::now();
    OnEnd onEnd_;
    EventSource timer_;
};

} // namespace kavel::agent

#endif
