// Entering the namespace of a VPN, for a command and for the calling thread.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/netns.h"
#include "failure.h"
#include "services/host.h"
#include "vqNetns.h"

namespace kavel::agent {
namespace {

// VPN 0 is the box itself: its commands need no prefix.
std::string CommandPrefix(const Host &host, std::uint32_t vpnId)
{
    if (vpnId == 0) {
        return {};
    }
    const Vpn *vpn = host.config.Find(vpnId);
    if (vpn == nullptr || !host.namespaces.IdOf(vpnId)) {
        ThrowErrno(ENOENT, "vpn " + std::to_string(vpnId));
    }
    return host.namespaceTool + " --net=" + NamespacePath(*vpn) + " ";
}

int WriteCommandPrefix(std::uint32_t vpnId, char *buffer, std::size_t size)
{
    const std::string prefix = CommandPrefix(Host::Current(), vpnId);
    if (prefix.size() >= size) {
        ThrowErrno(EOVERFLOW, "command prefix");
    }
    std::memcpy(buffer, prefix.c_str(), prefix.size() + 1);
    return static_cast<int>(prefix.size());
}

} // namespace
} // namespace kavel::agent

using namespace kavel;
using namespace kavel::agent;

extern "C" {

VQ_ERR_T VQ_RtcGetNetNsExecCmdPrefix(uint32_t vpnId, char *buffer, size_t size)
{
    return buffer == nullptr ? -EINVAL : ResultOf([&] { return WriteCommandPrefix(vpnId, buffer, size); });
}

VQ_ERR_T VQ_RtcNetNsSaveAndSwitch(uint32_t vpnId, int *savedNs)
{
    if (savedNs == nullptr) {
        return -EINVAL;
    }
    return ResultOf([&] {
        *savedNs = NamespaceSwitch(Host::Current().namespaces, vpnId).Stay().Release();
        return 0;
    });
}

VQ_ERR_T VQ_RtcNetNsSwitchToDefault(int *savedNs)
{
    if (savedNs == nullptr || *savedNs < 0) {
        return -EINVAL;
    }
    if (::setns(*savedNs, CLONE_NEWNET) != 0) {
        return -errno;
    }
    ::close(*savedNs);
    *savedNs = -1;
    return 0;
}
}
