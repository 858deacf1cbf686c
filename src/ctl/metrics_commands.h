// The command that shows the metrics of the box.
#ifndef KAVEL_CTL_METRICS_COMMANDS_H
#define KAVEL_CTL_METRICS_COMMANDS_H

#include <optional>
#include <string>

#include "session.h"

namespace kavel::ctl {

// Prints the metrics, or replaces the file `target` in one step. If no agent can be reached, the file tells that, and
// the AgentError is thrown all the same. If the agent refuses, the file stays as it is.
int Metrics(const Session &session, const std::optional<std::string> &target);

} // namespace kavel::ctl

#endif
