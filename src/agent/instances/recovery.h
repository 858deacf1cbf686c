// What the box does at start with what it has stored.
#ifndef KAVEL_AGENT_RECOVERY_H
#define KAVEL_AGENT_RECOVERY_H

#include "instances/launches.h"
#include "instances/module.h"

namespace kavel::agent {

// Puts every stored record into force again, and returns once the instances are up. Failures are logged.
void RecoverStored(const Module &module, Launches &launches);

} // namespace kavel::agent

#endif
