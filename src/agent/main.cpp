// vqagent: loads the DNS module, gives it the box's services and serves the control socket.
#include <getopt.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "base/child_reaper.h"
#include "base/config.h"
#include "base/procfs.h"
#include "event_loop.h"
#include "failure.h"
#include "instances/agent_facts.h"
#include "instances/agent_lock.h"
#include "instances/in_force.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "instances/pending_launches.h"
#include "instances/startup.h"
#include "log.h"
#include "services/host.h"
#include "services/memory_malloc.h"
#include "socket/control_socket.h"
#include "socket/peer.h"
#include "socket/requests.h"
#include "supervision/repair.h"
#include "supervision/supervisor.h"

using namespace kavel;
using namespace kavel::agent;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr mode_t kUmask = 022;
constexpr const char *kStartsPath = "/run/kavel/starts";
constexpr std::chrono::seconds kMemoryInterval{30};
// How often the service manager is told how far the start is, and how long it waits for the next time.
constexpr std::chrono::seconds kStartReportInterval{1};
constexpr std::chrono::microseconds kStartExtension = std::chrono::seconds(60);

constexpr const char *kHelp = "Runs one DNS service per VPN of this box.\n"
                              "\n"
                              "usage: vqagent [options]\n"
                              "  --config FILE  configuration file (/etc/kavel/agent.json)\n"
                              "  --module FILE  DNS module to load instead of the installed one\n"
                              "  --stop-all     end all instances with their rules and routes, and exit; what is\n"
                              "                 stored stays. Not while an agent runs: vqctl stop --all\n"
                              "  --version      print the version and exit\n"
                              "  --help         print this text and exit\n";

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string config = "/etc/kavel/agent.json";
    std::string module;
    bool stopsAll = false;
    const char *printOnly = nullptr; // a text to print instead of running
};

