#include "base/spawn.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <string_view>

#include "base/failure.h"

namespace kavel::agent {
namespace {

// Variables that a service manager sets for this process alone: a child that used them would speak for the agent.
constexpr std::array<std::string_view, 7> kOwnVariables{
    "NOTIFY_SOCKET=", "WATCHDOG_PID=",   "WATCHDOG_USEC=", "LISTEN_PID=",
    "LISTEN_FDS=",    "LISTEN_FDNAMES=", "JOURNAL_STREAM="};

} // namespace

void CheckSpawn(int error, const char *what)
{
    if (error != 0) {
        ThrowErrno(error, what);
    }
}

SpawnActions::SpawnActions()
{
    CheckSpawn(posix_spawn_file_actions_init(&actions_), "spawn actions");
}

SpawnActions::~SpawnActions()
{
    posix_spawn_file_actions_destroy(&actions_);
}

void SpawnActions::Detach(std::optional<int> errors, const UniqueFd &mark)
{
    CheckSpawn(posix_spawn_file_actions_addchdir_np(&actions_, "/"), "spawn directory");
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        CheckSpawn(posix_spawn_file_actions_addopen(&actions_, stream, "/dev/null", O_RDWR, 0), "spawn streams");
    }
    if (errors) {
        CheckSpawn(posix_spawn_file_actions_adddup2(&actions_, *errors, STDERR_FILENO), "spawn streams");
    }
    int firstClosed = STDERR_FILENO + 1;
    if (mark) {
        CheckSpawn(posix_spawn_file_actions_adddup2(&actions_, mark.Get(), firstClosed), "spawn descriptors");
        ++firstClosed;
    }
    CheckSpawn(posix_spawn_file_actions_addclosefrom_np(&actions_, firstClosed), "spawn descriptors");
}

SpawnAttributes::SpawnAttributes()
{
    CheckSpawn(posix_spawnattr_init(&attributes_), "spawn attributes");
}

SpawnAttributes::~SpawnAttributes()
{
    posix_spawnattr_destroy(&attributes_);
}

void SpawnAttributes::ResetSignalsAndSession()
{
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    CheckSpawn(posix_spawnattr_setsigmask(&attributes_, &none), "spawn signals");
    CheckSpawn(posix_spawnattr_setsigdefault(&attributes_, &all), "spawn signals");
    constexpr auto kFlags = static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    CheckSpawn(posix_spawnattr_setflags(&attributes_, kFlags), "spawn flags");
}

std::vector<char *> EnvironmentOfChild()
{
    std::vector<char *> variables;
    for (char **variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        if (std::ranges::none_of(kOwnVariables, [&](std::string_view own) { return text.starts_with(own); })) {
            variables.push_back(*variable);
        }
    }
    variables.push_back(nullptr);
    return variables;
}

} // namespace kavel::agent
