#include "base/netns.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/program_files.h"
#include "failure.h"
#include "log.h"

namespace kavel::agent {
namespace {

// The calling thread's entry: /proc/self is the main thread's.
constexpr const char *kThreadNamespace = "/proc/thread-self/ns/net";

UniqueFd OpenNamespace(const std::string &path)
{
    UniqueFd handle(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!handle) {
        ThrowLastErrno(path);
    }
    return handle;
}

std::optional<NamespaceId> NamespaceAt(const std::string &path)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return NamespaceId{info.st_dev, info.st_ino};
}

} // namespace

// The module's commands have 511 bytes: 175 of their own and 270 for the path of a namespace are left out here. The
// shell reads the path.
std::string NamespaceTool()
{
    constexpr std::size_t kPathMax = 60;
    const std::string path = ProgramFile(KAVEL_PROGRAM_DIR, "netns-exec");
    const bool isPlain = std::ranges::all_of(path, [](unsigned char letter) {
        return std::isalnum(letter) != 0 ||
               std::string_view("/._+-").find(static_cast<char>(letter)) != std::string_view::npos;
    });
    return isPlain && path.size() <= kPathMax && ::access(path.c_str(), X_OK) == 0 ? path : std::string(kNsenter);
}

std::string NamespacePath(const Vpn &vpn)
{
    return std::string(kNamespaceDirectory) + "/" + vpn.netns;
}

std::optional<NamespaceId> NamespaceOfProcess(pid_t pid)
{
    return NamespaceAt("/proc/" + std::to_string(pid) + "/ns/net");
}

Namespaces::Namespaces(const Config &config) : config_(config), own_(OpenNamespace(kThreadNamespace)) {}

std::optional<NamespaceId> Namespaces::IdOf(std::uint32_t vpnId) const
{
    if (vpnId == 0) {
        return NamespaceAt("/proc/self/fd/" + std::to_string(own_.Get()));
    }
    const Vpn *vpn = config_.Find(vpnId);
    return vpn == nullptr ? std::nullopt : NamespaceAt(NamespacePath(*vpn));
}

UniqueFd Namespaces::Open(std::uint32_t vpnId) const
{
    if (vpnId == 0) {
        UniqueFd own(::fcntl(own_.Get(), F_DUPFD_CLOEXEC, 0));
        if (!own) {
            ThrowLastErrno("the box's own namespace");
        }
        return own;
    }
    const Vpn *vpn = config_.Find(vpnId);
    if (vpn == nullptr) {
        ThrowErrno(ENOENT, "vpn " + std::to_string(vpnId));
    }
    return OpenNamespace(NamespacePath(*vpn));
}

NamespaceSwitch::NamespaceSwitch(const Namespaces &namespaces, std::uint32_t vpnId)
    : saved_(OpenNamespace(kThreadNamespace))
{
    const UniqueFd target = namespaces.Open(vpnId);
    if (::setns(target.Get(), CLONE_NEWNET) != 0) {
        ThrowLastErrno("namespace of vpn " + std::to_string(vpnId));
    }
}

NamespaceSwitch::~NamespaceSwitch()
{
    if (saved_ && ::setns(saved_.Get(), CLONE_NEWNET) != 0) {
        Log(LogLevel::kError, "cannot return to the box's namespace: %s", std::strerror(errno));
        std::abort();
    }
}

UniqueFd NamespaceSwitch::Stay()
{
    return std::move(saved_);
}

} // namespace kavel::agent
