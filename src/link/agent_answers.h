// What the agent says, as it is reported.
#ifndef KAVEL_LINK_AGENT_ANSWERS_H
#define KAVEL_LINK_AGENT_ANSWERS_H

#include <cstdint>

#include "control.pb-c.h"
#include "report.h"

namespace kavel::link {

// What became of the message of this revision: `reply` is the agent's final answer to its APPLY, at the Unix time `now`
// in seconds. If a message that is not older was handled before, the report is about that one.
void TakeAnswer(broker::Report &report, const Kavel__Reply &reply, broker::Revision revision, std::int64_t now);

// How the VPN is. If the agent has handled a newer message than the report is about, it is about that one then.
void TakeStatus(broker::Report &report, const Kavel__VpnStatus &status);

// The highest revision that the agent has handled for the VPN; 0: none.
[[nodiscard]] broker::Revision LastHandled(const Kavel__VpnStatus &status);

// Whether the VPN is configured; the agent also has the status of VPNs that are not, while an instance of them runs.
[[nodiscard]] bool IsConfigured(const Kavel__VpnStatus &status);

} // namespace kavel::link

#endif
