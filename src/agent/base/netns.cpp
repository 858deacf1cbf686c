#include "base/netns.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/failure.h"
#include "base/log.h"
#include "vqNetns.h"

namespace kavel::agent {
namespace {

// The thread's own entry: /proc/self is the main thread's.
constexpr const char *kThreadNamespace = "/proc/thread-self/ns/net";

UniqueFd &OwnNamespace()
{
    static UniqueFd own;
    return own;
}

UniqueFd OpenNamespace(const std::string &path)
{
    UniqueFd handle(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!handle) {
        ThrowLastFailure(path);
    }
    return handle;
}

UniqueFd OpenNamespaceOfVpn(std::uint32_t vpnId)
{
    if (vpnId == 0) {
        UniqueFd own(::fcntl(OwnNamespace().Get(), F_DUPFD_CLOEXEC, 0));
        if (!own) {
            ThrowLastFailure("the box's own namespace");
        }
        return own;
    }
    const Vpn *vpn = ActiveConfig().Find(vpnId);
    if (vpn == nullptr) {
        throw std::system_error(ENOENT, std::system_category(), "vpn " + std::to_string(vpnId));
    }
    return OpenNamespace(NamespacePath(*vpn));
}

std::uint64_t s_round = 1;

std::optional<NamespaceId> NamespaceAt(const std::string &path)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return NamespaceId{info.st_dev, info.st_ino};
}

std::string CommandPrefix(const Vpn &vpn)
{
    return "/usr/bin/nsenter --net=" + NamespacePath(vpn) + " ";
}

// The box's own commands need no words before them.
int WriteCommandPrefix(std::uint32_t vpnId, char *buffer, std::size_t size)
{
    std::string prefix;
    if (vpnId != 0) {
        const Vpn *vpn = ActiveConfig().Find(vpnId);
        if (vpn == nullptr || !NamespaceOfVpn(vpnId)) {
            return -ENOENT;
        }
        prefix = CommandPrefix(*vpn);
    }
    if (prefix.size() >= size) {
        return -EOVERFLOW;
    }
    std::memcpy(buffer, prefix.c_str(), prefix.size() + 1);
    return static_cast<int>(prefix.size());
}

} // namespace

void RememberOwnNamespace()
{
    OwnNamespace() = OpenNamespace(kThreadNamespace);
}

std::string NamespacePath(const Vpn &vpn)
{
    return std::string(kNamespaceDirectory) + "/" + vpn.netns;
}

std::optional<NamespaceId> NamespaceOfVpn(std::uint32_t vpnId)
{
    if (vpnId == 0) {
        return NamespaceAt("/proc/self/fd/" + std::to_string(OwnNamespace().Get()));
    }
    const Vpn *vpn = ActiveConfig().Find(vpnId);
    return vpn == nullptr ? std::nullopt : NamespaceAt(NamespacePath(*vpn));
}

std::uint64_t CurrentRound()
{
    return s_round;
}

void BeginRound()
{
    ++s_round;
}

std::optional<NamespaceId> NamespaceOfProcess(pid_t pid)
{
    return NamespaceAt("/proc/" + std::to_string(pid) + "/ns/net");
}

NamespaceSwitch::NamespaceSwitch(std::uint32_t vpnId) : saved_(OpenNamespace(kThreadNamespace))
{
    const UniqueFd target = OpenNamespaceOfVpn(vpnId);
    if (::setns(target.Get(), CLONE_NEWNET) != 0) {
        ThrowLastFailure("namespace of vpn " + std::to_string(vpnId));
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

using namespace kavel::agent;

extern "C" {

VQ_ERR_T VQ_RtcGetNetNsExecCmdPrefix(uint32_t VpnId, char *Buffer, size_t Size)
{
    return Buffer == nullptr ? -EINVAL : WithoutExceptions([&] { return WriteCommandPrefix(VpnId, Buffer, Size); });
}

VQ_ERR_T VQ_RtcNetNsSaveAndSwitch(uint32_t VpnId, int *SavedNs)
{
    if (SavedNs == nullptr) {
        return -EINVAL;
    }
    return WithoutExceptions([&] {
        *SavedNs = NamespaceSwitch(VpnId).Stay().Release();
        return 0;
    });
}

VQ_ERR_T VQ_RtcNetNsSwitchToDefault(int *SavedNs)
{
    if (SavedNs == nullptr || *SavedNs < 0) {
        return -EINVAL;
    }
    if (::setns(*SavedNs, CLONE_NEWNET) != 0) {
        return LastFailure();
    }
    ::close(*SavedNs);
    *SavedNs = -1;
    return 0;
}
}
