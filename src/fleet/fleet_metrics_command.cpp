#include "fleet_metrics_command.h"

#include <algorithm>
#include <cstdint>
#include <ostream>

#include "files.h"
#include "fleet_errors.h"
#include "fleet_view.h"
#include "metrics_text.h"

namespace kavel::fleet {

namespace {

constexpr const char *kUpHelp = "Whether the broker has answered.";

void Write(const Console &console, const std::optional<std::string> &target, const std::string &text)
{
    if (target) {
        ctl::WithFileName(*target, [&] { ctl::ReplaceOutput(*target, text); });
    } else {
        console.out << text;
    }
}

std::string NoBrokerMetrics()
{
    MetricsText metrics;
    metrics.Begin("fleet_up", "gauge", kUpHelp);
    metrics.Add({}, false);
    return metrics.Text();
}

// Unix time in seconds; 0: there is no report.
std::uint64_t NewestReport(const FleetState &state)
{
    std::int64_t newest = 0;
    for (const auto &[name, box] : state.Boxes()) {
        for (const auto &[number, vpn] : box.vpns) {
            newest = std::max(newest, vpn.report ? vpn.report->time.value_or(0) : 0);
        }
    }
    return static_cast<std::uint64_t>(newest);
}

void AddBoxes(MetricsText &metrics, const FleetCounts &counts)
{
    metrics.Begin("fleet_boxes", "gauge", "Boxes of which the broker knows anything.");
    metrics.Add({}, counts.boxes);
    metrics.Begin("fleet_boxes_online", "gauge", "Boxes that are connected to the broker.");
    metrics.Add({}, counts.online);
    metrics.Begin("fleet_boxes_behind", "gauge", "Boxes of which at least one VPN is not as wanted.");
    metrics.Add({}, counts.behind);
    metrics.Begin("fleet_vpns", "gauge", "VPNs of all boxes, by how they stand to what is wanted.");
    for (std::size_t i = 0; i < kStandings; ++i) {
        const auto standing = static_cast<Standing>(i);
        const auto found = counts.vpns.find(standing);
        metrics.Add({{"standing", std::string(NameOf(standing))}}, found != counts.vpns.end() ? found->second : 0);
    }
}

void AddEachBehind(MetricsText &metrics, const FleetState &state)
{
    metrics.Begin("fleet_vpn_behind", "gauge", "A VPN that is not as wanted.");
    for (const auto &[name, box] : state.Boxes()) {
        for (const auto &[number, vpn] : box.vpns) {
            if (const Standing standing = Judge(box, vpn).standing; IsBehind(standing)) {
                metrics.Add(
                    {{"box", name}, {"vpn", std::to_string(number)}, {"standing", std::string(NameOf(standing))}},
                    true);
            }
        }
    }
}

} // namespace

std::string FleetMetricsText(const FleetState &state, bool perBox)
{
    MetricsText metrics;
    metrics.Begin("fleet_up", "gauge", kUpHelp);
    metrics.Add({}, true);
    AddBoxes(metrics, CountsOf(state));
    metrics.Begin("fleet_newest_report_time_seconds", "gauge", "Unix time of the newest report; 0 without one.");
    metrics.Add({}, NewestReport(state));
    if (perBox) {
        AddEachBehind(metrics, state);
    }
    return metrics.Text();
}

int FleetMetrics(const Console &console, const BrokerOptions &broker, const FleetMetricsOptions &options)
{
    const Settings settings = LoadSettings(broker);
    try {
        Connection connection(console, settings, options.patience);
        Write(console, options.target, FleetMetricsText(LookAtFleet(connection, {}), options.perBox));
        return kDone;
    } catch (const BrokerError &) {
        if (options.target) {
            Write(console, options.target, NoBrokerMetrics());
        }
        throw;
    }
}

} // namespace kavel::fleet
