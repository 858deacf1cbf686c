// Puts the stored records into force again when the agent starts.
#ifndef KAVEL_AGENT_RECOVERY_H
#define KAVEL_AGENT_RECOVERY_H

#include "base/event_loop.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "instances/pending_launches.h"
#include "services/host.h"

namespace kavel::agent {

// Applies every stored record through the module, then runs the loop until the instances run, 10 s at most. Failures
// are logged. False when the loop was told to exit.
[[nodiscard]] bool RecoverStored(EventLoop &loop, Host &host, const Instances &instances, const ModuleFunctions &module,
                                 PendingLaunches &launches);

} // namespace kavel::agent

#endif
