#include "base/procfs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>

#include "number.h"

namespace kavel::agent {
namespace {

// Fields of /proc/<pid>/stat after the name, counted from the state.
constexpr std::size_t kParentField = 1;
constexpr std::size_t kStartTimeField = 19;
constexpr std::string_view kGoneStates = "ZXx";

// The file's content; empty when it cannot be read, which also happens when the process ends during the read.
std::string ReadAll(const std::string &path)
{
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf(); // a failed read gives an empty text; an iterator would throw
    return content.str();
}

std::uint64_t BoxUptimeSeconds()
{
    double seconds = 0;
    std::ifstream("/proc/uptime") >> seconds;
    return static_cast<std::uint64_t>(seconds);
}

std::uint64_t ResidentBytes(const std::string &directory)
{
    std::uint64_t total = 0;
    std::uint64_t resident = 0;
    std::ifstream(directory + "/statm") >> total >> resident;
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

// The name may contain blanks and parentheses: the fields start after the last parenthesis.
void ParseStat(Process &process, const std::string &stat)
{
    const std::size_t open = stat.find('(');
    const std::size_t close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return;
    }
    process.name = stat.substr(open + 1, close - open - 1);
    std::istringstream stream(stat.substr(close + 1));
    const std::vector<std::string> fields(std::istream_iterator<std::string>(stream), {});
    if (fields.size() <= kStartTimeField) {
        return;
    }
    process.parent = WholeNumber<pid_t>(fields[kParentField]).value_or(0);
    process.alive = kGoneStates.find(fields.front()) == std::string_view::npos;
    process.isStopped = fields.front() == "T" || fields.front() == "t";
    process.startTime = std::stoull(fields[kStartTimeField]);
    const std::uint64_t started = process.startTime / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    const std::uint64_t now = BoxUptimeSeconds();
    process.uptimeSeconds = now > started ? now - started : 0;
}

// The line of the status file: real, effective, saved and file system user.
uid_t EffectiveUser(const std::string &directory)
{
    std::ifstream file(directory + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("Uid:")) {
            std::istringstream fields(line.substr(4));
            uid_t real = 0;
            uid_t effective = 0;
            if (fields >> real >> effective) {
                return effective;
            }
        }
    }
    return static_cast<uid_t>(-1); // it has ended meanwhile
}

// Nothing when others can write the file, too.
std::optional<uid_t> OwnerOf(const std::string &path)
{
    struct stat info {};
    const bool isKnown = ::stat(path.c_str(), &info) == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    return isKnown ? std::optional(info.st_uid) : std::nullopt;
}

} // namespace

Process InspectProcess(pid_t pid)
{
    Process process;
    if (pid <= 0) {
        return process;
    }
    const std::string directory = "/proc/" + std::to_string(pid);
    ParseStat(process, ReadAll(directory + "/stat"));
    if (!process.alive) {
        return process;
    }
    std::error_code ignored;
    process.executable = std::filesystem::read_symlink(directory + "/exe", ignored).string();
    process.executableOwner = OwnerOf(directory + "/exe");
    process.commandLine = ReadCommandLine(pid);
    process.user = EffectiveUser(directory);
    process.memoryBytes = ResidentBytes(directory);
    return process;
}

std::uint64_t OwnMemory()
{
    return ResidentBytes("/proc/self");
}

std::string ReadCommandLine(pid_t pid)
{
    return ReadAll("/proc/" + std::to_string(pid) + "/cmdline");
}

// The kernel lists the children of each thread; dnsmasq has one.
std::vector<pid_t> ChildrenOf(pid_t pid)
{
    const std::string directory = "/proc/" + std::to_string(pid);
    std::istringstream list(ReadAll(directory + "/task/" + std::to_string(pid) + "/children"));
    return {std::istream_iterator<pid_t>(list), {}};
}

std::vector<pid_t> AllProcesses()
{
    std::vector<pid_t> pids;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator("/proc", ignored)) {
        if (const auto pid = WholeNumber<pid_t>(entry.path().filename().string())) {
            pids.push_back(*pid);
        }
    }
    return pids;
}

} // namespace kavel::agent
