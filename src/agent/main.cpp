// vqagent: loads the DNS module, gives it the box's services and serves the control socket.
#include <signal.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <span>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>

#include "base/config.h"
#include "base/failure.h"
#include "base/log.h"
#include "base/netlink.h"
#include "base/netns.h"
#include "instances/instance_lock.h"
#include "instances/instances.h"
#include "instances/launches.h"
#include "instances/module.h"
#include "instances/recovery.h"
#include "services/interfaces_netlink.h"
#include "services/memory_malloc.h"
#include "services/rules_nftables.h"
#include "socket/control_socket.h"
#include "socket/requests.h"
#include "unique_fd.h"

using namespace kavel::agent;
using kavel::UniqueFd;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr mode_t kUmask = 022;

// Descriptors beside the two per VPN that a status query takes: one of the two stands above those of select().
constexpr rlim_t kOtherDescriptors = FD_SETSIZE + 256;

// Inotify instances that a user may have, and those that are not a VPN's: the box's own and the agent's.
constexpr const char *kWatchLimit = "/proc/sys/fs/inotify/max_user_instances";
constexpr std::size_t kOtherWatches = 4;

// For what an agent that was killed had launched.
constexpr std::chrono::milliseconds kLaunchPatience{2000};

struct Options {
    std::string config = "/etc/kavel/agent.json";
    std::string module;
};

void Complain(const std::string &text)
{
    std::fprintf(stderr, "vqagent: %s\n", text.c_str());
}

void CheckInterface(const Vpn &vpn, const std::string &name, const std::string &path)
{
    const int index = InterfaceIndex(vpn.id, name);
    if (index == -ENODEV) {
        throw ConfigError(path + ": interface \"" + name + "\" does not exist in namespace \"" + vpn.netns + "\"");
    }
    if (index < 0) {
        throw ConfigError(path + ": interface \"" + name + "\": " + std::strerror(-index));
    }
}

void CheckVpn(const Vpn &vpn)
{
    const std::string path = vpn.path + ".namespace: \"" + vpn.netns + "\"";
    if (!NamespaceOfVpn(vpn.id)) {
        throw ConfigError(path + " does not exist");
    }
    try {
        const NamespaceSwitch inside(vpn.id);
    } catch (const std::system_error &failure) {
        const bool foreign = failure.code().value() == EINVAL;
        throw ConfigError(path + (foreign ? " is not a network namespace" : ": " + failure.code().message()));
    }
    for (std::size_t i = 0; i < vpn.lan.size(); ++i) {
        CheckInterface(vpn, vpn.lan[i], vpn.path + ".lan[" + std::to_string(i) + "]");
    }
    for (std::size_t i = 0; i < vpn.wan.size(); ++i) {
        CheckInterface(vpn, vpn.wan[i].name, vpn.path + ".wan[" + std::to_string(i) + "].name");
    }
}

void RaiseDescriptorLimit(std::size_t vpns)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    const rlim_t wanted = 2 * static_cast<rlim_t>(vpns) + kOtherDescriptors;
    if (wanted > limit.rlim_cur) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Each instance watches its resolver file, and gives up at its start when it cannot.
void CheckWatchLimit(std::size_t vpns)
{
    std::size_t limit = 0;
    if (std::ifstream(kWatchLimit) >> limit && limit < vpns + kOtherWatches) {
        Log(LogLevel::kWarning, "%s is %zu: too few for the instances of %zu VPNs", kWatchLimit, limit, vpns);
    }
}

// Blocked before anything else is done: a signal during the start ends the agent right after it.
UniqueFd CatchEndSignals()
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    UniqueFd signals(::signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals || ::sigprocmask(SIG_BLOCK, &ends, nullptr) != 0) {
        ThrowLastFailure("signalfd");
    }
    ::signal(SIGPIPE, SIG_IGN);
    // Ignored by a parent, it would take the shells' results away.
    ::signal(SIGCHLD, SIG_DFL);
    return signals;
}

// Tells of namespaces that come and go. An empty descriptor where namespaces are not kept at all.
UniqueFd WatchNamespaces()
{
    UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!watch || ::inotify_add_watch(watch.Get(), kNamespaceDirectory, IN_DELETE | IN_MOVED_FROM) < 0) {
        return {};
    }
    return watch;
}

void DrainDescriptor(int fd)
{
    std::array<char, 4096> bytes{};
    while (::read(fd, bytes.data(), bytes.size()) > 0) {
    }
}

std::string ServingText(const Config &config)
{
    const std::size_t count = config.vpns.size();
    return "serving " + std::to_string(count) + (count == 1 ? " VPN" : " VPNs");
}

