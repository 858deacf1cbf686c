// The revision of a message: a number from 1 to 2^63 - 1 that grows with each message for a VPN. It travels as decimal
// text without a sign and without leading zeros, in the user property kRevisionProperty of the published message.
#ifndef KAVEL_BROKER_REVISION_H
#define KAVEL_BROKER_REVISION_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "numeric_revision.h"

namespace kavel::broker {

inline constexpr const char *kRevisionProperty = "revision";
// What kind of box the message is for: "cpe" or "pop".
inline constexpr const char *kPlatformProperty = "platform";

using Revision = std::uint64_t;
inline constexpr Revision kRevisionMax = kNumericRevisionMax;

// Nothing for everything else.
[[nodiscard]] std::optional<Revision> ParseRevision(std::string_view text);

} // namespace kavel::broker

#endif
