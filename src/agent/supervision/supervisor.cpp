#include "supervision/supervisor.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <iterator>
#include <system_error>
#include <utility>

#include "base/procfs.h"
#include "instances/startup.h"
#include "log.h"
#include "services/launch_mark.h"
#include "services/routes_netlink.h"
#include "services/rules_nftables.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kStartTimeout{2000};
constexpr std::chrono::milliseconds kStartTimeoutOfMany{10000}; // while the agent starts: for the last of all instances
constexpr std::chrono::seconds kSlowStart{10};                  // a process that starts slowly is not disturbed before
constexpr std::chrono::seconds kLongRun{30}; // an instance that ran for so long begins with no failures
constexpr std::chrono::seconds kLongestDelay{60};
constexpr std::chrono::seconds kCheckAfterStart{1};

// At once, then after 1, 2, 4 ... 60 s.
std::chrono::seconds StartDelay(unsigned failures)
{
    constexpr unsigned kShifts = 6;
    if (failures == 0) {
        return std::chrono::seconds(0);
    }
    return std::min(kLongestDelay, std::chrono::seconds(1U << std::min(failures - 1, kShifts)));
}

bool IsRuleInstalled(Host &host, std::uint32_t vpnId)
{
    try {
        const InstalledRules rules = FindInstalledRules(host, vpnId);
        return rules.dns || rules.dnat || rules.stale;
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its rules cannot be read: %s", vpnId, failure.what());
        return true;
    }
}

std::optional<std::uint32_t> RoutesOf(Host &host, std::uint32_t vpnId)
{
    if (vpnId == 0) {
        return std::nullopt;
    }
    try {
        return CountRoutes(host, vpnId, kDnsRouteTable);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its routes cannot be read: %s", vpnId, failure.what());
        return std::nullopt;
    }
}

} // namespace

Supervisor::Supervisor(EventLoop &loop, Host &host, const Instances &instances, const ModuleFunctions &module,
                       PendingLaunches &launches, ChildReaper &reaper)
    : loop_(loop), host_(host), instances_(instances), module_(module), launches_(launches), reaper_(reaper),
      markTimer_(loop.AddTimer([this] { WaitForMarks(); })), bringBack_(loop.AddDeferred([this] { BringBackNext(); })),
      agendaTimer_(loop.AddTimer([this] { RunAgenda(); })), tick_(loop.AddTimer([this] { Tick(); })),
      undoTimer_(loop.AddTimer([this] { RunUndos(); }))
{
    launches.Observe([this](std::uint32_t vpnId, LaunchOutcome outcome) { LaunchEnded(vpnId, outcome); });
}

Supervisor::~Supervisor()
{
    launches_.Observe({});
}

void Supervisor::Stop()
{
    isStopped_ = true;
    for (EventSource *source : {&markTimer_, &bringBack_, &agendaTimer_, &tick_, &undoTimer_}) {
        *source = EventSource();
    }
    // The inotify sources stay: libsystemd 252 does not return from a wait when one is removed that has events pending.
    probes_.clear();
    vpns_.clear();
    for (AwaitedRepair &repair : std::exchange(awaited_, {})) {
        repair.report.problems.emplace_back("the agent is stopping");
        repair.onEnd(repair.report);
    }
}

WatchedVpn &Supervisor::Of(std::uint32_t vpnId)
{
    return vpns_[vpnId];
}

bool Supervisor::IsBusy(std::uint32_t vpnId) const
{
    const auto found = vpns_.find(vpnId);
    return (found != vpns_.end() && !found->second.isBack) || launches_.IsPending(vpnId);
}

bool Supervisor::IsIdle(std::uint32_t vpnId) const
{
    const auto found = vpns_.find(vpnId);
    return !isStopped_ && found != vpns_.end() && found->second.isBack && found->second.wanted &&
           !launches_.IsPending(vpnId);
}

// Sets up what every instance of the VPN needs.
void Supervisor::PrepareVpn(std::uint32_t vpnId)
{
    try {
        if (PrepareNamespace(host_, vpnId) && Of(vpnId).wanted && Of(vpnId).isBack) {
            NoteRepair(vpnId, "its policy rule or its loopback interface was gone");
        }
    } catch (const std::system_error &failure) {
        Log(LogLevel::kDebug, "vpn %u: its namespace is not ready: %s", vpnId, failure.what());
    }
}

