#include "instances.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <utility>

#include "failure.h"
#include "files.h"
#include "log.h"
#include "unique_fd.h"
#include "vqFile.h"

namespace kavel::agent {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *kRoot = "/etc/kavel/dnsmasq";
constexpr const char *kPidDirectory = "/var/run";
constexpr std::string_view kTag = "kvl_dns_vpn_";
constexpr const char *kPidFileOption = "--pid-file=";
constexpr const char *kStateDirectory = "/run/kavel"; // made for the lock of the agent

// As many bytes as the module reads of a pid file.
constexpr std::size_t kPidTextSize = 32;

// How often a launch that says nothing is checked for having failed.
constexpr std::chrono::milliseconds kLaunchCheck{50};

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

// Closing an inotify instance waits until the kernel has put its watches away, which takes longer than a launch: it is
// kept, and only the watch goes.
const UniqueFd &KeptInotify()
{
    static UniqueFd inotify;
    if (!inotify) {
        inotify = UniqueFd(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    }
    return inotify;
}

// Tells of new pid files. Without a watch, which every instance takes one of as well, they are noticed a little later.
class PidFileWatch {
  public:
    PidFileWatch() : watch_(::inotify_add_watch(inotify_, kPidDirectory, IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO)) {}
    PidFileWatch(const PidFileWatch &) = delete;
    PidFileWatch &operator=(const PidFileWatch &) = delete;
    ~PidFileWatch()
    {
        if (watch_ >= 0) {
            ::inotify_rm_watch(inotify_, watch_);
            Drain();
        }
    }

    // False when nothing was told for as long.
    [[nodiscard]] bool Await(std::chrono::milliseconds patience) const
    {
        pollfd watched{inotify_, POLLIN, 0};
        const bool told = ::poll(&watched, 1, static_cast<int>(patience.count())) != 0;
        Drain();
        return told;
    }

  private:
    void Drain() const
    {
        std::array<char, 4096> events{};
        while (inotify_ >= 0 && ::read(inotify_, events.data(), events.size()) > 0) {
        }
    }

    int inotify_ = KeptInotify().Get();
    int watch_;
};

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

std::set<std::uint32_t> AwaitStarts(std::set<std::uint32_t> vpnIds, std::chrono::milliseconds patience)
{
    const PidFileWatch watch;
    const auto deadline = Clock::now() + patience;
    std::set<std::uint32_t> failed;
    std::set<std::uint32_t> seen = vpnIds;
    std::erase_if(vpnIds, IsRunning);
    while (!vpnIds.empty() && Clock::now() < deadline) {
        if (!watch.Await(kLaunchCheck)) {
            // Two looks: a process that executes another program has no command line for a moment.
            const auto seenBefore = std::exchange(seen, VpnsWithProcesses());
            std::ranges::copy_if(vpnIds, std::inserter(failed, failed.end()), [&](std::uint32_t vpnId) {
                return !seen.contains(vpnId) && !seenBefore.contains(vpnId);
            });
        }
        std::erase_if(vpnIds, [&](std::uint32_t vpnId) { return failed.contains(vpnId) || IsRunning(vpnId); });
    }
    failed.merge(vpnIds);
    std::erase_if(failed, IsRunning);
    return failed;
}

} // namespace kavel::agent
