// What a message is that the broker has sent.
#ifndef KAVEL_LINK_DESIRED_H
#define KAVEL_LINK_DESIRED_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "revision.h"
#include "session.h"

namespace kavel::link {

// A message for the agent.
struct Desired {
    std::uint32_t vpn = 0;
    broker::Revision revision = 0;
    std::optional<bool> isForPop; // absent: the sender does not say
    std::vector<std::uint8_t> payload;
};

// A message that the agent does not get, and why: one printable line.
struct Unusable {
    std::optional<std::uint32_t> vpn; // absent: it is not about a VPN of this box
    std::string problem;
};

// `box` is the name of this box. A message without a payload is unusable: it never means "off".
[[nodiscard]] std::variant<Desired, Unusable> ReadDesired(std::string_view box, broker::Message message);

} // namespace kavel::link

#endif
