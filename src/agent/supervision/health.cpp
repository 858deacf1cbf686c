// Asks instances and their upstream servers whether they answer.
#include <arpa/inet.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "services/memory_malloc.h"
#include "supervision/supervisor.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::seconds kTick{1};
constexpr std::chrono::seconds kProbeTimeout{2};

// The upstream servers of a VPN by what its status calls them: "10.7.0.53", "203.0.113.53 through wan0".
std::map<std::string, DnsTarget> UpstreamsOf(const Instances &instances, std::uint32_t vpnId)
{
    const std::string directory = instances.Directory(vpnId);
    std::map<std::string, std::string> interfaces; // by address
    std::ifstream bound(directory + "/dnsmasq.d/ServerMap.conf");
    for (std::string line; std::getline(bound, line);) {
        constexpr std::string_view kServer = "server=";
        const std::size_t at = line.find('@');
        if (line.starts_with(kServer) && at != std::string::npos) {
            interfaces[line.substr(kServer.size(), at - kServer.size())] = line.substr(at + 1);
        }
    }
    std::map<std::string, DnsTarget> upstreams;
    std::ifstream resolver(directory + "/resolv.conf");
    for (std::string word; resolver >> word;) {
        in_addr address{};
        if (word == "nameserver" || ::inet_pton(AF_INET, word.c_str(), &address) != 1) {
            continue;
        }
        const std::string interface = interfaces.contains(word) ? interfaces[word] : "";
        std::string name = word;
        if (!interface.empty()) {
            name.append(" through ").append(interface);
        }
        upstreams[name] = {
            .vpnId = vpnId, .address = ntohl(address.s_addr), .interface = interface, .isInstance = false};
    }
    return upstreams;
}

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
                                       [this, here, onEnd](const std::set<std::size_t> &answering) {
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
             [this, asked, overTcp](const std::set<std::size_t> &answering) { ProbeEnded(asked, answering, overTcp); });
}

void Supervisor::ProbeEnded(const std::vector<std::uint32_t> &asked, const std::set<std::size_t> &answering,
                            bool overTcp)
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
        const auto upstreams = UpstreamsOf(instances_, vpnId);
        std::erase_if(vpn.upstreamUnanswered, [&](const auto &each) { return !upstreams.contains(each.first); });
        for (const auto &[name, target] : upstreams) {
            targets.push_back(target);
            names.push_back(name);
        }
    }
    RunProbe(targets, [this, targets, names](const std::set<std::size_t> &answering) {
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
