#include "instances/agent_lock.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "base/procfs.h"
#include "failure.h"

namespace kavel::agent {
namespace {

constexpr mode_t kLockMode = 0600;

flock WholeFile()
{
    flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

// The process that listens at `path`; nothing when none does. It is 0 when the backlog is full or when the process is
// in another pid namespace. A process that is gone does not listen: a child that it was starting when it was killed
// keeps its socket for a moment.
std::optional<pid_t> FindListener(const std::string &path)
{
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        ThrowLastErrno("socket");
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::connect(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 && errno != EAGAIN) {
        return std::nullopt;
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    (void)::getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
    return peer.pid == 0 || InspectProcess(peer.pid).alive ? std::optional(peer.pid) : std::nullopt;
}

} // namespace

AgentLock::AgentLock(const std::string &controlSocket, std::string path) : path_(std::move(path))
{
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    Open();
    Acquire();
    // A lock that was taken on a file which is not at the path any more is not seen by others.
    if (const std::optional<pid_t> listener = FindListener(controlSocket)) {
        throw AlreadyRunning(*listener);
    }
    WritePid();
}

void AgentLock::Open()
{
    file_ = UniqueFd(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLockMode));
    struct stat info {};
    if (!file_ || ::fstat(file_.Get(), &info) != 0) {
        ThrowLastErrno(path_);
    }
    const bool isOwned = info.st_uid == ::geteuid() || ::fchown(file_.Get(), ::geteuid(), ::getegid()) == 0;
    const bool isPrivate = (info.st_mode & ALLPERMS) == kLockMode || ::fchmod(file_.Get(), kLockMode) == 0;
    if (!isOwned || !isPrivate) {
        ThrowLastErrno(path_);
    }
}

// The process that holds the lock; 0 when it was released meanwhile.
pid_t AgentLock::FindHolder() const
{
    flock lock = WholeFile();
    if (::fcntl(file_.Get(), F_GETLK, &lock) != 0) {
        ThrowLastErrno(path_);
    }
    return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}

void AgentLock::Acquire() const
{
    flock lock = WholeFile();
    while (::fcntl(file_.Get(), F_SETLK, &lock) != 0) {
        if (errno != EACCES && errno != EAGAIN) {
            ThrowLastErrno(path_);
        }
        if (const pid_t holder = FindHolder(); holder != 0) {
            throw AlreadyRunning(holder);
        }
    }
}

void AgentLock::WritePid() const
{
    const std::string text = std::to_string(::getpid()) + "\n";
    if (::ftruncate(file_.Get(), 0) != 0 ||
        ::pwrite(file_.Get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        ThrowLastErrno(path_);
    }
}

} // namespace kavel::agent
