#include "instances/instances.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "base/failure.h"
#include "base/files.h"
#include "base/log.h"
#include "number.h"
#include "unique_fd.h"
#include "vqFile.h"

namespace kavel::agent {
namespace {

constexpr const char *kRoot = "/etc/kavel/dnsmasq";
constexpr std::string_view kTag = "kvl_dns_vpn_";
constexpr const char *kPidFileOption = "--pid-file=";
constexpr const char *kStateDirectory = "/run/kavel"; // made for the lock of the agent

// As many bytes as the module reads of a pid file.
constexpr std::size_t kPidTextSize = 32;

constexpr std::array<std::string_view, 6> kInstanceFiles{"hosts",       "resolv.conf",    "dnsmasq.conf",
                                                         "Mxhost.conf", "ServerMap.conf", "DnsProxy.conf"};

constexpr std::string_view kBoxConfig = "resolv-file=/etc/kavel/dnsmasq/resolv.conf\n"
                                        "addn-hosts=/etc/kavel/dnsmasq/hosts\n"
                                        "conf-dir=/etc/kavel/dnsmasq/dnsmasq.d/,*.conf\n"
                                        "cache-size=1000\n"
                                        "domain-needed\n";

std::string MeantPath(std::uint32_t vpnId)
{
    return std::string(kStateDirectory) + "/vpn_" + std::to_string(vpnId) + ".meant";
}

// What the paths of all pid files begin with.
std::string PidFileStem()
{
    return std::string(kPidDirectory) + "/" + std::string(kTag);
}

std::string PidFileArgument(std::uint32_t vpnId)
{
    return kPidFileOption + PidFilePath(vpnId);
}

int CreateBoxFiles()
{
    const std::string root = kRoot;
    for (const char *name : {"/hosts", "/resolv.conf"}) {
        const int created = VQ_CreateFilePath((root + name).c_str());
        if (created < 0) {
            return created;
        }
    }
    const std::string config = root + "/dnsmasq.conf";
    return ::access(config.c_str(), F_OK) == 0 ? 0 : ReplaceFile(config, kBoxConfig);
}

void CleanDirectory(const std::filesystem::path &directory)
{
    RemoveLeftovers(directory, kInstanceFiles);
    RemoveLeftovers(directory / "dnsmasq.d", kInstanceFiles);
}

} // namespace

std::string InstanceDirectory(std::uint32_t vpnId)
{
    return vpnId == 0 ? kRoot : std::string(kRoot) + "/vpn_" + std::to_string(vpnId);
}

std::string PidFilePath(std::uint32_t vpnId)
{
    return PidFileStem() + std::to_string(vpnId) + ".pid";
}

int WriteBoxDirectory()
{
    return WithoutExceptions([] {
        std::filesystem::create_directories(std::string(kRoot) + "/dnsmasq.d");
        return CreateBoxFiles();
    });
}

void RemoveLeftoversOfInstances()
{
    CleanDirectory(kRoot);
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(kRoot, ignored)) {
        if (entry.is_directory(ignored) && entry.path().filename().string().starts_with("vpn_")) {
            CleanDirectory(entry.path());
        }
    }
}

std::optional<std::uint32_t> VpnOfPidFile(std::string_view name)
{
    constexpr std::string_view kEnding = ".pid";
    if (!name.starts_with(kTag) || !name.ends_with(kEnding)) {
        return std::nullopt;
    }
    name.remove_prefix(kTag.size());
    name.remove_suffix(kEnding.size());
    return control::WholeNumber<std::uint32_t>(name);
}

PidFile ReadPidFile(std::uint32_t vpnId)
{
    PidFile file;
    const UniqueFd handle(::open(PidFilePath(vpnId).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!handle) {
        return file;
    }
    file.exists = true;
    std::array<char, kPidTextSize + 1> text{};
    const ssize_t size = ::read(handle.Get(), text.data(), kPidTextSize);
    file.empty = size <= 0;
    if (!file.empty) {
        file.pid = static_cast<pid_t>(std::strtol(text.data(), nullptr, 10));
    }
    return file;
}

bool IsDnsmasq(const Process &process)
{
    return process.alive &&
           (process.name == "dnsmasq" || std::filesystem::path(process.executable).filename() == "dnsmasq");
}

bool IsInstanceOf(const Process &process, std::uint32_t vpnId)
{
    return IsDnsmasq(process) && process.HasArgument(PidFileArgument(vpnId));
}

bool IsRunning(std::uint32_t vpnId)
{
    return IsInstanceOf(InspectProcess(ReadPidFile(vpnId).pid), vpnId);
}

bool MeantToRun(std::uint32_t vpnId)
{
    return ::access(MeantPath(vpnId).c_str(), F_OK) == 0;
}

void SetMeantToRun(std::uint32_t vpnId, bool meant)
{
    const std::string path = MeantPath(vpnId);
    const int kept = meant ? VQ_CreateFilePath(path.c_str()) : (::unlink(path.c_str()) == 0 ? 0 : LastFailure());
    if (kept < 0 && kept != -ENOENT) {
        Log(LogLevel::kWarning, "vpn %u: %s: %s", vpnId, path.c_str(), std::strerror(-kept));
    }
}

std::optional<std::string> ReloadHazard(std::uint32_t vpnId)
{
    const PidFile file = ReadPidFile(vpnId);
    if (!file.exists || file.empty) {
        return std::nullopt;
    }
    const std::string subject = "pid file " + PidFilePath(vpnId);
    if (file.pid <= 0) {
        return subject + " holds " + std::to_string(file.pid) + ", which is no process";
    }
    const Process process = InspectProcess(file.pid);
    if (!process.alive || IsInstanceOf(process, vpnId)) {
        return std::nullopt;
    }
    return subject + " names process " + std::to_string(file.pid) + " (" + process.name +
           "), which is not this VPN's dnsmasq";
}

std::set<std::uint32_t> VpnsWithProcesses()
{
    const std::string stem = kPidFileOption + PidFileStem();
    std::set<std::uint32_t> found;
    for (const pid_t pid : AllProcesses()) {
        const std::string commandLine = ReadCommandLine(pid);
        const std::size_t at = commandLine.find(stem);
        if (at != std::string::npos) {
            found.insert(static_cast<std::uint32_t>(std::strtoul(commandLine.c_str() + at + stem.size(), nullptr, 10)));
        }
    }
    return found;
}

} // namespace kavel::agent
