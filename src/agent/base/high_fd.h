// Descriptors that select() cannot use.
#ifndef KAVEL_AGENT_HIGH_FD_H
#define KAVEL_AGENT_HIGH_FD_H

#include <fcntl.h>
#include <sys/select.h>

#include <utility>

#include "unique_fd.h"

namespace kavel::agent {

// The same file under a descriptor from FD_SETSIZE on. libnftables uses select(), which needs the lower ones, and there
// are several descriptors per VPN. As it is where the process may not have that many descriptors.
inline UniqueFd MoveHigh(UniqueFd file)
{
    UniqueFd high(::fcntl(file.Get(), F_DUPFD_CLOEXEC, FD_SETSIZE));
    return high ? std::move(high) : std::move(file);
}

} // namespace kavel::agent

#endif
