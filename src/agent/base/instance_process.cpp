#include "base/instance_process.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>

#include "base/netns.h"
#include "number.h"

namespace kavel::agent {
namespace {

constexpr std::string_view kProgram = "dnsmasq";
constexpr std::string_view kStem = "kvl_dns_vpn_";
constexpr std::string_view kEnding = ".pid";
constexpr std::string_view kStateStem = "vpn_";
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

std::string WithoutLinks(const std::string &path)
{
    std::error_code ignored;
    return std::filesystem::canonical(path, ignored).string();
}

// A program that was replaced on the disk runs on.
std::string_view ExecutablePath(const Process &process)
{
    std::string_view path = process.executable;
    constexpr std::string_view kReplaced = " (deleted)";
    if (path.ends_with(kReplaced)) {
        path.remove_suffix(kReplaced.size());
    }
    return path;
}

bool HasTrustedExecutable(const Process &process, const InstanceIdentity &identity)
{
    return process.executableOwner == uid_t{0} || process.executableOwner == identity.users.front();
}

} // namespace

std::string PidFilePath(std::uint32_t vpnId)
{
    return std::string(kPidDirectory).append("/").append(kStem).append(std::to_string(vpnId)).append(kEnding);
}

std::string StateFileName(std::uint32_t vpnId, std::string_view kind)
{
    return std::string(kStateStem).append(std::to_string(vpnId)).append(".").append(kind);
}

std::optional<std::uint32_t> VpnOfStateFile(std::string_view name, std::string_view kind)
{
    if (!name.starts_with(kStateStem) || !name.ends_with(kind)) {
        return std::nullopt;
    }
    name.remove_prefix(kStateStem.size());
    const auto vpnId = WholeNumber<std::uint32_t>(name.substr(0, name.find('.')));
    return vpnId && kStateStem.size() + name.size() == StateFileName(*vpnId, kind).size() ? vpnId : std::nullopt;
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
    if (option > 0 && commandLine[option - 1] != '\0' && commandLine[option - 1] != ' ') {
        return std::nullopt;
    }
    const std::string_view rest = commandLine.substr(option + stem.size());
    std::uint32_t vpnId = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), vpnId);
    const std::string_view tail = rest.substr(static_cast<std::size_t>(end - rest.data()));
    return error == std::errc() && EndsOption(tail) ? std::optional(vpnId) : std::nullopt;
}

// dnsmasq is built to run as "nobody"; packages can build it for a user of its own.
InstanceIdentity InstanceIdentity::OfBox()
{
    InstanceIdentity identity;
    identity.program = kProgram;
    for (const std::string &launcher : {std::string("/bin/sh"), NamespaceTool(), std::string(kNsenter)}) {
        identity.launchers.push_back(WithoutLinks(launcher));
    }
    identity.users.push_back(::geteuid());
    for (const char *name : {"nobody", "dnsmasq"}) {
        if (const passwd *user = ::getpwnam(name)) {
            identity.users.push_back(user->pw_uid);
        }
    }
    return identity;
}

bool IsDnsmasq(const Process &process, const InstanceIdentity &identity)
{
    return process.alive && HasTrustedExecutable(process, identity) &&
           std::filesystem::path(ExecutablePath(process)).filename() == identity.program &&
           std::ranges::find(identity.users, process.user) != identity.users.end();
}

bool IsInstanceOf(const Process &process, std::uint32_t vpnId, const InstanceIdentity &identity)
{
    return IsDnsmasq(process, identity) && VpnOfCommandLine(process.commandLine) == vpnId;
}

// Launchers run as the agent does.
std::optional<std::uint32_t> VpnOfProcess(const Process &process, const InstanceIdentity &identity)
{
    const bool isLauncher = process.alive && process.user == identity.users.front() &&
                            std::ranges::find(identity.launchers, ExecutablePath(process)) != identity.launchers.end();
    return isLauncher || IsDnsmasq(process, identity) ? VpnOfCommandLine(process.commandLine) : std::nullopt;
}

std::set<std::uint32_t> VpnsWithProcesses(const InstanceIdentity &identity)
{
    std::set<std::uint32_t> found;
    for (const pid_t pid : AllProcesses()) {
        const auto vpnId = VpnOfCommandLine(ReadCommandLine(pid));
        if (vpnId && VpnOfProcess(InspectProcess(pid), identity) == vpnId) {
            found.insert(*vpnId);
        }
    }
    return found;
}

} // namespace kavel::agent
