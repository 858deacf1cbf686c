#include "socket/status_query.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kAnswerTimeout{500};

// VPNs that are read before other events are dispatched: a few milliseconds of work.
constexpr std::size_t kPerIteration = 16;

std::set<std::uint32_t> PendingOf(const PendingLaunches &launches, const std::vector<std::uint32_t> &vpnIds)
{
    std::set<std::uint32_t> pending;
    std::ranges::copy_if(vpnIds, std::inserter(pending, pending.end()),
                         [&](std::uint32_t vpnId) { return launches.IsPending(vpnId); });
    return pending;
}

} // namespace

StatusQuery::StatusQuery(EventLoop &loop, Host &host, const Instances &instances, const PendingLaunches &launches,
                         StatusScope scope, OnEnd onEnd)
    : host_(host), instances_(instances), launches_(launches), scope_(std::move(scope)), onEnd_(std::move(onEnd)),
      wasStarting_(PendingOf(launches, scope_.vpnIds)), reading_(loop.AddDeferred([this] { ReadSome(); })),
      probe_(loop, host.namespaces, scope_.vpnIds, kAnswerTimeout,
             [this](const std::set<std::uint32_t> &answering) { BeginReading(answering); })
{
}

void StatusQuery::BeginReading(const std::set<std::uint32_t> &answering)
{
    answering_ = answering;
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
    const bool isStarting = wasStarting_.contains(vpnId) || launches_.IsPending(vpnId);
    return StatusOfVpn(host_, instances_, vpnId, {isStarting, answering_.contains(vpnId)}, stored_);
}

void StatusQuery::End()
{
    if (stored_.problem && !statuses_.empty()) {
        statuses_.front().problems.push_back(*stored_.problem); // it concerns all of them: once is enough
    }
    if (scope_.isAll) {
        std::ranges::move(StatusOfStrays(host_.config, instances_), std::back_inserter(statuses_));
    }
    onEnd_(std::move(statuses_));
}

} // namespace kavel::agent
