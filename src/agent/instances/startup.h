// The start of the agent: what is checked, prepared and recovered, and in which order.
#ifndef KAVEL_AGENT_STARTUP_H
#define KAVEL_AGENT_STARTUP_H

#include "base/event_loop.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "instances/pending_launches.h"
#include "services/host.h"

namespace kavel::agent {

// Checks that the namespaces and interfaces of the configuration exist. Throws ConfigError.
void CheckVpns(Host &host);

// Raises the limit of open files to what the box's VPNs need, and logs a warning when the user may not have as many
// inotify instances as there are VPNs.
void AdjustLimits(const Config &config);

// Prepares a VPN's namespace for its instance: sets the loopback interface up and adds the policy rule of the
// instance's route table. VPN 0 is the box itself, whose namespace is not changed. Throws std::system_error.
void PrepareNamespace(Host &host, std::uint32_t vpnId);

// Prepares the box, in this order: removes leftovers of interrupted writes, creates the box-wide directory, prepares
// the namespaces, waits for instances that an earlier agent launched (2 s at most), installs the module's platform,
// creates the instance directories and recovers the stored records. Failures are logged. False when the loop was told
// to exit.
[[nodiscard]] bool StartServices(EventLoop &loop, Host &host, const Instances &instances, const ModuleFunctions &module,
                                 PendingLaunches &launches);

} // namespace kavel::agent

#endif
