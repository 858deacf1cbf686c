// What goes back to a caller on the control socket.
#ifndef KAVEL_AGENT_ANSWER_H
#define KAVEL_AGENT_ANSWER_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "control.pb-c.h"
#include "instances/status.h"
#include "services/store.h"

namespace kavel::agent {

struct Answer {
    std::int32_t result = 0;
    std::string text;   // what the agent itself found wrong; else the text of a negative result is sent
    std::string reason; // the module's message that says why
    std::optional<std::uint32_t> vpn;
    bool awaitsLaunch = false; // of the VPN's instance: not to be told before
    std::optional<Kavel__Summary> summary;
    std::vector<VpnStatus> vpns;
    std::vector<StoredRecord> stored;
    std::optional<std::string> storedText;
};

Answer Refusal(std::int32_t result, std::string text);

// The frame, header included, that tells `answer`.
std::vector<std::uint8_t> PackAnswer(const Answer &answer);

} // namespace kavel::agent

#endif
