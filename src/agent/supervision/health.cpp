// Asks instances and their upstream servers whether they answer.
#include <chrono>
#include <set>
#include <string>
#include <utility>

#include "instances/instance_servers.h"
#include "log.h"
#include "services/memory_malloc.h"
#include "supervision/supervisor.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::seconds kTick{1};
constexpr std::chrono::seconds kProbeTimeout{2};

// When it is due again; the first time after a part of the interval, so that the VPNs take turns.
EventLoop::Clock::time_point NextTime(EventLoop::Clock::time_point last, std::uint32_t seconds, std::uint32_t vpnId)
{
    const auto now = EventLoop::Clock::now();
    const bool isFirst = last == EventLoop::Clock::time_point{};
    return now + std::chrono::seconds(isFirst ? 1 + vpnId % seconds : seconds);
}

// Whether `time` has come; sets the next one. A time that was never set is set alone.
bool IsDue(EventLoop::Clock::time_point &time, std::uint32_t seconds, std::uint32_t vpnId)
{
    const bool isSet = time != EventLoop::Clock::time_point{};
    if (isSet && EventLoop::Clock::now() < time) {
        return false;
    }
    time = NextTime(time, seconds, vpnId);
    return isSet;
}

} // namespace

void Supervisor::BeginTicks()
{
    for (auto &[vpnId, vpn] : vpns_) {
        if (vpn.wanted) {
            ScheduleLook(vpnId, Clock::now() + std::chrono::seconds(1 + vpnId % host_.config.watch.lookSeconds));
        }
    }
    nextRowCheck_ = Clock::now() + std::chrono::seconds(host_.config.watch.lookSeconds);
    tick_.ArmTimer(Clock::now() + kTick);
}

void Supervisor::Tick()
{
    tick_.ArmTimer(Clock::now() + kTick);
    WatchDirectories();
    ProbeInstances(false);
    ProbeInstances(true);
    ProbeUpstreams();
    if (Clock::now() >= nextRowCheck_) {
        nextRowCheck_ = Clock::now() + std::chrono::seconds(host_.config.watch.lookSeconds);
        if (host_.config.persistence && host_.config.watch.repair) {
            CheckRows();
        }
        ReturnFreeMemory();
    }
}

template <typename OnEnd>
void Supervisor::RunProbe(const std::vector<DnsTarget> &targets, OnEnd onEnd)
{
    if (targets.empty()) {
        return;
    }
    const auto here = probes_.emplace(probes_.end());
    *here = std::make_unique<DnsProbe>(loop_, host_, targets, kProbeTimeout,
                                       [this, here, onEnd](const DnsAnswers &answering) {
                                           const std::unique_ptr<DnsProbe> ended = std::move(*here);
                                           probes_.erase(here);
                                           onEnd(answering);
                                       });
}

void Supervisor::ProbeInstances(bool overTcp)
{
    const Watch &watch = host_.config.watch;
    std::vector<std::uint32_t> asked;
    for (auto &[vpnId, vpn] : vpns_) {
        auto &due = overTcp ? vpn.tcpAt : vpn.udpAt;
        if (vpn.instance && IsIdle(vpnId) && IsDue(due, overTcp ? watch.tcpSeconds : watch.udpSeconds, vpnId)) {
            asked.push_back(vpnId);
        }
    }
    RunProbe(DnsTarget::Instances(asked, overTcp),
             [this, asked, overTcp](const DnsAnswers &answering) { ProbeEnded(asked, answering, overTcp); });
}

void Supervisor::ProbeEnded(const std::vector<std::uint32_t> &asked, const DnsAnswers &answering, bool overTcp)
{
    for (std::size_t position = 0; position < asked.size(); ++position) {
        const std::uint32_t vpnId = asked[position];
        if (!IsIdle(vpnId) || !Of(vpnId).instance) {
            continue; // it was ended or started again meanwhile
        }
        WatchedVpn &vpn = Of(vpnId);
        unsigned &unanswered = overTcp ? vpn.tcpUnanswered : vpn.udpUnanswered;
        unanswered = answering.contains(position) ? 0 : unanswered + 1;
        if (unanswered == kUnansweredMax) {
            NoteEnd(vpnId,
                    "did not answer " + std::to_string(kUnansweredMax) + " queries over " + (overTcp ? "TCP" : "UDP"));
            if (host_.config.watch.repair) {
                StartInstance(vpnId);
            }
        }
    }
}

// An upstream server that does not answer is told, and nothing is restarted: that would not help.
void Supervisor::ProbeUpstreams()
{
    std::vector<DnsTarget> targets;
    std::vector<std::string> names;
    for (auto &[vpnId, vpn] : vpns_) {
        if (!vpn.instance || !IsIdle(vpnId) || !IsDue(vpn.upstreamAt, host_.config.watch.upstreamSeconds, vpnId)) {
            continue;
        }
        std::set<std::string> current;
        for (const InstanceServer &upstream : UpstreamsOf(instances_, vpnId)) {
            current.insert(upstream.Name());
            targets.push_back(upstream.Target(vpnId));
            names.push_back(upstream.Name());
        }
        std::erase_if(vpn.upstreamUnanswered, [&](const auto &each) { return !current.contains(each.first); });
    }
    RunProbe(targets, [this, targets, names](const DnsAnswers &answering) {
        for (std::size_t position = 0; position < targets.size(); ++position) {
            NoteUpstream(targets[position].vpnId, names[position], answering.contains(position));
        }
    });
}

void Supervisor::NoteUpstream(std::uint32_t vpnId, const std::string &name, bool hasAnswered)
{
    if (!IsIdle(vpnId)) {
        return;
    }
    unsigned &unanswered = Of(vpnId).upstreamUnanswered[name];
    if (hasAnswered && unanswered >= kUnansweredMax) {
        Log(LogLevel::kNotice, "vpn %u: upstream %s answers again", vpnId, name.c_str());
    }
    unanswered = hasAnswered ? 0 : unanswered + 1;
    if (unanswered == kUnansweredMax) {
        Log(LogLevel::kWarning, "vpn %u: upstream %s does not answer", vpnId, name.c_str());
    }
}

} // namespace kavel::agent
