#include "socket/peer.h"

#include <grp.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "failure.h"
#include "log.h"

namespace kavel::agent {
namespace {

constexpr mode_t kSharedMode = 0660;

// The kernel tells how many there are when the room is too small.
std::vector<gid_t> SupplementaryGroups(int socket)
{
    std::vector<gid_t> groups(64);
    for (;;) {
        auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
        if (result != 0 && errno != ERANGE) {
            ThrowLastErrno("groups of a peer");
        }
        groups.resize(size / sizeof(gid_t));
        if (result == 0) {
            return groups;
        }
    }
}

} // namespace

Peer PeerOf(int socket)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        ThrowLastErrno("credentials of a peer");
    }
    Peer peer{credentials.pid, credentials.uid, SupplementaryGroups(socket)};
    peer.groups.push_back(credentials.gid);
    return peer;
}

Access AccessOf(const Peer &peer, std::optional<gid_t> readers)
{
    if (peer.user == 0 || peer.user == ::geteuid()) {
        return Access::kFull;
    }
    const bool isReader = readers && std::ranges::find(peer.groups, *readers) != peer.groups.end();
    return isReader ? Access::kRead : Access::kNone;
}

std::optional<gid_t> GroupNamed(const std::string &name)
{
    errno = 0;
    const group *const found = ::getgrnam(name.c_str());
    if (found == nullptr) {
        Log(LogLevel::kError, "readers: group %s: %s; only root may connect", name.c_str(),
            errno != 0 ? std::strerror(errno) : "does not exist");
        return std::nullopt;
    }
    return found->gr_gid;
}

// The mode comes last: until then the file is the owner's alone.
void OpenToGroup(const std::string &path, gid_t group)
{
    struct stat info {};
    const bool isOpen = ::lstat(path.c_str(), &info) == 0 &&
                        (info.st_gid == group || ::lchown(path.c_str(), static_cast<uid_t>(-1), group) == 0) &&
                        ::chmod(path.c_str(), kSharedMode) == 0;
    if (!isOpen) {
        Log(LogLevel::kError, "%s: cannot be given to group %u: %s; only root may connect", path.c_str(), group,
            std::strerror(errno));
    }
}

// Unlike a change of the file's group, this needs no right over files, which the agent's unit does not give.
FileGroupScope::FileGroupScope(std::optional<gid_t> group) : dumpable_(::prctl(PR_GET_DUMPABLE))
{
    if (group) {
        before_ = static_cast<gid_t>(::setfsgid(*group));
    }
}

FileGroupScope::~FileGroupScope()
{
    if (before_) {
        ::setfsgid(*before_);
        ::prctl(PR_SET_DUMPABLE, dumpable_); // the kernel took it with the change of the group
    }
}

} // namespace kavel::agent
