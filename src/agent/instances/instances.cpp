#include "instances/instances.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <utility>

#include "base/files.h"
#include "base/instance_process.h"
#include "base/procfs.h"
#include "failure.h"
#include "log.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

constexpr const char *kAgentDirectory = "/etc/kavel";
constexpr const char *kBoxDirectory = "/etc/kavel/dnsmasq";
constexpr std::string_view kMeant = "meant";

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;

// The module reads as many bytes of a pid file.
constexpr std::size_t kPidTextSize = 32;

constexpr std::array<std::string_view, 6> kInstanceFiles{"hosts",       "resolv.conf",    "dnsmasq.conf",
                                                         "Mxhost.conf", "ServerMap.conf", "DnsProxy.conf"};

constexpr std::string_view kBoxConfig = "resolv-file=/etc/kavel/dnsmasq/resolv.conf\n"
                                        "addn-hosts=/etc/kavel/dnsmasq/hosts\n"
                                        "conf-dir=/etc/kavel/dnsmasq/dnsmasq.d/,*.conf\n"
                                        "cache-size=1000\n"
                                        "domain-needed\n";

void CleanDirectory(const std::filesystem::path &directory)
{
    RemoveTemporaryFiles(directory, kInstanceFiles);
    RemoveTemporaryFiles(directory / "dnsmasq.d", kInstanceFiles);
}

} // namespace

Instances::Instances(std::string root, InstanceIdentity identity)
    : root_(std::move(root)), identity_(std::move(identity))
{
}

std::string Instances::PidDirectory() const
{
    return root_ + kPidDirectory;
}

std::string Instances::Directory(std::uint32_t vpnId) const
{
    const std::string box = root_ + kBoxDirectory;
    return vpnId == 0 ? box : box + "/vpn_" + std::to_string(vpnId);
}

std::vector<std::string> Instances::DirectoriesToFiles(std::uint32_t vpnId) const
{
    std::vector<std::string> directories{root_ + kAgentDirectory, Directory(0), Directory(vpnId),
                                         Directory(vpnId) + "/dnsmasq.d"};
    directories.erase(std::unique(directories.begin(), directories.end()), directories.end());
    return directories;
}

void Instances::CreateBoxDirectory() const
{
    const std::string box = Directory(0);
    std::filesystem::create_directories(box + "/dnsmasq.d");
    for (const char *name : {"/hosts", "/resolv.conf"}) {
        CreateFile(box + name);
    }
    const std::string config = box + "/dnsmasq.conf";
    if (::access(config.c_str(), F_OK) != 0) {
        ReplaceFile(config, kBoxConfig);
    }
}

void Instances::RemoveLeftovers() const
{
    const std::string box = Directory(0);
    CleanDirectory(box);
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(box, ignored)) {
        if (entry.is_directory(ignored) && entry.path().filename().string().starts_with("vpn_")) {
            CleanDirectory(entry.path());
        }
    }
}

std::string Instances::StatePath(std::uint32_t vpnId, std::string_view kind) const
{
    return root_ + kStateDirectory + "/" + StateFileName(vpnId, kind);
}

std::set<std::uint32_t> Instances::WithState(std::string_view kind) const
{
    std::set<std::uint32_t> found;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(root_ + kStateDirectory, ignored)) {
        if (const auto vpnId = VpnOfStateFile(entry.path().filename().string(), kind)) {
            found.insert(*vpnId);
        }
    }
    return found;
}

std::vector<std::string> Instances::Files(std::uint32_t vpnId) const
{
    const std::string directory = Directory(vpnId);
    std::vector<std::string> files;
    for (const char *name : {"/hosts", "/resolv.conf", "/dnsmasq.conf", "/dnsmasq.d/Mxhost.conf",
                             "/dnsmasq.d/ServerMap.conf", "/dnsmasq.d/DnsProxy.conf"}) {
        files.push_back(directory + name);
    }
    return files;
}

PidFile Instances::ReadPidFile(std::uint32_t vpnId) const
{
    PidFile file;
    const std::string path = root_ + PidFilePath(vpnId);
    const UniqueFd handle(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!handle || ::fstat(handle.Get(), &info) != 0) {
        return file;
    }
    file.exists = true;
    file.isOwn = S_ISREG(info.st_mode) && info.st_uid == ::geteuid() && (info.st_mode & kWritableByOthers) == 0;
    std::array<char, kPidTextSize + 1> text{};
    const ssize_t size = ::read(handle.Get(), text.data(), kPidTextSize);
    file.isEmpty = size <= 0;
    if (!file.isEmpty) {
        file.pid = static_cast<pid_t>(std::strtol(text.data(), nullptr, 10));
    }
    return file;
}

bool Instances::IsRunning(std::uint32_t vpnId) const
{
    return IsInstanceOf(InspectProcess(ReadPidFile(vpnId).pid), vpnId, identity_);
}

PidFile Instances::TakePidFile(std::uint32_t vpnId) const
{
    PidFile file = ReadPidFile(vpnId);
    if (file.exists && !file.isOwn) {
        const std::string text = file.isEmpty ? "" : std::to_string(file.pid) + "\n";
        ReplaceFile(root_ + PidFilePath(vpnId), text);
        file.isOwn = true;
    }
    return file;
}

void Instances::WritePidFile(std::uint32_t vpnId, pid_t pid) const
{
    ReplaceFile(root_ + PidFilePath(vpnId), std::to_string(pid) + "\n");
}

void Instances::RemovePidFile(std::uint32_t vpnId) const
{
    const std::string path = root_ + PidFilePath(vpnId);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        ThrowLastErrno(path);
    }
}

std::map<std::uint32_t, std::vector<pid_t>> Instances::ProcessesByVpn() const
{
    std::map<std::uint32_t, std::vector<pid_t>> found;
    for (const pid_t pid : AllProcesses()) {
        const auto vpnId = VpnOfCommandLine(ReadCommandLine(pid));
        if (vpnId && VpnOfProcess(InspectProcess(pid), identity_) == vpnId) {
            found[*vpnId].push_back(pid);
        }
    }
    return found;
}

bool Instances::IsMeantToRun(std::uint32_t vpnId) const
{
    return ::access(StatePath(vpnId, kMeant).c_str(), F_OK) == 0;
}

void Instances::SetMeantToRun(std::uint32_t vpnId, bool isMeant) const
{
    const std::string path = StatePath(vpnId, kMeant);
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

std::optional<std::string> Instances::ReloadObjection(std::uint32_t vpnId) const
{
    const PidFile file = TakePidFile(vpnId);
    if (!file.exists || file.isEmpty) {
        return std::nullopt;
    }
    const std::string subject = "pid file " + PidFilePath(vpnId);
    if (file.pid <= 0) {
        return subject + " holds " + std::to_string(file.pid) + ", which is not a process id";
    }
    const Process process = InspectProcess(file.pid);
    if (!process.alive || IsInstanceOf(process, vpnId, identity_)) {
        return std::nullopt;
    }
    return subject + " names process " + std::to_string(file.pid) + " (" + process.name +
           "), which is not this VPN's dnsmasq";
}

} // namespace kavel::agent
