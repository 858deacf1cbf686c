// What is told about a VPN to its status.
#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "supervision/look.h"
#include "supervision/supervisor.h"

namespace kavel::agent {
namespace {

// Why the instance of a VPN ended last, in the place of the general text.
void AddReason(std::vector<Finding> &problems, const std::string &why)
{
    constexpr std::string_view kNotStarted = "did not start: ";
    const auto missing = std::ranges::find(problems, Fault::kInstanceMissing, &Finding::fault);
    if (missing == problems.end() || why.empty()) {
        return;
    }
    missing->text = "no instance runs: " + why;
    if (why.starts_with(kNotStarted)) {
        missing->fault = Fault::kStartFailed;
    }
}

// What a look sees beside what the status sees itself.
std::optional<Fault> FaultOf(const Difference &difference)
{
    switch (difference.part) {
    case Part::kFiles:
        return Fault::kFilesChanged;
    case Part::kRoutes:
        return Fault::kRoutesMissing;
    case Part::kInstance:
    case Part::kPidFile:
    case Part::kRule:
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace

void Supervisor::Describe(VpnStatus &status) const
{
    const auto found = vpns_.find(status.fields.vpn);
    if (found == vpns_.end()) {
        return;
    }
    const WatchedVpn &vpn = found->second;
    Kavel__VpnStatus &fields = status.fields;
    status.failedLaunches = vpn.failedLaunches;
    if (vpn.ends.count > 0) {
        fields.has_ends = fields.has_last_end_time = 1;
        fields.ends = vpn.ends.count;
        fields.last_end_time = static_cast<std::uint64_t>(vpn.ends.time);
        status.lastEnd = vpn.ends.text;
    }
    if (vpn.repairs.count > 0) {
        fields.has_repairs = fields.has_last_repair_time = 1;
        fields.repairs = vpn.repairs.count;
        fields.last_repair_time = static_cast<std::uint64_t>(vpn.repairs.time);
        status.lastRepair = vpn.repairs.text;
    }
    if (vpn.startTime) {
        fields.has_next_start_time = 1;
        fields.next_start_time = static_cast<std::uint64_t>(*vpn.startTime);
    }
    if (vpn.wanted) {
        status.revision = vpn.wanted->revision;
    }
    DescribeConfirmation(status);
    AddReason(status.problems, vpn.ends.text);
    AddWatched(status, vpn);
}

void Supervisor::AddWatched(VpnStatus &status, const WatchedVpn &vpn) const
{
    if (!vpn.missing.isNamespace) {
        std::ranges::copy(vpn.missing.findings, std::back_inserter(status.problems));
    }
    bool isTold = false; // what could not be repaired
    if (IsIdle(status.fields.vpn) && vpn.wanted->enables) {
        for (const Difference &difference :
             LookAt(host_, instances_, status.fields.vpn, *vpn.wanted, {vpn.InstancePid(), true})) {
            const bool isReason = vpn.problem.starts_with(difference.text);
            if (const auto fault = FaultOf(difference)) {
                isTold = isTold || vpn.problem.find(difference.text) != std::string::npos;
                status.problems.push_back({*fault, isReason ? vpn.problem : difference.text, ""});
            }
        }
    }
    // Without repairs the text only counts what differs, which the other findings tell.
    isTold = isTold || (!host_.config.watch.repair && !status.problems.empty());
    if (!vpn.problem.empty() && !isTold) {
        status.problems.push_back({Fault::kRepairFailed, vpn.problem, ""});
    }
    for (const auto &[upstream, unanswered] : vpn.upstreamUnanswered) {
        if (unanswered >= kUnansweredMax) {
            status.problems.push_back({Fault::kUpstreamSilent, "upstream " + upstream + " does not answer",
                                       upstream.substr(0, upstream.find(' '))});
        }
    }
}

} // namespace kavel::agent
