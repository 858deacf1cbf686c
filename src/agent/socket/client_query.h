// A query as a client of a VPN sends it, and the way that its answer takes.
#ifndef KAVEL_AGENT_CLIENT_QUERY_H
#define KAVEL_AGENT_CLIENT_QUERY_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/netns.h"
#include "event_loop.h"
#include "instances/dns_exchange.h"
#include "instances/instances.h"
#include "instances/query_instance.h"
#include "instances/query_way.h"

namespace kavel::agent {

struct QueryOutcome {
    std::optional<DnsAnswer> answer;
    std::string problem; // why there is none
    std::vector<std::string> way;
    std::chrono::milliseconds duration{0};
    std::optional<std::string> differs; // what the running instance does otherwise
};

inline constexpr std::chrono::seconds kQueryTimeout{5};

// Asks a dnsmasq that is started for this query on the files of the VPN, and the running instance. Destroying it
// cancels it.
class ClientQuery {
  public:
    using OnEnd = std::function<void(const QueryOutcome &outcome)>;

    // The loop calls `onEnd` once, after kQueryTimeout at the latest; it may destroy this object. The references must
    // outlive this object. The name of the question must be a domain name, and the VPN's namespace must exist. Throws
    // std::system_error.
    ClientQuery(EventLoop &loop, const Namespaces &namespaces, const Instances &instances, DnsQuestion question,
                OnEnd onEnd);

  private:
    void AskRunning();
    void TakeLine(std::string_view line);
    void Ask();
    void TakeAnswer(std::optional<DnsAnswer> answer, std::string problem);
    void EndIfComplete();
    void End();
    [[nodiscard]] std::optional<std::string> Difference() const;
    [[nodiscard]] std::vector<std::string> Paths() const;

    EventLoop &loop_;
    const Namespaces &namespaces_;
    const Instances &instances_;
    DnsQuestion question_;
    OnEnd onEnd_;
    QueryOutcome outcome_;
    bool isAnswered_ = false; // or cannot be
    EventLoop::Clock::time_point asked_;
    std::vector<QueryLogLine> log_;
    std::string lastLine_;
    std::optional<DnsAnswer> running_;
    bool hasRunningEnded_ = false;
    EventSource end_;
    EventSource timer_;
    std::optional<DnsExchange> runningExchange_;
    std::optional<DnsExchange> exchange_;
    std::optional<QueryInstance> instance_;
};

} // namespace kavel::agent

#endif
