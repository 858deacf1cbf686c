#include "services/launch_mark.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "failure.h"

namespace kavel::agent {

// A lock of the open file description: the processes that inherit the descriptor share it.
UniqueFd LeaveLaunchMark(const std::string &path)
{
    UniqueFd mark(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!mark && errno == ENOENT) {
        return mark;
    }
    // A launch of the VPN that still holds it, such as one that hangs, keeps its lock: the mark is there all the same.
    if (!mark || (::flock(mark.Get(), LOCK_SH | LOCK_NB) != 0 && errno != EWOULDBLOCK)) {
        ThrowLastErrno(path);
    }
    return mark;
}

bool IsLaunchMarkHeld(const std::string &path)
{
    const UniqueFd mark(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    return mark && ::flock(mark.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

} // namespace kavel::agent
