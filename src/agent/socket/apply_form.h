// The form of an APPLY, which is checked before anything is done with its message.
#ifndef KAVEL_AGENT_APPLY_FORM_H
#define KAVEL_AGENT_APPLY_FORM_H

#include <cstdint>
#include <optional>
#include <string>

#include "base/config.h"
#include "control.pb-c.h"

namespace kavel::agent {

// The sender's name for the message.
[[nodiscard]] std::optional<std::string> RevisionOf(const Kavel__Request &request);
[[nodiscard]] std::optional<std::uint32_t> ConfirmSecondsOf(const Kavel__Request &request);
[[nodiscard]] bool IsOnlyNewer(const Kavel__Request &request);

// Why the message is not for a box of this kind; nothing when it is, or the request does not say.
[[nodiscard]] std::optional<std::string> PlatformObjection(const Kavel__Request &request, Platform platform);

// What is wrong with the other fields of a request whose message is for the VPN; nothing when all are right.
[[nodiscard]] std::optional<std::string> FormObjection(const Kavel__Request &request, std::uint32_t vpnId);

} // namespace kavel::agent

#endif
