// What a peer of the control socket may do.
#ifndef KAVEL_AGENT_ACCESS_H
#define KAVEL_AGENT_ACCESS_H

#include <cstdint>
#include <string>

namespace kavel::agent {

// A set of rights.
enum class Access : std::uint8_t {
    kNone = 0,   // it may not connect
    kApply = 1,  // it may apply and check messages
    kStatus = 2, // it may ask for the status
    kRead = 4,   // it may ask for what changes nothing and shows no message: the status, why, metrics
    kFull = 8,   // it may do everything
};

[[nodiscard]] constexpr Access operator|(Access left, Access right)
{
    return static_cast<Access>(static_cast<std::uint8_t>(left) | static_cast<std::uint8_t>(right));
}

// Whether the two sets have a right in common.
[[nodiscard]] constexpr bool HasAny(Access access, Access rights)
{
    return (static_cast<std::uint8_t>(access) & static_cast<std::uint8_t>(rights)) != 0;
}

// Whether a request with this verb is allowed. `verb` may be any number.
[[nodiscard]] bool IsAllowed(std::int32_t verb, Access access);

// The text of a refusal, which names what is allowed.
[[nodiscard]] std::string RefusalText(Access access);

} // namespace kavel::agent

#endif
