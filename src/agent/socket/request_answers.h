// Answers that several requests give.
#ifndef KAVEL_AGENT_REQUEST_ANSWERS_H
#define KAVEL_AGENT_REQUEST_ANSWERS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/config.h"
#include "control.pb-c.h"
#include "services/host.h"
#include "socket/answer.h"

namespace kavel::agent {

// Refusals that name the VPN.
[[nodiscard]] Answer RefusalOf(std::uint32_t vpnId, std::int32_t result, std::optional<std::string> why);
[[nodiscard]] Answer NotConfigured(std::uint32_t vpnId);

[[nodiscard]] Answer MalformedMessage(Platform platform);

// The packed controller message of a request; empty when it has none.
[[nodiscard]] std::span<const std::uint8_t> MessageOf(const Kavel__Request &request);

// The outcome of a call of the module, with the module's message about a failure.
[[nodiscard]] Answer OutcomeOf(const Host &host, std::int32_t result, std::uint32_t vpnId);

// Logs a refusal with its reason, or what was done.
void LogOutcome(const Answer &answer, const char *done);

} // namespace kavel::agent

#endif
