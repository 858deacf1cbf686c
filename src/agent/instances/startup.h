// The start of the agent: what is checked, prepared and recovered, and in which order.
#ifndef KAVEL_AGENT_STARTUP_H
#define KAVEL_AGENT_STARTUP_H

#include "event_loop.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "instances/pending_launches.h"
#include "services/host.h"

namespace kavel::agent {

// Raises the limit of open files to what the box's VPNs need, and logs a warning when the user may not have as many
// inotify instances as there are VPNs.
void AdjustLimits(const Config &config);

// Prepares a VPN's namespace for its instance: sets the loopback interface up and adds the policy rule of the
// instance's route table. VPN 0 is the box itself, whose namespace is not changed. Whether anything was to be done.
// Throws std::system_error.
bool PrepareNamespace(Host &host, std::uint32_t vpnId);

// Prepares the box: removes leftovers of interrupted writes, creates the box-wide directory, and installs the module's
// platform. Failures are logged.
void PrepareBox(const Instances &instances, const ModuleFunctions &module);

} // namespace kavel::agent

#endif