void Supervisor::RefreshNamespace(std::uint32_t vpnId)
{
    WatchedVpn &vpn = Of(vpnId);
    Missing missing = FindMissing(host_, vpnId);
    if (missing != vpn.missing) {
        for (const Finding &finding : missing.findings) {
            Log(LogLevel::kWarning, "vpn %u: %s", vpnId, finding.text.c_str());
        }
        vpn.haveInterfacesChanged = !missing.isNamespace && vpn.isBack;
        vpn.missing = std::move(missing);
    }
    const auto netns = host_.namespaces.IdOf(vpnId);
    if (vpn.events && netns == vpn.netns) {
        return;
    }
    vpn.events.reset();
    vpn.netns = netns;
    vpn.areRulesRight = false;
    if (vpn.missing.isNamespace || !netns) {
        return;
    }
    try {
        vpn.events = std::make_unique<NamespaceEvents>(loop_, host_.namespaces, vpnId,
                                                       [this, vpnId] { NamespaceChanged(vpnId); });
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: changes in its namespace are seen late: %s", vpnId, failure.what());
    }
}

// Keeps what the files and routes are like now that they are right. If not, what is there does not count.
void Supervisor::RecordFacts(std::uint32_t vpnId, bool isComplete)
{
    WatchedVpn &vpn = Of(vpnId);
    InForce &wanted = *vpn.wanted;
    if (isComplete) {
        const std::vector<std::string> files = instances_.Files(vpnId);
        wanted.files.clear();
        std::ranges::transform(files, std::back_inserter(wanted.files), [this](const std::string &path) {
            // What others have done to it since it was written is no part of what is in force.
            const auto written = host_.writtenFiles.find(path);
            return written != host_.writtenFiles.end() ? written->second : MarkOfFile(path);
        });
        wanted.routes = RoutesOf(host_, vpnId);
        vpn.haveInterfacesChanged = vpn.isRuleOutdated = false;
    }
    vpn.areRulesRight = false;
    if (vpn.events) {
        vpn.events->Forget();
    }
}

void Supervisor::SaveFacts(std::uint32_t vpnId, bool isComplete)
{
    RecordFacts(vpnId, isComplete);
    try {
        inForce_.Write(vpnId, *Of(vpnId).wanted);
    } catch (const std::system_error &failure) {
        // An older agent has kept no content.
        Log(LogLevel::kDebug, "vpn %u: what is in force is not kept: %s", vpnId, failure.what());
    }
}

void Supervisor::Applied(const ControllerMessage &message, std::span<const std::uint8_t> bytes,
                         const std::optional<std::string> &revision, std::optional<std::uint32_t> confirmSeconds)
{
    const std::uint32_t vpnId = message.vpn;
    WatchedVpn &vpn = Of(vpnId);
    InForce wanted;
    wanted.enables = message.enables;
    wanted.isStored = message.isKept && host_.config.persistence; // the store may have failed for now
    wanted.revision = revision;
    vpn.wanted = std::move(wanted);
    vpn.isStopped = false;
    BeginConfirmation(vpnId, confirmSeconds);
    vpn.startAt.reset();
    vpn.startTime.reset();
    vpn.failures = 0;
    vpn.problem.clear();
    vpn.repairing.clear();
    vpn.repairFailures = 0;
    vpn.repairAt = {};
    vpn.upstreamUnanswered.clear();
    RefreshNamespace(vpnId);
    if (!message.enables) {
        SwitchedOff(vpnId);
    }
    if (!message.reloads) {
        vpn.instance.reset();
    }
    RecordFacts(vpnId, true);
    try {
        inForce_.Write(vpnId, *vpn.wanted, {true, std::string(bytes.begin(), bytes.end())});
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: what is in force is not kept: %s", vpnId, failure.what());
    }
    if (!confirmSeconds) {
        ForgetBefore(vpnId);
    }
    ScheduleLook(vpnId, Clock::now() + std::chrono::seconds(host_.config.watch.lookSeconds));
}

const InForce *Supervisor::InForceOf(std::uint32_t vpnId) const
{
    const auto found = vpns_.find(vpnId);
    return found != vpns_.end() && found->second.wanted ? &*found->second.wanted : nullptr;
}

