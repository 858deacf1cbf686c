#include "instances/findings.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace kavel::agent {
namespace {

struct Entry {
    Fault fault;
    std::string_view code;
    // "$vpn" is the VPN, "$in" what leads a command into its namespace, "$it" the subject of the finding.
    std::string_view remedy;
};

constexpr std::array kEntries = {
    Entry{Fault::kNamespaceMissing, "namespace-missing", "ip netns add $it, with the interfaces of the VPN"},
    Entry{Fault::kInterfaceMissing, "interface-missing", "create interface $it, or correct agent.json"},
    Entry{Fault::kLinkDown, "link-down", "$in ip link set $it up; without a carrier: check its other end"},
    Entry{Fault::kInotifyLimit, "inotify-limit", "sysctl -w fs.inotify.max_user_instances=2048"},
    Entry{Fault::kDescriptorLimit, "descriptor-limit", "raise LimitNOFILE of the agent's unit"},
    Entry{Fault::kFilesUnreadable, "files-unreadable", "vqctl repair --vpn $vpn; or chmod o+rX $it"},
    Entry{Fault::kFilesChanged, "files-changed", "vqctl repair --vpn $vpn"},
    Entry{Fault::kFilesRejected, "files-rejected",
          "correct the line that dnsmasq names; the instance will not start again before"},
    Entry{Fault::kHostSkipped, "host-skipped", "apply a message with a valid name"},
    Entry{Fault::kPortTaken, "port-taken", "end process $it, then vqctl repair --vpn $vpn"},
    Entry{Fault::kStartFailed, "start-failed", "correct what dnsmasq names, then vqctl repair --vpn $vpn"},
    Entry{Fault::kInstanceMissing, "instance-missing", "vqctl repair --vpn $vpn"},
    Entry{Fault::kInstanceUnwanted, "instance-unwanted", "vqctl stop --vpn $vpn; if it stays: kill $it"},
    Entry{Fault::kInstanceSuspended, "instance-suspended", "kill -CONT $it"},
    Entry{Fault::kInstanceMisplaced, "instance-misplaced", "vqctl repair --vpn $vpn"},
    Entry{Fault::kInstanceSilent, "instance-silent", "vqctl repair --vpn $vpn; if it stays: kill -9 $it"},
    Entry{Fault::kInstanceSilentTcp, "instance-silent-tcp", "vqctl repair --vpn $vpn; if it stays: kill -9 $it"},
    Entry{Fault::kPidFileWrong, "pid-file-wrong", "vqctl repair --vpn $vpn"},
    Entry{Fault::kRestartPending, "restart-pending", R"(apply the message again with "operation": "reboot")"},
    Entry{Fault::kRoutesMissing, "routes-missing", "vqctl repair --vpn $vpn"},
    Entry{Fault::kRouteRuleMissing, "route-rule-missing", "vqctl repair --vpn $vpn"},
    Entry{Fault::kSteeringMissing, "steering-missing", "vqctl repair --vpn $vpn"},
    Entry{Fault::kSteeringUnwanted, "steering-unwanted", "vqctl stop --vpn $vpn"},
    Entry{Fault::kDnatMissing, "dnat-missing", "vqctl repair --vpn $vpn"},
    Entry{Fault::kDnatUnwanted, "dnat-unwanted", "vqctl stop --vpn $vpn"},
    Entry{Fault::kKernelUnreadable, "kernel-unreadable", "look at the log of the agent"},
    Entry{Fault::kRepairFailed, "repair-failed", "correct the cause, then vqctl repair --vpn $vpn"},
    Entry{Fault::kBoundInterfaceMissing, "bound-interface-missing",
          "create interface $it, or apply a message whose server names another"},
    Entry{Fault::kServerLoop, "server-loop", "apply a message whose server is not $it"},
    Entry{Fault::kUpstreamSilent, "upstream-silent", "$in dig @$it; check that server and the way to it"},
    Entry{Fault::kUpstreamSlow, "upstream-slow", "$in dig @$it; check that server and the way to it"},
    Entry{Fault::kForwardSilent, "forward-silent", "$in dig @$it; check that server and the way to it"},
    Entry{Fault::kForwardSlow, "forward-slow", "$in dig @$it; check that server and the way to it"},
    Entry{Fault::kServersDiffer, "servers-differ", R"(apply the message again with "operation": "reboot")"},
    Entry{Fault::kStoreUnreadable, "store-unreadable",
          "see the log; move a damaged file away, and the next message makes another"},
    Entry{Fault::kStoreLocked, "store-locked", "end the program that holds the lock: fuser $it"},
    Entry{Fault::kRecordUnreadable, "record-unreadable", R"(apply the message again with "persistentflag": true)"},
    Entry{Fault::kRecordDiffers, "record-differs", "apply the message again"},
};

const Entry &EntryOf(Fault fault)
{
    return *std::ranges::find(kEntries, fault, &Entry::fault);
}

void Replace(std::string &text, std::string_view variable, const std::string &value)
{
    for (std::size_t at = text.find(variable); at != std::string::npos; at = text.find(variable, at + value.size())) {
        text.replace(at, variable.size(), value);
    }
}

} // namespace

std::string_view CodeOf(Fault fault)
{
    return EntryOf(fault).code;
}

std::string RemedyOf(const Finding &finding, std::uint32_t vpnId, std::string_view netns)
{
    std::string text(EntryOf(finding.fault).remedy);
    Replace(text, "$vpn", std::to_string(vpnId));
    Replace(text, "$in ", netns == "-" ? "" : "ip netns exec " + std::string(netns) + " ");
    Replace(text, "$it", finding.subject);
    return text;
}

std::vector<Fault> AllFaults()
{
    std::vector<Fault> faults;
    std::ranges::transform(kEntries, std::back_inserter(faults), &Entry::fault);
    return faults;
}

void PutInOrder(std::vector<Finding> &findings)
{
    std::ranges::stable_sort(findings, {}, &Finding::fault);
    const auto isSame = [](const Finding &a, const Finding &b) {
        return a.fault == b.fault && a.subject == b.subject && (!a.subject.empty() || a.text == b.text);
    };
    std::vector<Finding> kept;
    for (Finding &each : findings) {
        if (std::ranges::none_of(kept, [&](const Finding &one) { return isSame(one, each); })) {
            kept.push_back(std::move(each));
        }
    }
    findings = std::move(kept);
}

} // namespace kavel::agent
