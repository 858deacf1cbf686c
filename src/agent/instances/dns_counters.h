// What the instances have counted: dnsmasq tells its counters as answers to CHAOS questions, one in a packet.
#ifndef KAVEL_AGENT_DNS_COUNTERS_H
#define KAVEL_AGENT_DNS_COUNTERS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "event_loop.h"
#include "instances/dns_probe.h"
#include "services/host.h"

namespace kavel::agent {

struct UpstreamCounters {
    std::string server;       // "10.7.0.53#53"
    std::uint64_t asked = 0;  // queries that were sent to it
    std::uint64_t failed = 0; // that it could not answer, and that were sent again
    bool operator==(const UpstreamCounters &) const = default;
};

// Since the instance has started. A value is absent when the instance did not tell it.
struct DnsCounters {
    std::optional<std::uint64_t> hits;   // not forwarded to an upstream server; without the agent's own questions
    std::optional<std::uint64_t> misses; // forwarded to an upstream server
    std::optional<std::uint64_t> cacheSize;
    std::optional<std::uint64_t> insertions; // into the cache
    std::optional<std::uint64_t> evictions;  // of entries that had not expired
    std::vector<UpstreamCounters> upstreams;
};

// The strings of all TXT records in the answer section of a DNS message. Nothing when it is not an answer without
// error, or is malformed or truncated.
[[nodiscard]] std::optional<std::vector<std::string>> TxtStrings(std::span<const std::uint8_t> message);
[[nodiscard]] bool IsTruncated(std::span<const std::uint8_t> message);

// "10.7.0.53#53 12 3"; more words may follow. Nothing for other texts.
[[nodiscard]] std::optional<UpstreamCounters> ReadUpstream(std::string_view text);

// Asks the instances for their counters, a few at a time. Destroying it cancels it.
class DnsCountersQuery {
  public:
    using CountersByVpn = std::map<std::uint32_t, DnsCounters>;
    using OnEnd = std::function<void(CountersByVpn counters)>;

    // The loop calls `onEnd` once, which may destroy this object. The references must outlive this object. Throws
    // std::system_error.
    DnsCountersQuery(EventLoop &loop, Host &host, std::vector<std::uint32_t> vpnIds, OnEnd onEnd);

  private:
    void AskNext();
    void BeginProbe();
    void ReadAnswers(const DnsAnswers &answering);

    EventLoop &loop_;
    Host &host_;
    std::vector<std::uint32_t> vpnIds_;
    std::size_t next_ = 0; // the first VPN that was not asked
    OnEnd onEnd_;
    CountersByVpn counters_;
    std::vector<DnsTarget> asked_;
    std::vector<DnsTarget> truncated_; // to be asked again, over TCP
    EventSource asking_;
    std::optional<DnsProbe> probe_;
};

} // namespace kavel::agent

#endif
