// Messages that are undone unless they are confirmed. What was in force before is kept in a file, like what is in
// force: both are gone after a restart of the box, where the stored row counts. The row is therefore left as it was
// before until the message is confirmed.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "failure.h"
#include "log.h"
#include "supervision/content.h"
#include "supervision/supervisor.h"

namespace kavel::agent {
namespace {

using std::chrono::nanoseconds;

constexpr std::chrono::milliseconds kBusyUndoDelay{100};
constexpr std::chrono::seconds kUndoRetry{10};

// Time since the box has started: it does not follow changes of the date.
nanoseconds BootTime()
{
    timespec now{};
    if (::clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        ThrowLastErrno("clock");
    }
    return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

nanoseconds TimeLeft(const AwaitedConfirmation &awaited)
{
    return nanoseconds(awaited.deadline) - BootTime();
}

} // namespace

std::optional<AwaitedConfirmation> Supervisor::Confirmation(std::uint32_t vpnId) const
{
    const InForce *inForce = InForceOf(vpnId);
    return inForce != nullptr ? inForce->confirmation : std::nullopt;
}

void Supervisor::KeepBefore(std::uint32_t vpnId)
{
    if (Confirmation(vpnId)) {
        return;
    }
    if (Of(vpnId).wanted) {
        (void)inForce_.ReadContent(vpnId); // an older agent has kept none
    }
    inForce_.KeepBefore(vpnId);
}

std::optional<BeforeUnconfirmed> Supervisor::Before(std::uint32_t vpnId) const
{
    return inForce_.ReadBefore(vpnId);
}

void Supervisor::ForgetBefore(std::uint32_t vpnId) const
{
    try {
        inForce_.ForgetBefore(vpnId);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kDebug, "vpn %u: %s", vpnId, failure.what());
    }
}

void Supervisor::BeginConfirmation(std::uint32_t vpnId, std::optional<std::uint32_t> seconds)
{
    if (!seconds) {
        return;
    }
    const nanoseconds deadline = BootTime() + std::chrono::seconds(*seconds);
    Of(vpnId).wanted->confirmation = AwaitedConfirmation{deadline.count(), *seconds};
    ScheduleUndo(vpnId, Clock::now() + std::chrono::seconds(*seconds));
    Log(LogLevel::kNotice, "vpn %u: to be confirmed within %u s", vpnId, *seconds);
}

// Of a message that an earlier agent has applied.
void Supervisor::ResumeConfirmation(std::uint32_t vpnId)
{
    if (const auto awaited = Confirmation(vpnId)) {
        ScheduleUndo(vpnId, Clock::now() + TimeLeft(*awaited));
    } else {
        ForgetBefore(vpnId);
    }
}

void Supervisor::ScheduleUndo(std::uint32_t vpnId, Clock::time_point when)
{
    if (!isStopped_) {
        undos_[vpnId] = when;
        ArmUndoTimer();
    }
}

void Supervisor::ArmUndoTimer()
{
    const auto next = std::ranges::min_element(undos_, {}, [](const auto &each) { return each.second; });
    if (next != undos_.end()) {
        undoTimer_.ArmTimer(next->second);
    }
}

void Supervisor::RunUndos()
{
    const auto now = Clock::now();
    std::vector<std::uint32_t> due;
    for (const auto &[vpnId, when] : undos_) {
        if (when <= now) {
            due.push_back(vpnId);
        }
    }
    for (const std::uint32_t vpnId : due) {
        undos_.erase(vpnId);
        const auto awaited = Confirmation(vpnId);
        if (!awaited) {
            continue;
        }
        if (const nanoseconds left = TimeLeft(*awaited); left.count() > 0) {
            ScheduleUndo(vpnId, now + left);
            continue;
        }
        // Before the undo begins: it ends the wait if it succeeds.
        ScheduleUndo(vpnId, now + kUndoRetry);
        if (IsBusy(vpnId) || !onUnconfirmed_ || !onUnconfirmed_(vpnId)) {
            ScheduleUndo(vpnId, now + kBusyUndoDelay);
        }
    }
    ArmUndoTimer();
}

void Supervisor::StoreConfirmed(std::uint32_t vpnId)
{
    const bool isCpe = host_.config.platform == Platform::kCpe;
    const auto table = isCpe ? VQ_SQL_CONF_CPE_DNSMASQ : VQ_SQL_CONF_POP_DNSMASQ;
    if (Of(vpnId).wanted->isStored) {
        host_.store.Put(vpnId, StoredTextOf(host_, module_, vpnId, inForce_.ReadContent(vpnId)), table);
    } else if (host_.store.Has(vpnId)) {
        host_.store.Remove(vpnId, table);
    }
}

std::optional<std::string> Supervisor::Confirm(std::uint32_t vpnId)
{
    InForce confirmed = *Of(vpnId).wanted;
    confirmed.confirmation.reset();
    inForce_.Write(vpnId, confirmed);
    Of(vpnId).wanted = std::move(confirmed);
    undos_.erase(vpnId);
    ForgetBefore(vpnId);
    Log(LogLevel::kNotice, "vpn %u: confirmed", vpnId);
    if (!host_.config.persistence) {
        return std::nullopt;
    }
    try {
        StoreConfirmed(vpnId);
        return std::nullopt;
    } catch (const std::runtime_error &failure) {
        return "what was stored before is still stored: " + std::string(failure.what());
    }
}

// The row is that of before: it is no problem that it differs.
void Supervisor::DescribeConfirmation(VpnStatus &status) const
{
    const auto awaited = Confirmation(status.fields.vpn);
    if (!awaited) {
        return;
    }
    const auto left = std::chrono::ceil<std::chrono::seconds>(TimeLeft(*awaited)).count();
    status.fields.has_undone_in_seconds = 1;
    status.fields.undone_in_seconds = static_cast<std::uint32_t>(std::max<std::int64_t>(left, 0));
    std::erase_if(status.problems, [](const Finding &finding) { return finding.fault == Fault::kRecordDiffers; });
}

} // namespace kavel::agent
