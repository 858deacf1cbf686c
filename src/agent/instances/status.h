// What is meant to run, what runs, and where the two differ.
#ifndef KAVEL_AGENT_STATUS_H
#define KAVEL_AGENT_STATUS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "control.pb-c.h"
#include "instances/findings.h"
#include "instances/instances.h"
#include "services/host.h"
#include "services/message_history.h"
#include "services/store.h"

namespace kavel::agent {

// The fields are those of the control socket's message; its texts are the members below them.
struct VpnStatus {
    Kavel__VpnStatus fields = KAVEL__VPN_STATUS__INIT;
    std::string netns; // "-" for the box's own
    std::vector<Finding> problems;
    // The optional texts, one line each.
    std::optional<std::string> lastEnd;
    std::optional<std::string> lastRepair;
    std::optional<std::string> revision;
    std::optional<SentHistoryEntry> lastNumbered; // of the highest numeric revision
    // For metrics: they are not sent with a status.
    std::uint32_t failedLaunches = 0; // since this agent has started
};

// What is stored for the VPNs whose status is asked for.
struct StoredRecords {
    bool isKnown = false; // false: persistence is switched off, or the store cannot be read
    std::map<std::uint32_t, StoredRecord> records;
    std::optional<std::string> problem; // why the store cannot be read
};

[[nodiscard]] StoredRecords ReadStoredRecords(Host &host, const std::vector<std::uint32_t> &vpnIds);

// What is known about a VPN before the system is asked.
struct KnownState {
    bool starting = false;
    bool answers = false; // to a DNS query that was sent just now
    bool stopped = false; // a client has stopped it
};

// The status of a configured VPN or of VPN 0.
[[nodiscard]] VpnStatus StatusOfVpn(Host &host, const Instances &instances, std::uint32_t vpnId, KnownState known,
                                    const StoredRecords &stored);

// Whether this is the status of VPN 0, and says nothing: most CPE boxes have no instance of their own.
[[nodiscard]] bool IsIdleBox(const VpnStatus &status);

// The status of the instances that run although their VPNs are not configured.
[[nodiscard]] std::vector<VpnStatus> StatusOfStrays(const Config &config, const Instances &instances);

// The problems that follow from the fields of a status; nothing when there is none. `traits` are those of the process
// that the pid file names.
struct PidFileTraits {
    bool isEmptyPidFile = false;
    bool isOtherDnsmasq = false;
};
[[nodiscard]] std::optional<Finding> ProcessProblem(const Kavel__VpnStatus &status, PidFileTraits traits);
[[nodiscard]] std::optional<Finding> AnswerProblem(const Kavel__VpnStatus &status);
[[nodiscard]] std::optional<Finding> RuleProblem(const Kavel__VpnStatus &status, bool isInstalled, bool isDnat);
[[nodiscard]] std::optional<Finding> StoredProblem(const Kavel__VpnStatus &status, const StoredRecord &record);

} // namespace kavel::agent

#endif