Options ParseOptions(int argc, char **argv)
{
    static constexpr std::array<option, 6> kOptions{{{"config", required_argument, nullptr, 'c'},
                                                     {"module", required_argument, nullptr, 'm'},
                                                     {"stop-all", no_argument, nullptr, 's'},
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
        case 's':
            options.stopsAll = true;
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
    sigaddset(&handled, SIGHUP);
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

// What ends the agent, and the way to it.
class Agent {
  public:
    Agent(Options options, Config config)
        : options_(std::move(options)), host_(std::move(config)), module_(options_.module, host_)
    {
    }

    // From the start to the last reply. The status to exit with.
    int Run();

  private:
    void Stop(const char *why, int status);
    void ReadConfigurationAgain();
    void ReportStart();
    void CheckMemory();

    Options options_;
    Host host_;
    const Module module_;
    EventLoop loop_;
    ChildReaper reaper_{loop_};
    const Instances instances_{{}, host_.identity};
    PendingLaunches launches_{loop_, instances_, host_.launchOutputs};
    Supervisor supervisor_{loop_, host_, instances_, module_.Functions(), launches_, reaper_};
    Requests requests_{loop_,
                       host_,
                       instances_,
                       module_.Functions(),
                       launches_,
                       supervisor_,
                       {KAVEL_VERSION, CountStart(kStartsPath)}};
    ControlSocket socket_{loop_, host_.config.socket,
                          [this](ReceivedFrame frame, const Respond &respond) {
                              requests_.Handle(std::move(frame), respond);
                              CheckMemory();
                          },
                          AdmittedBy(host_.config)};
    EventSource memoryTimer_ = loop_.AddTimer([this] { CheckMemory(); });
    EventSource startTimer_ = loop_.AddTimer([this] { ReportStart(); });
    bool isStopping_ = false;
    int status_ = EXIT_SUCCESS;
};

int Agent::Run()
{
    Log(LogLevel::kDebug, "module %s", module_.Path().c_str());
    const EventSource terminate =
        loop_.AddSignal(SIGTERM, [this] { Stop("stopping; DNS instances keep running", EXIT_SUCCESS); });
    const EventSource interrupt =
        loop_.AddSignal(SIGINT, [this] { Stop("stopping; DNS instances keep running", EXIT_SUCCESS); });
    const EventSource reload = loop_.AddSignal(SIGHUP, [this] { ReadConfigurationAgain(); });
    memoryTimer_.ArmTimer(EventLoop::Clock::now() + kMemoryInterval);
    PrepareBox(instances_, module_.Functions());
    loop_.SendWatchdog();
    supervisor_.Start([this] {
        Log(LogLevel::kNotice, "%s at %s", ServingText(host_.config).c_str(), host_.config.socket.c_str());
        ::sd_notifyf(0, "READY=1\nSTATUS=%s", ServingText(host_.config).c_str());
    });
    ReportStart();
    loop_.Run();
    return status_;
}

// The start of hundreds of VPNs may take longer than a service manager waits by default.
void Agent::ReportStart()
{
    const auto progress = supervisor_.Progress();
    if (!progress || isStopping_) {
        return;
    }
    ::sd_notifyf(0, "STATUS=starting: %" PRIu32 " of %" PRIu32 " VPNs are back\nEXTEND_TIMEOUT_USEC=%lld",
                 progress->back, progress->total, static_cast<long long>(kStartExtension.count()));
    startTimer_.ArmTimer(EventLoop::Clock::now() + kStartReportInterval);
}

void Agent::Stop(const char *why, int status)
{
    if (std::exchange(isStopping_, true)) {
        return;
    }
    ::sd_notify(0, "STOPPING=1");
    Log(status == EXIT_SUCCESS ? LogLevel::kNotice : LogLevel::kError, "%s", why);
    status_ = status;
    supervisor_.Stop();
    requests_.Stop();
    socket_.Drain([this] { loop_.Exit(); });
}

// A mistake leaves everything as it is.
void Agent::ReadConfigurationAgain()
{
    if (isStopping_) {
        return;
    }
    if (!supervisor_.Progress()) {
        ::sd_notify(0, "RELOADING=1");
    }
    std::string status = ServingText(host_.config);
    try {
        Config fresh = LoadConfig(options_.config);
        if (const auto key = host_.config.FixedKeyThatDiffers(fresh)) {
            throw ConfigError(*key + ": needs a restart of the agent");
        }
        const Config old = std::exchange(host_.config, std::move(fresh));
        requests_.ConfigurationRead();
        AdjustLimits(host_.config);
        host_.namespaces.BeginRequest();
        Log(LogLevel::kNotice, "configuration read again: %s", ServingText(host_.config).c_str());
        supervisor_.ConfigurationChanged(old);
        status = ServingText(host_.config);
    } catch (const std::exception &failure) {
        Log(LogLevel::kError, "%s: %s; the configuration stays as it was", options_.config.c_str(), failure.what());
        status += "; the configuration file has a mistake";
    }
    // While it starts, it is ready later.
    ::sd_notifyf(0, "%sSTATUS=%s", supervisor_.Progress() ? "" : "READY=1\n", status.c_str());
}

// A leak that nobody knows of must not take the box's memory: what runs is not disturbed by a restart of the agent.
void Agent::CheckMemory()
{
    memoryTimer_.ArmTimer(EventLoop::Clock::now() + kMemoryInterval);
    const std::uint64_t limit = std::uint64_t{host_.config.watch.memoryMiB} << 20U;
    if (!isStopping_ && launches_.IsEmpty() && OwnMemory() > limit) {
        Stop("the agent uses more memory than it may; it exits to be started again", kExitFailure);
    }
}

// The instances outlive the agent, so that they can be there without one. Those of VPNs that are not configured any
// more are ended as well; their namespace is not known.
int StopAll(const Options &options, Config config)
{
    Host host(std::move(config));
    const Module module(options.module, host);
    module.Functions().setPlatform();
    const Instances instances({}, host.identity);
    const InForceFiles inForce(instances);
    Repairs repairs(host, instances, module.Functions(), inForce);
    std::set<std::uint32_t> vpnIds = instances.WithProcesses();
    vpnIds.insert(0);
    for (const Vpn &vpn : host.config.vpns) {
        vpnIds.insert(vpn.id);
    }
    int status = EXIT_SUCCESS;
    for (const std::uint32_t vpnId : vpnIds) {
        host.namespaces.BeginRequest();
        if (const RepairOutcome outcome = repairs.TakeDown(vpnId); outcome.problem) {
            Log(LogLevel::kError, "vpn %u: %s", vpnId, outcome.problem->c_str());
            status = kExitFailure;
        }
    }
    return status;
}

int Run(const Options &options)
{
    ::umask(kUmask);
    ReturnLargeMemory();
    SetUpSignals();
    Config config = LoadConfig(options.config);
    ConfigureLog(config.log);
    const AgentLock lock(config.socket);
    AdjustLimits(config);
    if (options.stopsAll) {
        return StopAll(options, std::move(config));
    }
    return Agent(options, std::move(config)).Run();
}

int ReportError(const std::string &text, int status)
{
    WriteFinalLine("vqagent", text);
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
        return Run(options);
    } catch (const UsageError &error) {
        return ReportError(error.what(), kExitUsage);
    } catch (const ConfigError &error) {
        return ReportError(options.config + ": " + error.what(), kExitUsage);
    } catch (const std::exception &error) {
        return ReportError(error.what(), kExitFailure);
    }
}
