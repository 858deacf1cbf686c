#include "process_lab.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

namespace kavel::contract {
namespace {

struct Pipe {
    Pipe()
    {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("cannot create a pipe");
        }
        read = UniqueFd(ends[0]);
        write = UniqueFd(ends[1]);
    }

    UniqueFd read;
    UniqueFd write;
};

pid_t Spawn(std::vector<std::string> words, int input, int output)
{
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, "/bin/sh", &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error("cannot start a shell");
    }
    return pid;
}

// Waits for the exit without reaping the process.
void WaitForExit(pid_t pid)
{
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

} // namespace

ProcessLab::~ProcessLab()
{
    for (const pid_t child : children_) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

pid_t ProcessLab::StartShell(std::vector<std::string> words)
{
    Pipe input;
    Pipe output;
    const pid_t pid = Spawn(std::move(words), input.read.Get(), output.write.Get());
    children_.push_back(pid);
    inputs_.push_back(std::move(input.write));
    char letter = 0;
    if (::read(output.read.Get(), &letter, 1) != 1) {
        throw std::runtime_error("the shell does not start");
    }
    return pid;
}

pid_t ProcessLab::StartInstance(std::uint32_t vpn, bool endsWhenAsked)
{
    const std::string script = std::string(endsWhenAsked ? "" : "trap '' TERM; ") + "echo ready; read line";
    return StartShell({"sh", "-c", script, "/usr/sbin/dnsmasq",
                       "--pid-file=/var/run/kvl_dns_vpn_" + std::to_string(vpn) + ".pid", "-k"});
}

pid_t ProcessLab::StartStranger()
{
    return StartShell({"sh", "-c", "echo ready; read line"});
}

pid_t ProcessLab::EndedProcess()
{
    const pid_t pid = Zombie();
    ::waitpid(pid, nullptr, 0);
    std::erase(children_, pid);
    return pid;
}

pid_t ProcessLab::Zombie()
{
    const pid_t pid = StartShell({"sh", "-c", "echo ready"});
    WaitForExit(pid);
    return pid;
}

bool ProcessLab::IsRunning(pid_t pid)
{
    siginfo_t info{};
    const bool isChild = ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
    return isChild ? info.si_pid == 0 : ::kill(pid, 0) == 0;
}

} // namespace kavel::contract
