#include "socket/metrics_document.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace kavel::agent {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

VpnStatus MeasuredVpn(std::uint32_t vpnId, bool isUp)
{
    VpnStatus status;
    status.fields.vpn = vpnId;
    status.fields.meant = 1;
    status.fields.alive = status.fields.is_dnsmasq = status.fields.in_namespace = status.fields.answers = isUp ? 1 : 0;
    return status;
}

std::vector<std::string> LinesOfDocument(const std::vector<VpnStatus> &vpns,
                                         const DnsCountersQuery::CountersByVpn &counters = {},
                                         const MessageMetrics &messages = {})
{
    const AgentMetrics agent{
        .status = {"1.2", 5, 4096, 2}, .startTime = 1'700'000'000, .storeFailures = 3, .isStarting = true};
    std::vector<std::string> lines;
    std::istringstream text(MetricsDocument(agent, vpns, counters, messages));
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(MetricsDocument, TellsAboutTheAgent)
{
    const auto lines = LinesOfDocument({});
    for (const char *line :
         {"kavel_agent_up 1", "kavel_build_info{version=\"1.2\"} 1", "kavel_agent_start_time_seconds 1700000000",
          "kavel_agent_uptime_seconds 5", "kavel_agent_memory_bytes 4096", "kavel_agent_starting 1",
          "kavel_agent_restarts_total 2", "kavel_store_errors_total 3", "kavel_instances_meant 0",
          "kavel_messages_total{result=\"applied\"} 0"}) {
        EXPECT_THAT(lines, Contains(line));
    }
}

TEST(MetricsDocument, CountsTheInstances)
{
    VpnStatus silent = MeasuredVpn(8, true);
    silent.fields.answers = 0;
    VpnStatus misplaced = MeasuredVpn(9, true);
    misplaced.fields.in_namespace = 0;
    const auto lines = LinesOfDocument({MeasuredVpn(7, true), silent, misplaced, MeasuredVpn(10, false)});
    EXPECT_THAT(lines, Contains("kavel_instances_meant 4"));
    EXPECT_THAT(lines, Contains("kavel_instances_running 2"));
    EXPECT_THAT(lines, Contains("kavel_instances_answering 1"));
    EXPECT_THAT(lines, Contains("kavel_vpn_up{vpn=\"8\"} 1"));
    EXPECT_THAT(lines, Contains("kavel_vpn_answers{vpn=\"8\"} 0"));
    EXPECT_THAT(lines, Contains("kavel_vpn_up{vpn=\"9\"} 0"));
    EXPECT_THAT(lines, Contains("kavel_vpn_answers{vpn=\"9\"} 0")) << "somebody else answers there";
}

TEST(MetricsDocument, TellsWhatHappenedToAVpn)
{
    VpnStatus vpn = MeasuredVpn(7, true);
    vpn.fields.ends = 2;
    vpn.fields.repairs = 3;
    vpn.failedLaunches = 4;
    vpn.fields.has_redirected = 1;
    vpn.fields.redirected = 5;
    vpn.problems = {{Fault::kUpstreamSilent, "a", ""}, {Fault::kLinkDown, "b", ""}, {Fault::kUpstreamSilent, "c", ""}};
    const auto lines = LinesOfDocument({vpn, MeasuredVpn(8, true)});
    for (const char *line :
         {"kavel_vpn_restarts_total{vpn=\"7\"} 2", "kavel_vpn_repairs_total{vpn=\"7\"} 3",
          "kavel_vpn_launch_failures_total{vpn=\"7\"} 4", "kavel_vpn_redirected_packets_total{vpn=\"7\"} 5",
          "kavel_vpn_problems{vpn=\"7\",code=\"upstream-silent\"} 2",
          "kavel_vpn_problems{vpn=\"7\",code=\"link-down\"} 1", "kavel_vpn_restarts_total{vpn=\"8\"} 0"}) {
        EXPECT_THAT(lines, Contains(line));
    }
    EXPECT_THAT(lines, Not(Contains(HasSubstr("kavel_vpn_redirected_packets_total{vpn=\"8\"}"))));
}

TEST(MetricsDocument, TellsTheCountersOfAnInstanceThatAreKnown)
{
    DnsCounters counters;
    counters.hits = 1;
    counters.misses = 2;
    counters.cacheSize = 150;
    counters.insertions = 3;
    counters.upstreams = {{"10.7.0.53#53", 4, 5}};
    const auto lines = LinesOfDocument({MeasuredVpn(7, true)}, {{7, counters}});
    for (const char *line : {"kavel_vpn_cache_hits_total{vpn=\"7\"} 1", "kavel_vpn_cache_misses_total{vpn=\"7\"} 2",
                             "kavel_vpn_cache_size{vpn=\"7\"} 150", "kavel_vpn_cache_insertions_total{vpn=\"7\"} 3",
                             "kavel_vpn_upstream_queries_total{vpn=\"7\",server=\"10.7.0.53#53\"} 4",
                             "kavel_vpn_upstream_failures_total{vpn=\"7\",server=\"10.7.0.53#53\"} 5"}) {
        EXPECT_THAT(lines, Contains(line));
    }
    EXPECT_THAT(lines, Not(Contains(HasSubstr("kavel_vpn_cache_evictions_total"))));
}

TEST(MetricsDocument, TheRevisionInForceIsWantedUntilAMessageAsksForAnother)
{
    VpnStatus known = MeasuredVpn(7, true);
    known.revision = "one";
    VpnStatus refused = MeasuredVpn(8, true);
    refused.revision = "one";
    MessageMetrics messages;
    messages.AskedFor(8, "two");
    messages.AskedFor(9, "three");
    const auto lines = LinesOfDocument({known, refused, MeasuredVpn(9, true)}, {}, messages);
    for (const char *line : {"kavel_vpn_revision_info{vpn=\"7\",revision=\"one\"} 1",
                             "kavel_vpn_revision_wanted_info{vpn=\"7\",revision=\"one\"} 1",
                             "kavel_vpn_revision_info{vpn=\"8\",revision=\"one\"} 1",
                             "kavel_vpn_revision_wanted_info{vpn=\"8\",revision=\"two\"} 1",
                             "kavel_vpn_revision_wanted_info{vpn=\"9\",revision=\"three\"} 1"}) {
        EXPECT_THAT(lines, Contains(line));
    }
    EXPECT_THAT(lines, Not(Contains(HasSubstr("kavel_vpn_revision_info{vpn=\"9\""))));
}

} // namespace
} // namespace kavel::agent
