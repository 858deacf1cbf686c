#include "instances/instances.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>

#include "base/failure.h"
#include "base/files.h"
#include "base/instance_process.h"
#include "base/log.h"
#include "base/procfs.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

constexpr const char *kRoot = "/etc/kavel/dnsmasq";
constexpr const char *kStateDirectory = "/run/kavel"; // created with the agent's lock

// The module reads as many bytes of a pid file.
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

void CreateBoxFiles()
{
    const std::string root = kRoot;
    for (const char *name : {"/hosts", "/resolv.conf"}) {
        CreateFile(root + name);
    }
    const std::string config = root + "/dnsmasq.conf";
    if (::access(config.c_str(), F_OK) != 0) {
        ReplaceFile(config, kBoxConfig);
    }
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

void CreateBoxDirectory()
{
    std::filesystem::create_directories(std::string(kRoot) + "/dnsmasq.d");
    CreateBoxFiles();
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
    file.isEmpty = size <= 0;
    if (!file.isEmpty) {
        file.pid = static_cast<pid_t>(std::strtol(text.data(), nullptr, 10));
    }
    return file;
}

bool IsRunning(std::uint32_t vpnId)
{
    return IsInstanceOf(InspectProcess(ReadPidFile(vpnId).pid), vpnId);
}

bool IsMeantToRun(std::uint32_t vpnId)
{
    return ::access(MeantPath(vpnId).c_str(), F_OK) == 0;
}

void SetMeantToRun(std::uint32_t vpnId, bool isMeant)
{
    const std::string path = MeantPath(vpnId);
    try {
        if (isMeant) {
            CreateFile(path);
        } else if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
            ThrowLastErrno(path);
        }
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: %s", vpnId, failure.what());
    }
}

std::optional<std::string> ReloadObjection(std::uint32_t vpnId)
{
    const PidFile file = ReadPidFile(vpnId);
    if (!file.exists || file.isEmpty) {
        return std::nullopt;
    }
    const std::string subject = "pid file " + PidFilePath(vpnId);
    if (file.pid <= 0) {
        return subject + " holds " + std::to_string(file.pid) + ", which is not a process id";
    }
    const Process process = InspectProcess(file.pid);
    if (!process.alive || IsInstanceOf(process, vpnId)) {
        return std::nullopt;
    }
    return subject + " names process " + std::to_string(file.pid) + " (" + process.name +
           "), which is not this VPN's dnsmasq";
}

} // namespace kavel::agent
