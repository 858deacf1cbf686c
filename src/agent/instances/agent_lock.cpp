#include "instances/agent_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "base/failure.h"

namespace kavel::agent {
namespace {

constexpr const char *kDirectory = "/run/kavel";
constexpr const char *kPath = "/run/kavel/agent.pid";

flock WholeFile()
{
    flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

// The process that holds the lock; 0 when it was released meanwhile.
pid_t HolderOf(const UniqueFd &file)
{
    flock lock = WholeFile();
    if (::fcntl(file.Get(), F_GETLK, &lock) != 0) {
        ThrowLastErrno(kPath);
    }
    return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}

void Acquire(const UniqueFd &file)
{
    flock lock = WholeFile();
    while (::fcntl(file.Get(), F_SETLK, &lock) != 0) {
        if (errno != EACCES && errno != EAGAIN) {
            ThrowLastErrno(kPath);
        }
        if (const pid_t holder = HolderOf(file); holder != 0) {
            throw AlreadyRunning(holder);
        }
    }
}

void WritePid(const UniqueFd &file)
{
    const std::string text = std::to_string(::getpid()) + "\n";
    if (::ftruncate(file.Get(), 0) != 0 ||
        ::pwrite(file.Get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        ThrowLastErrno(kPath);
    }
}

} // namespace

AgentLock::AgentLock()
{
    std::filesystem::create_directories(kDirectory);
    file_ = UniqueFd(::open(kPath, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!file_) {
        ThrowLastErrno(kPath);
    }
    Acquire(file_);
    WritePid(file_);
}

} // namespace kavel::agent
