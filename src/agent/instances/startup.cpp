#include "instances/startup.h"

#include <sys/resource.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <system_error>

#include "base/instance_process.h"
#include "base/log.h"
#include "base/netns.h"
#include "instances/recovery.h"
#include "services/interfaces_netlink.h"
#include "services/routes_netlink.h"

namespace kavel::agent {
namespace {

// A VPN uses three descriptors at most: a route socket, which is above those that select() can use, the socket of a
// status query, and the output of its launch. These are the other descriptors.
constexpr rlim_t kOtherDescriptors = FD_SETSIZE + 256;

// The limit of inotify instances per user, and how many are used beside one per VPN: by the box's own dnsmasq and the
// agent.
constexpr const char *kInotifyLimit = "/proc/sys/fs/inotify/max_user_instances";
constexpr std::size_t kOtherInotifyInstances = 4;

// For instances that an earlier agent launched before it died.
constexpr std::chrono::milliseconds kAdoptionTimeout{2000};

void CheckInterface(Host &host, const Vpn &vpn, const std::string &name, const std::string &path)
{
    try {
        (void)InterfaceIndex(host, vpn.id, name);
    } catch (const std::system_error &failure) {
        const std::string subject = path + ": interface \"" + name + "\"";
        if (failure.code().value() == ENODEV) {
            throw ConfigError(subject + " does not exist in namespace \"" + vpn.netns + "\"");
        }
        throw ConfigError(subject + ": " + failure.code().message());
    }
}

void CheckNamespace(const Host &host, const Vpn &vpn)
{
    const std::string subject = vpn.path + ".namespace: \"" + vpn.netns + "\"";
    if (!host.namespaces.IdOf(vpn.id)) {
        throw ConfigError(subject + " does not exist");
    }
    try {
        const NamespaceSwitch inside(host.namespaces, vpn.id);
    } catch (const std::system_error &failure) {
        const bool isOtherFile = failure.code().value() == EINVAL;
        throw ConfigError(subject + (isOtherFile ? " is not a network namespace" : ": " + failure.code().message()));
    }
}

void CheckVpn(Host &host, const Vpn &vpn)
{
    CheckNamespace(host, vpn);
    for (std::size_t i = 0; i < vpn.lan.size(); ++i) {
        CheckInterface(host, vpn, vpn.lan[i], vpn.path + ".lan[" + std::to_string(i) + "]");
    }
    for (std::size_t i = 0; i < vpn.wan.size(); ++i) {
        CheckInterface(host, vpn, vpn.wan[i].name, vpn.path + ".wan[" + std::to_string(i) + "].name");
    }
}

void RaiseDescriptorLimit(std::size_t vpns)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    const rlim_t needed = 3 * static_cast<rlim_t>(vpns) + kOtherDescriptors;
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

void PrepareNamespaceOrLog(Host &host, std::uint32_t vpnId)
{
    try {
        PrepareNamespace(host, vpnId);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kError, "vpn %u: its namespace is not ready: %s", vpnId, failure.what());
    }
}

// The module finds an instance by its pid file: without this wait it would start a second instance beside one that has
// not written its file yet, or never stop it. An instance of a VPN that is not configured is left alone: a VPN that was
// removed from the configuration by mistake must not lose its DNS service.
bool AdoptInstances(EventLoop &loop, const Config &config, const Instances &instances, PendingLaunches &launches)
{
    const std::set<std::uint32_t> found = instances.WithProcesses();
    if (!RunUntilLaunched(loop, launches, found, kAdoptionTimeout)) {
        return false;
    }
    for (const std::uint32_t vpnId : found) {
        if (!config.Serves(vpnId)) {
            Log(LogLevel::kWarning, "vpn %u: an instance runs, but the VPN is not configured", vpnId);
        }
    }
    return true;
}

void InitializeModule(const ModuleFunctions &module, Host &host)
{
    module.setPlatform();
    module.stopOldService();
    for (const Vpn &vpn : host.config.vpns) {
        const VpnScope scope(host, vpn.id);
        const VQ_ERR_T result = module.initDirectory(vpn.id);
        if (result < 0) {
            Log(LogLevel::kError, "vpn %u: no instance directory: %s", vpn.id, std::strerror(-result));
        }
    }
}

} // namespace

void CheckVpns(Host &host)
{
    for (const Vpn &vpn : host.config.vpns) {
        CheckVpn(host, vpn);
    }
}

void AdjustLimits(const Config &config)
{
    RaiseDescriptorLimit(config.vpns.size());
    CheckInotifyLimit(config.vpns.size());
}

void PrepareNamespace(Host &host, std::uint32_t vpnId)
{
    if (vpnId != 0) {
        BringLoopbackUp(host, vpnId);
        EnsurePolicyRule(host, vpnId);
    }
}

bool StartServices(EventLoop &loop, Host &host, const Instances &instances, const ModuleFunctions &module,
                   PendingLaunches &launches)
{
    instances.RemoveLeftovers();
    CreateBoxDirectoryOrLog(instances);
    for (const Vpn &vpn : host.config.vpns) {
        PrepareNamespaceOrLog(host, vpn.id);
    }
    if (!AdoptInstances(loop, host.config, instances, launches)) {
        return false;
    }
    InitializeModule(module, host);
    if (!host.config.persistence) {
        return true;
    }
    host.namespaces.BeginRequest();
    return RecoverStored(loop, host, instances, module, launches);
}

} // namespace kavel::agent
