// The messages that a command publishes, and what a list of boxes and these messages have in common with an earlier
// command.
#ifndef KAVEL_FLEET_OUTGOING_H
#define KAVEL_FLEET_OUTGOING_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "revision.h"
#include "session.h"

namespace kavel::fleet {

// A checked message.
struct Outgoing {
    std::string file; // its name for people
    std::uint32_t vpn = 0;
    bool isForPop = false;
    std::vector<std::uint8_t> bytes; // packed
    bool isForgotten = false;        // it switches the service on, and a box does not store it
};

// The messages of these files. Every error is given to `report`, of one line that begins with the file's name; the
// result counts only if there was none. Errors are: what EncodeJson() refuses, two messages for one VPN, messages for
// both kinds of boxes, and a message that does not fit into a request to an agent.
[[nodiscard]] std::vector<Outgoing> LoadOutgoing(std::span<const std::string> files,
                                                 const std::function<void(const std::string &error)> &report);

// The message for a box, as it is published.
[[nodiscard]] broker::Message MessageFor(const std::string &box, const Outgoing &outgoing, broker::Revision revision);

// SHA-256 as hexadecimal digits: of the messages in their order, and of the names of the boxes in theirs.
[[nodiscard]] std::string ContentHash(std::span<const Outgoing> messages);
[[nodiscard]] std::string ListHash(std::span<const std::string> boxes);

} // namespace kavel::fleet

#endif
