#include "socket/peer.h"

#include <endian.h>
#include <grp.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "failure.h"
#include "log.h"

namespace kavel::agent {
namespace {

constexpr mode_t kSharedMode = 0660;
constexpr const char *kAccessListName = "system.posix_acl_access";

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

std::optional<gid_t> GroupNamed(const std::string &name)
{
    errno = 0;
    const group *const found = ::getgrnam(name.c_str());
    if (found == nullptr) {
        Log(LogLevel::kError, "readers: group %s: %s; its members may not connect", name.c_str(),
            errno != 0 ? std::strerror(errno) : "does not exist");
        return std::nullopt;
    }
    return found->gr_gid;
}

std::optional<uid_t> UserNamed(const SocketUser &user)
{
    errno = 0;
    const passwd *const found = ::getpwnam(user.name.c_str());
    if (found == nullptr) {
        Log(LogLevel::kError, "%s.name: user %s: %s; it may not connect", user.path.c_str(), user.name.c_str(),
            errno != 0 ? std::strerror(errno) : "does not exist");
        return std::nullopt;
    }
    return found->pw_uid;
}

// Gives the file to the group, if it does not belong to it. Otherwise there is an error line.
bool HasGroup(const std::string &path, gid_t group)
{
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 &&
        (info.st_gid == group || ::lchown(path.c_str(), static_cast<uid_t>(-1), group) == 0)) {
        return true;
    }
    Log(LogLevel::kError, "%s: cannot be given to group %u: %s; its members may not connect", path.c_str(), group,
        std::strerror(errno));
    return false;
}

// The access control list of a file in the kernel's form: of its owner, of the users, and of its group if `isForGroup`;
// for nobody else. Only the file's owner is needed to set it, no right over files.
std::vector<std::uint8_t> AccessList(const std::map<uid_t, Access> &users, bool isForGroup)
{
    constexpr int kUse = ACL_READ | ACL_WRITE;
    std::vector<std::uint8_t> list;
    const auto append = [&list](const auto &part) {
        const std::size_t size = list.size();
        list.resize(size + sizeof part);
        std::memcpy(list.data() + size, &part, sizeof part);
    };
    const auto addEntry = [&append](int tag, int rights, std::uint32_t id) {
        append(posix_acl_xattr_entry{::htole16(static_cast<std::uint16_t>(tag)),
                                     ::htole16(static_cast<std::uint16_t>(rights)), ::htole32(id)});
    };
    constexpr auto kNoId = static_cast<std::uint32_t>(ACL_UNDEFINED_ID);
    append(posix_acl_xattr_header{::htole32(POSIX_ACL_XATTR_VERSION)});
    addEntry(ACL_USER_OBJ, kUse, kNoId);
    for (const auto &[user, access] : users) {
        addEntry(ACL_USER, kUse, user);
    }
    addEntry(ACL_GROUP_OBJ, isForGroup ? kUse : 0, kNoId);
    addEntry(ACL_MASK, kUse, kNoId);
    addEntry(ACL_OTHER, 0, kNoId);
    return list;
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

AdmittedPeers AdmittedBy(const Config &config)
{
    AdmittedPeers admitted;
    if (config.readers) {
        admitted.readers = GroupNamed(*config.readers);
    }
    for (const SocketUser &user : config.users) {
        if (const auto id = UserNamed(user)) {
            Access &access = admitted.users.try_emplace(*id, Access::kNone).first->second;
            access = access | (user.mayApply ? Access::kApply : Access::kNone) |
                     (user.mayStatus ? Access::kStatus : Access::kNone);
        }
    }
    return admitted;
}

Access AccessOf(const Peer &peer, const AdmittedPeers &admitted)
{
    if (peer.user == 0 || peer.user == ::geteuid()) {
        return Access::kFull;
    }
    const bool isReader = admitted.readers && std::ranges::find(peer.groups, *admitted.readers) != peer.groups.end();
    const auto user = admitted.users.find(peer.user);
    return (isReader ? Access::kRead : Access::kNone) | (user != admitted.users.end() ? user->second : Access::kNone);
}

// The list comes last: until then the file is the owner's alone.
void OpenSocketFile(const std::string &path, const AdmittedPeers &admitted)
{
    const bool isForGroup = admitted.readers && HasGroup(path, *admitted.readers);
    if (admitted.users.empty()) {
        if (isForGroup && ::chmod(path.c_str(), kSharedMode) != 0) {
            Log(LogLevel::kError, "%s: the readers cannot be let in: %s", path.c_str(), std::strerror(errno));
        }
        return;
    }
    const std::vector<std::uint8_t> list = AccessList(admitted.users, isForGroup);
    if (::setxattr(path.c_str(), kAccessListName, list.data(), list.size(), 0) != 0) {
        Log(LogLevel::kError, "%s: the users cannot be let in: %s; only root may connect", path.c_str(),
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
