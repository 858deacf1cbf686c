#include "instances/pending_launches.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "base/instance_process.h"
#include "instances/start_files.h"
#include "log.h"

namespace kavel::agent {
namespace {

// A launch without news is checked after this time, in case it has failed.
constexpr std::chrono::milliseconds kQuietTime{50};

// Reading all processes takes at most one part in so many of the time: the processor is needed by the instances.
constexpr int kCheckShare = 10;

LaunchOutcome OutcomeOf(bool isRunning)
{
    return isRunning ? LaunchOutcome::kRunning : LaunchOutcome::kFailed;
}

} // namespace

PendingLaunches::PendingLaunches(EventLoop &loop, const Instances &instances, LaunchOutputs &outputs)
    : instances_(instances), outputs_(outputs),
      pidFiles_(loop.AddInotify(instances.PidDirectory(), IN_CLOSE_WRITE | IN_MOVED_TO,
                                [this](const inotify_event &event) { ProcessEvents(event); })),
      timer_(loop.AddTimer([this] { CheckQuiet(); }))
{
}

// A running instance whose pid file cannot be taken runs all the same.
bool PendingLaunches::IsRunning(std::uint32_t vpnId)
{
    if (!instances_.IsRunning(vpnId)) {
        return false;
    }
    try {
        (void)instances_.TakePidFile(vpnId);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its pid file stays writable for dnsmasq: %s", vpnId, failure.what());
    }
    outputs_.End(vpnId);
    return true;
}

void PendingLaunches::Report(std::uint32_t vpnId, LaunchOutcome outcome)
{
    if (observer_) {
        observer_(vpnId, outcome);
    }
}

void PendingLaunches::Add(std::uint32_t vpnId, std::chrono::milliseconds timeout, OnEnd onEnd)
{
    RememberStartFiles(instances_, vpnId);
    if (IsRunning(vpnId)) {
        onEnd(LaunchOutcome::kRunning);
        Report(vpnId, LaunchOutcome::kRunning);
        return;
    }
    const auto now = Clock::now();
    if (launches_.empty()) {
        timer_.ArmTimer(now + kQuietTime);
    }
    launches_.insert_or_assign(vpnId, Launch{now, now + timeout, true, std::move(onEnd)});
}

// An event that was lost (IN_Q_OVERFLOW) has no name: the timer finds that pid file.
void PendingLaunches::ProcessEvents(const inotify_event &event)
{
    const auto vpnId = VpnOfPidFile(event.len > 0 ? event.name : "");
    if (vpnId && IsPending(*vpnId) && IsRunning(*vpnId)) {
        End(*vpnId, LaunchOutcome::kRunning);
    }
}

void PendingLaunches::CheckQuiet()
{
    const auto now = Clock::now();
    for (const std::uint32_t vpnId : EndedQuietLaunches(now)) {
        End(vpnId, OutcomeOf(IsRunning(vpnId)));
    }
    if (!launches_.empty()) {
        timer_.ArmTimer(Clock::now() + std::max<Clock::duration>(kQuietTime, kCheckShare * (Clock::now() - now)));
    }
}

std::vector<std::uint32_t> PendingLaunches::EndedQuietLaunches(Clock::time_point now)
{
    const auto isQuiet = [now](const auto &each) { return now - each.second.since >= kQuietTime; };
    std::vector<std::uint32_t> ended;
    if (std::ranges::none_of(launches_, isQuiet)) {
        return ended;
    }
    const std::set<std::uint32_t> withProcesses = instances_.WithProcesses();
    for (auto &each : launches_) {
        auto &[vpnId, launch] = each;
        if (!isQuiet(each)) {
            continue;
        }
        // Two checks in a row: a process that executes another program has no command line for a moment.
        const bool hadProcess = std::exchange(launch.hadProcess, withProcesses.contains(vpnId));
        const bool isGone = !hadProcess && !launch.hadProcess;
        if (isGone || outputs_.HasFailed(vpnId) || now >= launch.deadline || instances_.IsRunning(vpnId)) {
            ended.push_back(vpnId);
        }
    }
    return ended;
}

// The launch is removed first: `onEnd` may begin the next one of this VPN.
void PendingLaunches::End(std::uint32_t vpnId, LaunchOutcome outcome)
{
    auto launch = launches_.extract(vpnId);
    if (!launch.empty()) {
        launch.mapped().onEnd(outcome);
        Report(vpnId, outcome);
    }
}

void PendingLaunches::CancelAll()
{
    while (!launches_.empty()) {
        End(launches_.begin()->first, LaunchOutcome::kCancelled);
    }
}

} // namespace kavel::agent
