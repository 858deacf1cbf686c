// vqagent: loads the DNS module, gives it the box's services and serves the control socket.
#include <getopt.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "base/child_reaper.h"
#include "base/config.h"
#include "base/event_loop.h"
#include "base/failure.h"
#include "base/log.h"
#include "base/netns.h"
#include "instances/agent_lock.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "instances/pending_launches.h"
#include "instances/startup.h"
#include "services/host.h"
#include "services/memory_malloc.h"
#include "socket/control_socket.h"
#include "socket/requests.h"

using namespace kavel::agent;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr mode_t kUmask = 022;

constexpr const char *kHelp = "Runs one DNS service per VPN of this box.\n"
                              "\n"
                              "usage: vqagent [options]\n"
                              "  --config FILE  configuration file (/etc/kavel/agent.json)\n"
                              "  --module FILE  DNS module to load instead of the installed one\n"
                              "  --version      print the version and exit\n"
                              "  --help         print this text and exit\n";

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string config = "/etc/kavel/agent.json";
    std::string module;
    const char *printOnly = nullptr; // a text to print instead of running
};

Options ParseOptions(int argc, char **argv)
{
    static constexpr std::array<option, 5> kOptions{{{"config", required_argument, nullptr, 'c'},
                                                     {"module", required_argument, nullptr, 'm'},
                                                     {"version", no_argument, nullptr, 'v'},
                                                     {"help", no_argument, nullptr, 'h'},
                                                     {nullptr, 0, nullptr, 0}}};
    Options options;
    opterr = 0;
    for (int found = 0; (found = ::getopt_long(argc, argv, ":h", kOptions.data(), nullptr)) != -1;) {
        switch (found) {
        case 'c':
            options.config = optarg;
            break;
        case 'm':
            options.module = optarg;
            break;
        case 'v':
            options.printOnly = "vqagent " KAVEL_VERSION "\n";
            break;
        case 'h':
            options.printOnly = kHelp;
            break;
        default:
            throw UsageError(std::string(argv[optind - 1]) +
                             (found == ':' ? ": a value is missing" : ": unknown option"));
        }
    }
    if (optind < argc) {
        throw UsageError(std::string(argv[optind]) + ": unexpected argument");
    }
    return options;
}

// Blocked before anything else, so that a signal that comes early is kept for the loop.
void SetUpSignals()
{
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGTERM);
    sigaddset(&handled, SIGINT);
    if (::sigprocmask(SIG_BLOCK, &handled, nullptr) != 0) {
        ThrowLastErrno("signals");
    }
    ::signal(SIGPIPE, SIG_IGN);
    // If a parent ignored it, the results of shell commands would be lost.
    ::signal(SIGCHLD, SIG_DFL);
}

std::string ServingText(const Config &config)
{
    const std::size_t count = config.vpns.size();
    return "serving " + std::to_string(count) + (count == 1 ? " VPN" : " VPNs");
}

// Handled while the sources live. A signal that comes while there are none is pending: it is handled by the next ones.
std::array<EventSource, 2> AddStopSignals(EventLoop &loop, const std::function<void()> &handler)
{
    return {loop.AddSignal(SIGTERM, handler), loop.AddSignal(SIGINT, handler)};
}

// False when a signal ended the start.
bool Start(EventLoop &loop, Host &host, const Instances &instances, const Module &module, PendingLaunches &launches)
{
    const auto signals = AddStopSignals(loop, [&] { loop.Exit(); });
    return StartServices(loop, host, instances, module.Functions(), launches);
}

// From the open control socket to the last reply.
void Serve(EventLoop &loop, Host &host, const Instances &instances, const Module &module, PendingLaunches &launches)
{
    Requests requests(loop, host, instances, module.Functions(), launches);
    ControlSocket socket(loop, host.config.socket, [&](ReceivedFrame frame, const Respond &respond) {
        requests.Handle(std::move(frame), respond);
    });
    const auto namespaces =
        loop.AddInotify(kNamespaceDirectory, IN_DELETE | IN_MOVED_FROM, [&](const inotify_event & /*event*/) {
            host.routeSockets.CloseStale();
            host.nftables.CloseStale();
        });
    bool isStopping = false;
    const auto signals = AddStopSignals(loop, [&] {
        if (!std::exchange(isStopping, true)) {
            ::sd_notify(0, "STOPPING=1");
            Log(LogLevel::kNotice, "stopping; DNS instances keep running");
            requests.Stop();
            socket.Drain([&] { loop.Exit(); });
        }
    });
    Log(LogLevel::kNotice, "%s at %s", ServingText(host.config).c_str(), host.config.socket.c_str());
    ::sd_notifyf(0, "READY=1\nSTATUS=%s", ServingText(host.config).c_str());
    loop.Run();
}

void Run(const Options &options)
{
    ::umask(kUmask);
    ReturnLargeMemory();
    SetUpSignals();
    Config config = LoadConfig(options.config);
    ConfigureLog(config.log);
    const AgentLock lock(config.socket);
    AdjustLimits(config);
    Host host(std::move(config));
    CheckVpns(host);

    const Module module(options.module, host);
    Log(LogLevel::kDebug, "module %s", module.Path().c_str());
    EventLoop loop;
    const EventSource children = ::getpid() == 1 ? ReapChildren(loop) : EventSource();
    const Instances instances({}, host.identity);
    PendingLaunches launches(loop, instances, host.launchOutputs);
    if (Start(loop, host, instances, module, launches)) {
        Serve(loop, host, instances, module, launches);
    } else {
        Log(LogLevel::kNotice, "stopped during the start; DNS instances keep running");
    }
}

int ReportError(const std::string &text, int status)
{
    WriteFinalLine(text);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    try {
        options = ParseOptions(argc, argv);
        if (options.printOnly != nullptr) {
            return std::fputs(options.printOnly, stdout) == EOF ? kExitFailure : EXIT_SUCCESS;
        }
        Run(options);
        return EXIT_SUCCESS;
    } catch (const UsageError &error) {
        return ReportError(error.what(), kExitUsage);
    } catch (const ConfigError &error) {
        return ReportError(options.config + ": " + error.what(), kExitUsage);
    } catch (const std::exception &error) {
        return ReportError(error.what(), kExitFailure);
    }
}