// Of a message that failed in the middle something may be there: its files, or an instance that it has started.
void Supervisor::Refused(std::uint32_t vpnId)
{
    WatchedVpn &vpn = Of(vpnId);
    if (!Confirmation(vpnId)) {
        ForgetBefore(vpnId);
    }
    const bool hasLaunched = IsLaunchMarked(vpnId);
    if (hasLaunched && !vpn.wanted) {
        Log(LogLevel::kNotice, "vpn %u: the instance of the refused message is ended", vpnId);
        repairs_.Forsake(vpnId);
        RemoveMark(vpnId);
    } else if (hasLaunched && vpn.wanted->enables && host_.config.watch.repair) {
        vpn.repairing = "a refused message had started its instance";
        StartInstance(vpnId);
    } else if (vpn.wanted) {
        ScheduleLook(vpnId, Clock::now());
    }
}

std::optional<std::string> Supervisor::TakeDown(std::uint32_t vpnId)
{
    WatchedVpn &vpn = Of(vpnId);
    vpn.isStopped = vpn.isStopped || (vpn.wanted && vpn.wanted->enables);
    vpn.wanted.reset(); // nothing is repaired from here on
    vpn.instance.reset();
    vpn.startAt.reset();
    vpn.startTime.reset();
    vpn.problem.clear();
    vpn.upstreamUnanswered.clear();
    RepairOutcome outcome = repairs_.TakeDown(vpnId);
    Log(LogLevel::kNotice, "vpn %u: stopped by request%s%s", vpnId, outcome.problem ? "; " : "",
        outcome.problem.value_or("").c_str());
    return std::move(outcome.problem);
}

// The signal goes to the process that is watched, whatever the pid file says.
bool Supervisor::FlushCache(std::uint32_t vpnId)
{
    const auto found = vpns_.find(vpnId);
    if (found == vpns_.end()) {
        return false;
    }
    std::optional<WatchedVpn::Instance> &instance = found->second.instance;
    if (!instance) {
        WatchInstance(vpnId);
    }
    if (!instance || instance->process.EndsWithin(std::chrono::milliseconds(0))) {
        return false;
    }
    instance->process.Signal(SIGHUP);
    return true;
}

bool Supervisor::IsLaunchMarked(std::uint32_t vpnId) const
{
    return ::access(instances_.StatePath(vpnId, kLaunchMark).c_str(), F_OK) == 0;
}

// The module keeps an instance whose rule it could not remove: queries may still be steered to it. It also keeps one
// whose rule or pid file was gone before.
void Supervisor::SwitchedOff(std::uint32_t vpnId)
{
    try {
        const std::optional<WatchedVpn::Instance> &instance = Of(vpnId).instance;
        const bool isAlive = instance ? !instance->process.EndsWithin(std::chrono::milliseconds(0))
                                      : instances_.WithProcesses().contains(vpnId);
        if ((isAlive || instances_.ReadPidFile(vpnId).exists) && !IsRuleInstalled(host_, vpnId)) {
            repairs_.EndProcesses(vpnId);
            instances_.RemovePidFile(vpnId);
        }
    } catch (const std::system_error &failure) {
        Log(LogLevel::kError, "vpn %u: %s", vpnId, failure.what());
    }
}

void Supervisor::WatchInstance(std::uint32_t vpnId)
{
    WatchedVpn &vpn = Of(vpnId);
    vpn.instance.reset();
    if (!instances_.IsRunning(vpnId)) {
        return;
    }
    try {
        if (auto process = ProcessHandle::Open(instances_.TakePidFile(vpnId).pid)) {
            host_.ownQuestions.SetProcess(vpnId, process->Pid(), InspectProcess(process->Pid()).startTime);
            vpn.instance.emplace(WatchedVpn::Instance{*std::move(process), Clock::now(), {}});
            vpn.instance->source = loop_.AddIo(vpn.instance->process.Fd(), EPOLLIN,
                                               [this, vpnId](std::uint32_t /*events*/) { InstanceEnded(vpnId); });
            vpn.udpUnanswered = vpn.tcpUnanswered = 0;
        }
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its instance is not watched: %s", vpnId, failure.what());
    }
}

void Supervisor::InstanceEnded(std::uint32_t vpnId)
{
    WatchedVpn &vpn = Of(vpnId);
    const std::string why = reaper_.EndOf(vpn.instance->process.Pid()).value_or("it ended");
    if (Clock::now() - vpn.instance->since >= kLongRun) {
        vpn.failures = 0;
    }
    vpn.instance.reset();
    if (IsIdle(vpnId) && vpn.wanted->enables) {
        NoteEnd(vpnId, why);
        PlanStart(vpnId);
    }
}

