#include "base/instance_process.h"

#include <charconv>
#include <filesystem>

#include "number.h"

namespace kavel::agent {
namespace {

constexpr std::string_view kProgram = "dnsmasq";
constexpr std::string_view kStem = "kvl_dns_vpn_";
constexpr std::string_view kEnding = ".pid";
constexpr std::string_view kOption = "--pid-file=";

// The option up to the VPN's number.
std::string OptionStem()
{
    return std::string(kOption).append(kPidDirectory).append("/").append(kStem);
}

// Whether `tail` begins with the end of the pid file's name, and the option ends there.
bool EndsOption(std::string_view tail)
{
    if (!tail.starts_with(kEnding)) {
        return false;
    }
    tail.remove_prefix(kEnding.size());
    return tail.empty() || tail.front() == '\0' || tail.front() == ' ';
}

} // namespace

std::string PidFilePath(std::uint32_t vpnId)
{
    return std::string(kPidDirectory).append("/").append(kStem).append(std::to_string(vpnId)).append(kEnding);
}

std::optional<std::uint32_t> VpnOfPidFile(std::string_view name)
{
    if (!name.starts_with(kStem) || !name.ends_with(kEnding)) {
        return std::nullopt;
    }
    name.remove_prefix(kStem.size());
    name.remove_suffix(kEnding.size());
    return WholeNumber<std::uint32_t>(name);
}

// The shell has the whole command in one argument, so program and option are searched for anywhere in the text.
std::optional<std::uint32_t> VpnOfCommandLine(std::string_view commandLine)
{
    const std::string stem = OptionStem();
    const std::size_t option = commandLine.find(stem);
    if (option == std::string_view::npos || commandLine.find(kProgram) == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view rest = commandLine.substr(option + stem.size());
    std::uint32_t vpnId = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), vpnId);
    const std::string_view tail = rest.substr(static_cast<std::size_t>(end - rest.data()));
    return error == std::errc() && EndsOption(tail) ? std::optional(vpnId) : std::nullopt;
}

bool IsDnsmasq(const Process &process)
{
    return process.alive &&
           (process.name == kProgram || std::filesystem::path(process.executable).filename() == kProgram);
}

bool IsInstanceOf(const Process &process, std::uint32_t vpnId)
{
    return IsDnsmasq(process) && VpnOfCommandLine(process.commandLine) == vpnId;
}

std::set<std::uint32_t> VpnsWithProcesses()
{
    std::set<std::uint32_t> found;
    for (const pid_t pid : AllProcesses()) {
        if (const auto vpnId = VpnOfCommandLine(ReadCommandLine(pid))) {
            found.insert(*vpnId);
        }
    }
    return found;
}

} // namespace kavel::agent
