// What goes back to a client of the control socket.
#ifndef KAVEL_AGENT_ANSWER_H
#define KAVEL_AGENT_ANSWER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/config.h"
#include "control.pb-c.h"
#include "instances/agent_facts.h"
#include "instances/status.h"
#include "log.h"
#include "services/message_history.h"
#include "services/store.h"
#include "socket/client_query.h"
#include "supervision/supervisor.h"

namespace kavel::agent {

// The level of the log.
struct LogState {
    LogLevel level = LogLevel::kNotice;
    LogLevel configured = LogLevel::kNotice;
    std::optional<std::int64_t> until; // Unix time in seconds
};

// A controller's message for the client.
struct SentMessage {
    std::uint32_t vpn = 0;
    std::vector<std::uint8_t> bytes;
    Platform platform = Platform::kCpe;
};

struct Answer {
    std::int32_t result = 0;           // 0 or more: carried out; a negated errno: refused
    bool isUnknownVpn = false;         // refused: the VPN is not configured
    bool isNotNewer = false;           // refused: `history` holds the entry that is not older
    bool mayRetry = false;             // refused without a judgement, for a reason that passes
    std::optional<std::string> text;   // what the agent found wrong; without it the errno's text is sent
    std::optional<std::string> reason; // the module's message that says why
    std::optional<std::uint32_t> vpn;
    std::optional<Kavel__Summary> summary;
    std::vector<VpnStatus> vpns;
    std::vector<VpnStatus> findingsOf; // of these VPNs the problems alone are sent
    std::vector<StoredRecord> stored;
    std::optional<std::string> storedText;
    std::optional<bool> enabled; // a message that is in force: it wants an instance to run
    std::optional<bool> running; // and one runs
    std::vector<std::string> notes;
    std::optional<StartProgress> start; // while the agent is starting
    std::optional<std::string> metrics;
    std::optional<AgentStatus> agent;
    std::optional<LogState> log;
    std::optional<QueryOutcome> query;
    std::vector<SentMessage> messages;
    std::vector<SentHistoryEntry> history;
    std::optional<std::string> inForceRevision; // of the message in force, if its sender gave one
};

// Sends the answer to its client. Called exactly once per request.
using Respond = std::function<void(const Answer &answer)>;

// An answer with a negated errno; without a text the errno's own is sent.
[[nodiscard]] Answer Refusal(std::int32_t result, std::optional<std::string> text = std::nullopt);
// The same for a request that was not judged, and that may be sent again later.
[[nodiscard]] Answer RefusalForNow(std::int32_t result, std::string text);

// The frame of `answer`, header included.
[[nodiscard]] std::vector<std::uint8_t> PackAnswer(const Answer &answer);

} // namespace kavel::agent

#endif
