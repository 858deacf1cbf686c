#include "instances/startup.h"

#include <sys/resource.h>
#include <sys/select.h>

#include <algorithm>
#include <fstream>
#include <system_error>

#include "log.h"
#include "services/interfaces_netlink.h"
#include "services/routes_netlink.h"

namespace kavel::agent {
namespace {

// What a VPN uses at most: a route socket, two sockets for events, its instance's process, the output of its launch,
// and the sockets of a status query and of a probe. The first four are above those that select() can use.
constexpr rlim_t kPerVpn = 7;
// The other descriptors.
constexpr rlim_t kOtherDescriptors = FD_SETSIZE + 256;

// The limit of inotify instances per user, and how many are used beside one per VPN: by the box's own dnsmasq and the
// agent.
constexpr const char *kInotifyLimit = "/proc/sys/fs/inotify/max_user_instances";
constexpr std::size_t kOtherInotifyInstances = 4;

void RaiseDescriptorLimit(std::size_t vpns)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    const rlim_t needed = kPerVpn * static_cast<rlim_t>(vpns) + kOtherDescriptors;
    if (needed > limit.rlim_cur) {
        limit.rlim_cur = std::min(needed, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Each instance watches its resolver file with inotify, and fails to start when it cannot.
void CheckInotifyLimit(std::size_t vpns)
{
    std::size_t limit = 0;
    if (std::ifstream(kInotifyLimit) >> limit && limit < vpns + kOtherInotifyInstances) {
        Log(LogLevel::kWarning, "%s is %zu: too few for the instances of %zu VPNs", kInotifyLimit, limit, vpns);
    }
}

void CreateBoxDirectoryOrLog(const Instances &instances)
{
    try {
        instances.CreateBoxDirectory();
    } catch (const std::system_error &failure) {
        Log(LogLevel::kError, "the box-wide directory is not complete: %s", failure.what());
    }
}

} // namespace

void AdjustLimits(const Config &config)
{
    RaiseDescriptorLimit(config.vpns.size());
    CheckInotifyLimit(config.vpns.size());
}

bool PrepareNamespace(Host &host, std::uint32_t vpnId)
{
    if (vpnId == 0) {
        return false;
    }
    const bool wasDown = BringLoopbackUp(host, vpnId);
    const bool hadNoRule = EnsurePolicyRule(host, vpnId);
    return wasDown || hadNoRule;
}

void PrepareBox(const Instances &instances, const ModuleFunctions &module)
{
    instances.RemoveLeftovers();
    CreateBoxDirectoryOrLog(instances);
    module.setPlatform();
    module.stopOldService();
}

} // namespace kavel::agent
