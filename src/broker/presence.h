// Whether a box is connected, as a JSON object: {"schema": 1, "online": true, "agent": true, "version": "0.1.0",
// "time": 1780000000}. The last will is {"schema": 1, "online": false}.
#ifndef KAVEL_BROKER_PRESENCE_H
#define KAVEL_BROKER_PRESENCE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kavel::broker {

struct Presence {
    bool online = false;
    std::optional<bool> agent{};        // the link reaches the agent; absent: not online
    std::string version{};              // of the link; empty: not known
    std::optional<std::int64_t> time{}; // Unix time in seconds of the connection
    bool operator==(const Presence &) const = default;
};

inline constexpr std::size_t kPresenceMax = 1024; // bytes; a longer text is none

[[nodiscard]] std::string PresenceText(const Presence &presence);

// Throws InputError. A member that is not known is passed over.
[[nodiscard]] Presence ParsePresence(std::string_view text);

} // namespace kavel::broker

#endif
