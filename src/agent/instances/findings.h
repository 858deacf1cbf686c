// What can be wrong with a VPN: each kind has a stable code and what mends it.
#ifndef KAVEL_AGENT_FINDINGS_H
#define KAVEL_AGENT_FINDINGS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kavel::agent {

// The order is the order in which findings are told: causes before what follows from them. docs/operations.md has a
// paragraph for each, under its code.
enum class Fault : std::uint8_t {
    kNamespaceMissing,
    kInterfaceMissing,
    kLinkDown,
    // limits
    kInotifyLimit,
    kDescriptorLimit,
    // the files
    kFilesUnreadable, // dnsmasq's user cannot read them
    kFilesChanged,    // from outside
    kFilesRejected,   // dnsmasq would not start with the files as they are
    kHostSkipped,     // dnsmasq does not serve a line of the hosts file
    // the instance
    kPortTaken,         // another process has port 53
    kStartFailed,       // the last start has failed, for dnsmasq's own reason
    kInstanceMissing,   // it should run and does not
    kInstanceUnwanted,  // it runs and should not
    kInstanceSuspended, // its process is stopped
    kInstanceMisplaced, // it runs in another network namespace
    kInstanceSilent,    // it does not answer over UDP
    kInstanceSilentTcp, // it does not answer over TCP
    kPidFileWrong,      // the pid file names no process, or another one
    kRestartPending,    // files that are read at a start alone have changed since
    // routes and rules
    kRoutesMissing,
    kRouteRuleMissing, // the rule that selects the route table
    kSteeringMissing,  // the steering rule is not there, or not complete
    kSteeringUnwanted,
    kDnatMissing,
    kDnatUnwanted,
    kKernelUnreadable, // the kernel does not tell routes or rules
    kRepairFailed,     // something that differs could not be repaired
    // the servers
    kBoundInterfaceMissing,
    kServerLoop, // a server is the instance itself
    kUpstreamSilent,
    kUpstreamSlow,
    kForwardSilent, // a server of a forward
    kForwardSlow,
    kServersDiffer, // the instance does not use an upstream server of its file
    // the store
    kStoreUnreadable,
    kStoreLocked,
    kRecordUnreadable,
    kRecordDiffers,
};

struct Finding {
    Fault fault{};
    std::string text;    // what is wrong, on one line, without the VPN
    std::string subject; // what the remedy names: an interface, a file, an address; may be empty
    bool operator==(const Finding &) const = default;
};

// "upstream-silent". The codes never change.
[[nodiscard]] std::string_view CodeOf(Fault fault);

// What mends it, on one line. `netns` is the VPN's namespace, "-" for the box's own.
[[nodiscard]] std::string RemedyOf(const Finding &finding, std::uint32_t vpnId, std::string_view netns);

// Each fault, for tests and documents.
[[nodiscard]] std::vector<Fault> AllFaults();

// Sorts findings by their faults, and removes those that tell the same fault of the same subject again.
void PutInOrder(std::vector<Finding> &findings);

} // namespace kavel::agent

#endif
