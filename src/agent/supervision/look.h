// Compares what is in force for a VPN with what is there.
#ifndef KAVEL_AGENT_LOOK_H
#define KAVEL_AGENT_LOOK_H

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "instances/findings.h"
#include "instances/in_force.h"
#include "instances/instances.h"
#include "services/host.h"

namespace kavel::agent {

// What can differ. The order is the order of the repairs.
enum class Part {
    kFiles, // their directory and their rights, too
    kRoutes,
    kInstance, // it does not run, or in another namespace; with a service that is off: it runs
    kPidFile,
    kRule, // the DNAT rule of a POP, too
};

struct Difference {
    Part part;
    std::string text; // in the past tense, without the VPN: "the steering rule was gone"
    bool operator==(const Difference &) const = default;
};

// Whether one of them is about this part.
[[nodiscard]] bool Has(std::span<const Difference> differences, Part part);

struct LookOptions {
    pid_t instance = 0;      // the process that is known to be the running instance; 0: that of the pid file counts
    bool skipsRules = false; // the ruleset is known to be unchanged since it was seen to be right
};

// What differs from `wanted`, in the order of the parts. A VPN without its namespace cannot be looked at: the result is
// empty. Parts that cannot be read are logged for debugging and count as right.
[[nodiscard]] std::vector<Difference> LookAt(Host &host, const Instances &instances, std::uint32_t vpnId,
                                             const InForce &wanted, const LookOptions &options);

// What the VPN needs and does not have: its namespace, or interfaces of its configuration. The first finding is about
// the namespace if that is missing.
struct Missing {
    bool isNamespace = false; // without it nothing can be served
    std::vector<Finding> findings;
    bool operator==(const Missing &) const = default;
};
[[nodiscard]] Missing FindMissing(Host &host, std::uint32_t vpnId);

} // namespace kavel::agent

#endif
