#include "base/spawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <iterator>
#include <string_view>

#include "failure.h"

namespace kavel::agent {
namespace {

void Check(int error, const char *what)
{
    if (error != 0) {
        ThrowErrno(error, what);
    }
}

class SpawnActions {
  public:
    SpawnActions() { Check(posix_spawn_file_actions_init(&actions_), "spawn actions"); }
    SpawnActions(const SpawnActions &) = delete;
    SpawnActions &operator=(const SpawnActions &) = delete;
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }

    void Detach(const SpawnOptions &options)
    {
        Check(posix_spawn_file_actions_addchdir_np(&actions_, "/"), "spawn directory");
        AddStream(STDIN_FILENO, kNowhere);
        AddStream(STDOUT_FILENO, options.output);
        AddStream(STDERR_FILENO, options.errors);
        int firstClosed = STDERR_FILENO + 1;
        if (options.kept != kNowhere) {
            Check(posix_spawn_file_actions_adddup2(&actions_, options.kept, firstClosed), "spawn descriptors");
            ++firstClosed;
        }
        Check(posix_spawn_file_actions_addclosefrom_np(&actions_, firstClosed), "spawn descriptors");
    }
    [[nodiscard]] const posix_spawn_file_actions_t *Get() const { return &actions_; }

  private:
    void AddStream(int stream, int file)
    {
        if (file == kNowhere) {
            Check(posix_spawn_file_actions_addopen(&actions_, stream, "/dev/null", O_RDWR, 0), "spawn streams");
        } else {
            Check(posix_spawn_file_actions_adddup2(&actions_, file, stream), "spawn streams");
        }
    }

    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
  public:
    SpawnAttributes() { Check(posix_spawnattr_init(&attributes_), "spawn attributes"); }
    SpawnAttributes(const SpawnAttributes &) = delete;
    SpawnAttributes &operator=(const SpawnAttributes &) = delete;
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }

    // The default signal mask and dispositions, and a session of its own, so that a terminal's signals do not reach it.
    void ResetSignalsAndSession()
    {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        Check(posix_spawnattr_setsigmask(&attributes_, &none), "spawn signals");
        Check(posix_spawnattr_setsigdefault(&attributes_, &all), "spawn signals");
        constexpr auto kFlags = static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
        Check(posix_spawnattr_setflags(&attributes_, kFlags), "spawn flags");
    }
    [[nodiscard]] const posix_spawnattr_t *Get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

// Variables that a service manager sets for this process alone: a child that used them would speak for the agent.
constexpr std::array<std::string_view, 7> kOwnVariables{
    "NOTIFY_SOCKET=", "WATCHDOG_PID=",   "WATCHDOG_USEC=", "LISTEN_PID=",
    "LISTEN_FDS=",    "LISTEN_FDNAMES=", "JOURNAL_STREAM="};

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

} // namespace

pid_t SpawnDetached(const char *program, std::vector<std::string> arguments, const SpawnOptions &options)
{
    SpawnActions actions;
    actions.Detach(options);
    SpawnAttributes attributes;
    attributes.ResetSignalsAndSession();
    std::vector<char *> words;
    std::ranges::transform(arguments, std::back_inserter(words), [](std::string &each) { return each.data(); });
    words.push_back(nullptr);
    std::vector<char *> environment = EnvironmentOfChild();
    std::string english = "LC_ALL=C";
    if (options.inEnglish) {
        environment.insert(environment.begin(), english.data());
    }
    pid_t child = 0;
    Check(posix_spawn(&child, program, actions.Get(), attributes.Get(), words.data(), environment.data()), program);
    return child;
}

} // namespace kavel::agent
