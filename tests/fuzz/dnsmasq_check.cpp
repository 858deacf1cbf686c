#include "dnsmasq_check.h"

#include <algorithm>
#include <array>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fuzz.h"
#include "unique_fd.h"

namespace fuzz {

namespace {

kavel::UniqueFd FileInMemory(const std::string &Content)
{
    kavel::UniqueFd Out(memfd_create("dnsmasq", 0));
    const ssize_t Written = write(Out.Get(), Content.data(), Content.size());
    Require(Written == static_cast<ssize_t>(Content.size()), "cannot write a file in memory");
    return Out;
}

std::string ContentOf(const kavel::UniqueFd &File)
{
    std::array<char, 512> Content{};
    const ssize_t Length = pread(File.Get(), Content.data(), Content.size(), 0);
    return {Content.data(), static_cast<size_t>(std::max<ssize_t>(Length, 0))};
}

// Returns the exit status of `dnsmasq --test`; its messages go to `Output`.
int Test(std::string Path, const kavel::UniqueFd &Output)
{
    std::string Program = "/usr/sbin/dnsmasq";
    std::string Check = "--test";
    std::string File = "-C";
    const std::array<char *, 5> Arguments{Program.data(), Check.data(), File.data(), Path.data(), nullptr};
    posix_spawn_file_actions_t Actions;
    posix_spawn_file_actions_init(&Actions);
    posix_spawn_file_actions_adddup2(&Actions, Output.Get(), STDERR_FILENO);
    pid_t Pid = 0;
    const int Failure = posix_spawn(&Pid, Program.c_str(), &Actions, nullptr, Arguments.data(), environ);
    posix_spawn_file_actions_destroy(&Actions);
    Require(Failure == 0, "dnsmasq cannot be started");
    int Status = 0;
    Require(waitpid(Pid, &Status, 0) == Pid && WIFEXITED(Status), "dnsmasq was killed by a signal");
    return WEXITSTATUS(Status);
}

} // namespace

void RequireDnsmasqTakes(const std::string &Configuration)
{
    const kavel::UniqueFd File = FileInMemory(Configuration);
    const kavel::UniqueFd Output = FileInMemory("");
    if (Test("/dev/fd/" + std::to_string(File.Get()), Output) != 0) {
        Fail("dnsmasq refuses the configuration: " + ContentOf(Output) + Configuration);
    }
}

} // namespace fuzz
