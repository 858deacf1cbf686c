#include "socket/status_query.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <system_error>
#include <utility>

#include "instances/diagnosis.h"
#include "log.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kAnswerTimeout{500};

// VPNs that are read before other events are dispatched: a few milliseconds of work.
constexpr std::size_t kPerIteration = 16;

std::set<std::uint32_t> BusyOf(const Supervisor &supervisor, const std::vector<std::uint32_t> &vpnIds)
{
    std::set<std::uint32_t> busy;
    std::ranges::copy_if(vpnIds, std::inserter(busy, busy.end()),
                         [&](std::uint32_t vpnId) { return supervisor.IsBusy(vpnId); });
    return busy;
}

} // namespace

StatusQuery::StatusQuery(EventLoop &loop, Host &host, const Instances &instances, const Supervisor &supervisor,
                         StatusScope scope, OnEnd onEnd)
    : host_(host), instances_(instances), supervisor_(supervisor), scope_(std::move(scope)), onEnd_(std::move(onEnd)),
      wasStarting_(BusyOf(supervisor, scope_.vpnIds)), reading_(loop.AddDeferred([this] { ReadSome(); })),
      probe_(loop, host, DnsTarget::Instances(scope_.vpnIds), kAnswerTimeout,
             [this](const DnsAnswers &answering) { BeginReading(answering); })
{
}

void StatusQuery::BeginReading(const DnsAnswers &answering)
{
    for (const auto &[position, after] : answering) {
        answering_.insert(scope_.vpnIds[position]);
    }
    stored_ = ReadStoredRecords(host_, scope_.vpnIds);
    statuses_.reserve(scope_.vpnIds.size());
    reading_.Enable();
}

void StatusQuery::ReadSome()
{
    host_.namespaces.BeginRequest();
    for (std::size_t count = 0; count < kPerIteration && statuses_.size() < scope_.vpnIds.size(); ++count) {
        statuses_.push_back(Read(scope_.vpnIds[statuses_.size()]));
    }
    if (statuses_.size() < scope_.vpnIds.size()) {
        reading_.Enable();
    } else {
        End();
    }
}

// An instance that was starting when it was asked could not answer, even if it runs by now.
VpnStatus StatusQuery::Read(std::uint32_t vpnId)
{
    const bool isStarting = wasStarting_.contains(vpnId) || supervisor_.IsBusy(vpnId);
    const KnownState known{isStarting, answering_.contains(vpnId), supervisor_.IsStopped(vpnId)};
    VpnStatus status = StatusOfVpn(host_, instances_, vpnId, known, stored_);
    supervisor_.Describe(status);
    std::ranges::move(FindFaults(host_, instances_, status), std::back_inserter(status.problems));
    PutInOrder(status.problems);
    status.lastNumbered = LastNumbered(vpnId);
    return status;
}

// A store that could not be read a moment ago is not tried again for each VPN.
std::optional<SentHistoryEntry> StatusQuery::LastNumbered(std::uint32_t vpnId)
{
    const NumberedMessage *last = host_.numbered.Known(vpnId);
    if (stored_.isKnown) {
        try {
            last = host_.numbered.Last(vpnId);
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "vpn %u: its history cannot be read: %s", vpnId, failure.what());
        }
    }
    return last != nullptr ? std::optional(SentHistoryEntry{vpnId, last->entry, host_.config.platform, last->isUndone})
                           : std::nullopt;
}

void StatusQuery::AddBoxFaults(std::vector<Finding> &problems)
{
    if (stored_.problem) {
        problems.push_back({Fault::kStoreUnreadable, *stored_.problem, ""});
    }
    std::ranges::move(FindFaultsOfBox(host_), std::back_inserter(problems));
    PutInOrder(problems);
}

void StatusQuery::End()
{
    if (!statuses_.empty()) {
        AddBoxFaults(statuses_.front().problems); // they concern all VPNs: once is enough
    }
    if (scope_.isAll) {
        if (host_.config.platform == Platform::kCpe) {
            std::erase_if(statuses_, IsIdleBox);
        }
        std::ranges::move(StatusOfStrays(host_.config, instances_), std::back_inserter(statuses_));
    }
    onEnd_(std::move(statuses_));
}

} // namespace kavel::agent
