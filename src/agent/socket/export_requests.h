// The requests that return messages: what is in force, what is stored, and what was sent before.
#ifndef KAVEL_AGENT_EXPORT_REQUESTS_H
#define KAVEL_AGENT_EXPORT_REQUESTS_H

#include "control.pb-c.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "services/host.h"
#include "socket/answer.h"

namespace kavel::agent {

// The message that is in force for a VPN that is served and whose state is restored; none if nothing is in force.
[[nodiscard]] Answer ShowInForce(Host &host, const ModuleFunctions &module, const Instances &instances,
                                 const Kavel__Request &request);

// The stored record of a VPN as a message.
[[nodiscard]] Answer ExportStored(Host &host, const ModuleFunctions &module, const Kavel__Request &request);

// The history of a VPN with its messages, or that of all VPNs without them.
[[nodiscard]] Answer ListHistory(Host &host, const Kavel__Request &request);

} // namespace kavel::agent

#endif