void TellManager(const Config &config, const char *state)
{
    ::sd_notifyf(0, "%sSTATUS=%s", state, ServingText(config).c_str());
}

void PrepareVpn(const Vpn &vpn)
{
    const int result = PrepareNamespace(vpn.id);
    if (result < 0) {
        Log(LogLevel::kError, "vpn %u: its namespace is not ready: %s", vpn.id, std::strerror(-result));
    }
}

void StartModule(const Module &module, const Config &config, Launches &launches)
{
    module.setPlatform();
    module.stopOldService();
    for (const Vpn &vpn : config.vpns) {
        const VQ_ERR_T result = module.initDirectory(vpn.id);
        if (result < 0) {
            Log(LogLevel::kError, "vpn %u: no instance directory: %s", vpn.id, std::strerror(-result));
        }
    }
    if (config.persistence) {
        BeginRound();
        RecoverStored(module, launches);
    }
}

// What an agent before this one launched and did not see come up. The module finds an instance by its pid file alone:
// one without would be doubled, or never stopped. One that belongs to nobody any more is the operator's to end: a VPN
// that is missing by mistake should not lose its names.
void AdoptInstances(const Config &config, Launches &launches)
{
    const std::set<std::uint32_t> found = VpnsWithProcesses();
    (void)AwaitStarts(launches, found, kLaunchPatience);
    for (const std::uint32_t vpnId : found) {
        if (!config.Serves(vpnId)) {
            Log(LogLevel::kWarning, "vpn %u: an instance runs, but the VPN is not configured", vpnId);
        }
    }
}

void PrepareBox(const Config &config, Launches &launches)
{
    RemoveLeftoversOfInstances();
    const int written = WriteBoxDirectory();
    if (written < 0) {
        Log(LogLevel::kError, "the box-wide directory is not complete: %s", std::strerror(-written));
    }
    std::ranges::for_each(config.vpns, PrepareVpn);
    AdoptInstances(config, launches);
}

void Serve(const Module &module, const Config &config, Launches &launches, const UniqueFd &signals)
{
    const Requests requests(module, config, launches);
    ControlSocket socket(config.socket,
                         [&](std::span<const std::uint8_t> frame, const ControlSocket::Respond &respond) {
                             requests.Handle(frame, respond);
                             TellManager(config, "");
                         });
    socket.Watch(launches.Fd(), [&] {
        launches.Look();
        return true;
    });
    socket.Watch(signals.Get(), [&] {
        launches.AwaitAll();
        return false;
    });
    const UniqueFd namespaces = WatchNamespaces();
    if (namespaces) {
        socket.Watch(namespaces.Get(), [&] {
            DrainDescriptor(namespaces.Get());
            CloseStaleNetlink();
            CloseStaleRuleContexts();
            return true;
        });
    }
    Log(LogLevel::kNotice, "%s at %s", ServingText(config).c_str(), config.socket.c_str());
    TellManager(config, "READY=1\n");
    socket.Serve();
    ::sd_notify(0, "STOPPING=1");
    Log(LogLevel::kNotice, "stopping; DNS instances stay as they are");
}

void Run(const Options &options)
{
    ::umask(kUmask);
    ReturnLargeMemory();
    const UniqueFd signals = CatchEndSignals();
    ActivateConfig(LoadConfig(options.config));
    const Config &config = ActiveConfig();
    SetLogThreshold(config.log);
    const InstanceLock lock;
    RaiseDescriptorLimit(config.vpns.size());
    CheckWatchLimit(config.vpns.size());
    RememberOwnNamespace();
    std::ranges::for_each(config.vpns, CheckVpn);

    const Module module(options.module, config.platform);
    Log(LogLevel::kDebug, "module %s", module.Path().c_str());
    Launches launches;
    PrepareBox(config, launches);
    StartModule(module, config, launches);
    Serve(module, config, launches, signals);
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    try {
        CLI::App app("Runs one DNS service per VPN of this box.", "vqagent");
        app.set_version_flag("--version", "vqagent " KAVEL_VERSION);
        app.add_option("--config", options.config, "configuration file")->capture_default_str();
        app.add_option("--module", options.module, "DNS module to load instead of the installed one");
        try {
            app.parse(argc, argv);
        } catch (const CLI::Success &answered) {
            return app.exit(answered);
        } catch (const CLI::ParseError &wrong) {
            Complain(wrong.what());
            return kExitUsage;
        }
        Run(options);
        return EXIT_SUCCESS;
    } catch (const ConfigError &wrong) {
        Complain(options.config + ": " + wrong.what());
        return kExitUsage;
    } catch (const std::exception &failure) {
        Complain(failure.what());
        return kExitFailure;
    }
}
