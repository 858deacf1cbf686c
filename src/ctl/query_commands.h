// The command that resolves a name as a client of a VPN does.
#ifndef KAVEL_CTL_QUERY_COMMANDS_H
#define KAVEL_CTL_QUERY_COMMANDS_H

#include <cstdint>
#include <string>

#include "session.h"

namespace kavel::ctl {

struct QueriedName {
    std::uint32_t vpn = 0;
    std::string name;       // with the type PTR also an IP address
    std::string type = "A"; // "MX", "TYPE65"
};

// Prints the answer and the way that it took. Returns kRefused if there is no answer.
int Query(const Session &session, const QueriedName &queried);

} // namespace kavel::ctl

#endif
