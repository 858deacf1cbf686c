#include "socket/metrics_document.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <string_view>

#include "metrics_text.h"

namespace kavel::agent {
namespace {

using Labels = MetricsText::Labels;

Labels VpnLabels(std::uint32_t vpnId)
{
    return {{"vpn", std::to_string(vpnId)}};
}

void AddAgent(MetricsText &text, const AgentMetrics &agent)
{
    text.Begin("agent_up", "gauge", "Whether the agent answers.");
    text.Add({}, true);
    text.Begin("build_info", "gauge", "The version of the agent.");
    text.Add({{"version", agent.status.version}}, true);
    text.Begin("agent_start_time_seconds", "gauge", "When the agent has started, as Unix time.");
    text.Add({}, agent.startTime);
    text.Begin("agent_uptime_seconds", "gauge", "How long the agent has been running.");
    text.Add({}, agent.status.uptimeSeconds);
    text.Begin("agent_memory_bytes", "gauge", "Resident memory of the agent.");
    text.Add({}, agent.status.memoryBytes);
    text.Begin("agent_restarts_total", "counter", "Starts of the agent since the box has started, less one.");
    text.Add({}, agent.status.restarts);
    text.Begin("agent_starting", "gauge", "Whether the agent still restores VPNs after its start.");
    text.Add({}, agent.isStarting);
    text.Begin("store_errors_total", "counter", "Uses of the store that have failed.");
    text.Add({}, agent.storeFailures);
}

void AddMessages(MetricsText &text, const MessageMetrics &messages)
{
    text.Begin("messages_total", "counter",
               "Messages that clients had applied, by result. not_running and still_running: applied, but the instance "
               "is not in the state that the message asks for. not_newer: not applied, since one with the same or a "
               "higher revision was before.");
    for (const auto &[result, count] : messages.ByResult()) {
        text.Add({{"result", std::string(result)}}, count);
    }
    text.Begin("message_duration_seconds", "histogram",
               "Time from the arrival of a message to its answer, with the time that it waited in a queue.");
    text.Add({}, messages.Durations());
}

void AddInstances(MetricsText &text, const std::vector<VpnStatus> &vpns)
{
    const auto count = [&](auto isCounted) {
        return static_cast<std::uint64_t>(std::ranges::count_if(vpns, isCounted));
    };
    text.Begin("instances_meant", "gauge", "Instances that are meant to run.");
    text.Add({}, count([](const VpnStatus &vpn) { return vpn.fields.meant != 0; }));
    text.Begin("instances_running", "gauge", "Instances that run.");
    text.Add({}, count(IsUp));
    text.Begin("instances_answering", "gauge", "Instances that run and answer queries.");
    text.Add({}, count([](const VpnStatus &vpn) { return IsUp(vpn) && vpn.fields.answers != 0; }));
}

// A sample for each VPN for which `value` gives one.
template <typename Value>
void AddForEach(MetricsText &text, const std::vector<VpnStatus> &vpns, Value value)
{
    for (const VpnStatus &vpn : vpns) {
        if (const auto known = value(vpn)) {
            text.Add(VpnLabels(vpn.fields.vpn), *known);
        }
    }
}

void AddVpnStates(MetricsText &text, const std::vector<VpnStatus> &vpns)
{
    text.Begin("vpn_meant", "gauge", "Whether the instance is meant to run.");
    AddForEach(text, vpns, [](const VpnStatus &vpn) { return std::optional(vpn.fields.meant != 0); });
    text.Begin("vpn_up", "gauge", "Whether the instance runs, in the namespace of its VPN.");
    AddForEach(text, vpns, [](const VpnStatus &vpn) { return std::optional(IsUp(vpn)); });
    text.Begin("vpn_answers", "gauge", "Whether the instance runs and answers queries.");
    AddForEach(text, vpns, [](const VpnStatus &vpn) { return std::optional(IsUp(vpn) && vpn.fields.answers != 0); });
    text.Begin("vpn_memory_bytes", "gauge", "Resident memory of the instance.");
    AddForEach(text, vpns, [](const VpnStatus &vpn) {
        return IsUp(vpn) ? std::optional(std::uint64_t{vpn.fields.memory_bytes}) : std::nullopt;
    });
}

void AddVpnEvents(MetricsText &text, const std::vector<VpnStatus> &vpns)
{
    text.Begin("vpn_restarts_total", "counter",
               "How often the instance ended, or did not start, although it was meant to run.");
    AddForEach(text, vpns, [](const VpnStatus &vpn) { return std::optional(std::uint32_t{vpn.fields.ends}); });
    text.Begin("vpn_launch_failures_total", "counter", "Starts of the instance that have failed.");
    AddForEach(text, vpns, [](const VpnStatus &vpn) { return std::optional(vpn.failedLaunches); });
    text.Begin("vpn_repairs_total", "counter", "How often the agent has repaired something of the VPN.");
    AddForEach(text, vpns, [](const VpnStatus &vpn) { return std::optional(std::uint32_t{vpn.fields.repairs}); });
    text.Begin("vpn_redirected_packets_total", "counter",
               "Packets that the steering rule has redirected to the instance: the first one of each connection.");
    AddForEach(text, vpns, [](const VpnStatus &vpn) {
        return vpn.fields.has_redirected != 0 ? std::optional(vpn.fields.redirected) : std::nullopt;
    });
}

void AddProblems(MetricsText &text, const std::vector<VpnStatus> &vpns)
{
    text.Begin("vpn_problems", "gauge", "What is wrong with the VPN now, by code.");
    for (const VpnStatus &vpn : vpns) {
        std::map<std::string_view, std::uint64_t> byCode;
        for (const Finding &finding : vpn.problems) {
            ++byCode[CodeOf(finding.fault)];
        }
        for (const auto &[code, count] : byCode) {
            Labels labels = VpnLabels(vpn.fields.vpn);
            labels.emplace_back("code", code);
            text.Add(labels, count);
        }
    }
}

void AddRevision(MetricsText &text, std::uint32_t vpnId, const std::string &revision)
{
    Labels labels = VpnLabels(vpnId);
    labels.emplace_back("revision", revision);
    text.Add(labels, true);
}

// A VPN for which this agent has got no message wants what is in force.
void AddRevisions(MetricsText &text, const std::vector<VpnStatus> &vpns, const MessageMetrics &messages)
{
    text.Begin("vpn_revision_info", "gauge", "The revision of the message that is in force.");
    for (const VpnStatus &vpn : vpns) {
        if (vpn.revision) {
            AddRevision(text, vpn.fields.vpn, *vpn.revision);
        }
    }
    text.Begin("vpn_revision_wanted_info", "gauge",
               "The revision of the last message, also of one that was refused since the agent has started.");
    for (const VpnStatus &vpn : vpns) {
        const auto wanted = messages.WantedRevisions().find(vpn.fields.vpn);
        if (wanted != messages.WantedRevisions().end()) {
            AddRevision(text, vpn.fields.vpn, wanted->second);
        } else if (vpn.revision) {
            AddRevision(text, vpn.fields.vpn, *vpn.revision);
        }
    }
}

struct CounterMetric {
    const char *name;
    const char *type;
    const char *help;
    std::optional<std::uint64_t> DnsCounters::*value;
};

constexpr std::array<CounterMetric, 5> kCounterMetrics{
    {{"vpn_cache_hits_total", "counter",
      "Queries over UDP that the instance did not forward: answered from its cache or its files, refused, or repeated "
      "while an upstream server was being asked. The agent's own are not counted.",
      &DnsCounters::hits},
     {"vpn_cache_misses_total", "counter", "Queries over UDP that the instance has forwarded to an upstream server.",
      &DnsCounters::misses},
     {"vpn_cache_insertions_total", "counter", "Records that were put into the cache of the instance.",
      &DnsCounters::insertions},
     {"vpn_cache_evictions_total", "counter", "Records that left the cache of the instance before they expired.",
      &DnsCounters::evictions},
     {"vpn_cache_size", "gauge", "Records that the cache of the instance has room for.", &DnsCounters::cacheSize}}};

void AddCache(MetricsText &text, const DnsCountersQuery::CountersByVpn &counters)
{
    for (const CounterMetric &metric : kCounterMetrics) {
        text.Begin(metric.name, metric.type, metric.help);
        for (const auto &[vpnId, each] : counters) {
            if (const auto value = each.*metric.value) {
                text.Add(VpnLabels(vpnId), *value);
            }
        }
    }
}

void AddUpstreamCounter(MetricsText &text, const DnsCountersQuery::CountersByVpn &counters,
                        std::uint64_t UpstreamCounters::*value)
{
    for (const auto &[vpnId, each] : counters) {
        for (const UpstreamCounters &upstream : each.upstreams) {
            Labels labels = VpnLabels(vpnId);
            labels.emplace_back("server", upstream.server);
            text.Add(labels, upstream.*value);
        }
    }
}

void AddUpstreams(MetricsText &text, const DnsCountersQuery::CountersByVpn &counters)
{
    text.Begin("vpn_upstream_queries_total", "counter", "Queries that the instance has sent to an upstream server.");
    AddUpstreamCounter(text, counters, &UpstreamCounters::asked);
    text.Begin("vpn_upstream_failures_total", "counter",
               "Queries that an upstream server could not answer, as far as dnsmasq counts them: those that it then "
               "sent to another server. Silence is not counted.");
    AddUpstreamCounter(text, counters, &UpstreamCounters::failed);
}

} // namespace

bool IsUp(const VpnStatus &vpn)
{
    return vpn.fields.alive != 0 && vpn.fields.is_dnsmasq != 0 && vpn.fields.in_namespace != 0;
}

std::string MetricsDocument(const AgentMetrics &agent, const std::vector<VpnStatus> &vpns,
                            const DnsCountersQuery::CountersByVpn &counters, const MessageMetrics &messages)
{
    MetricsText text;
    AddAgent(text, agent);
    AddMessages(text, messages);
    AddInstances(text, vpns);
    AddVpnStates(text, vpns);
    AddVpnEvents(text, vpns);
    AddProblems(text, vpns);
    AddRevisions(text, vpns, messages);
    AddCache(text, counters);
    AddUpstreams(text, counters);
    return text.Text();
}

} // namespace kavel::agent