void Supervisor::NoteEnd(std::uint32_t vpnId, const std::string &why)
{
    WatchedVpn &vpn = Of(vpnId);
    vpn.ends = {vpn.ends.count + 1, std::time(nullptr), why};
    Log(LogLevel::kWarning, "vpn %u: its instance does not run: %s", vpnId, why.c_str());
}

void Supervisor::PlanStart(std::uint32_t vpnId, std::chrono::seconds leastDelay)
{
    WatchedVpn &vpn = Of(vpnId);
    if (!host_.config.watch.repair) {
        return;
    }
    const std::chrono::seconds delay = std::max(StartDelay(vpn.failures++), leastDelay);
    vpn.startAt = Clock::now() + delay;
    vpn.startTime = std::time(nullptr) + delay.count();
    if (delay.count() > 0) {
        Log(LogLevel::kNotice, "vpn %u: its instance is started again in %lld s", vpnId,
            static_cast<long long>(delay.count()));
    }
    AddToAgenda(vpnId, *vpn.startAt);
}

void Supervisor::StartInstance(std::uint32_t vpnId)
{
    WatchedVpn &vpn = Of(vpnId);
    vpn.startAt.reset();
    vpn.startTime.reset();
    RefreshNamespace(vpnId);
    if (vpn.missing.isNamespace) {
        ScheduleLook(vpnId, Clock::now()); // started when it appears
        return;
    }
    PrepareVpn(vpnId);
    vpn.instance.reset();
    Log(LogLevel::kNotice, "vpn %u: starting its instance", vpnId);
    const RepairOutcome outcome = repairs_.Restart(vpnId);
    vpn.problem = outcome.problem.value_or("");
    SaveFacts(vpnId, !outcome.problem);
    launches_.Add(vpnId, onStarted_ ? kStartTimeoutOfMany : kStartTimeout, [](LaunchOutcome /*outcome*/) {});
}

// Also of launches by messages.
void Supervisor::LaunchEnded(std::uint32_t vpnId, LaunchOutcome outcome)
{
    const auto found = vpns_.find(vpnId);
    if (isStopped_ || outcome == LaunchOutcome::kCancelled) {
        return; // its mark stays: the next agent cannot know how it ended
    }
    const bool isAdoption = found == vpns_.end() || !found->second.wanted;
    if (!isAdoption) {
        RemoveMark(vpnId);
        JudgeLaunch(vpnId, outcome == LaunchOutcome::kRunning);
    }
    EndAwaited(vpnId);
    if (found != vpns_.end() && !found->second.isBack) {
        LaunchEndedInStart(vpnId);
    }
    if (onFree_ && !IsBusy(vpnId)) {
        onFree_(vpnId);
    }
}

void Supervisor::RemoveMark(std::uint32_t vpnId) const
{
    ::unlink(instances_.StatePath(vpnId, kLaunchMark).c_str());
}

void Supervisor::JudgeLaunch(std::uint32_t vpnId, bool isRunning)
{
    WatchedVpn &vpn = Of(vpnId);
    const std::string repairing = std::exchange(vpn.repairing, "");
    const std::chrono::seconds interval(host_.config.watch.lookSeconds);
    ScheduleLook(vpnId, Clock::now() + (isRunning ? kCheckAfterStart : interval));
    if (isRunning) {
        WatchInstance(vpnId);
        if (!repairing.empty()) {
            NoteRepair(vpnId, repairing);
        }
        return;
    }
    const std::string reason = host_.launchOutputs.Reason(vpnId);
    ++vpn.failedLaunches;
    vpn.failures = std::max(vpn.failures, 1U); // a start that has just failed is not repeated at once
    NoteEnd(vpnId, "did not start: " + (!reason.empty()        ? reason
                                        : !vpn.problem.empty() ? vpn.problem
                                                               : std::string("nothing tells why")));
    const bool isSlow = reason.empty() && instances_.WithProcesses().contains(vpnId);
    PlanStart(vpnId, isSlow ? kSlowStart : std::chrono::seconds(0));
}

bool Supervisor::IsStopped(std::uint32_t vpnId) const
{
    const auto found = vpns_.find(vpnId);
    return found != vpns_.end() && found->second.isStopped;
}

} // namespace kavel::agent
