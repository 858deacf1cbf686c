#include "socket/why_query.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <set>
#include <string>
#include <system_error>
#include <utility>

#include "base/instance_process.h"
#include "base/port_owners.h"
#include "base/procfs.h"
#include "instances/dns_counters.h"
#include "log.h"

namespace kavel::agent {
namespace {

constexpr std::uint16_t kPort = 53;
constexpr std::chrono::milliseconds kServerTimeout{2000};
constexpr std::chrono::milliseconds kSlowAnswer{1000};
constexpr std::size_t kForwardServersMax = 64; // of a VPN that are asked
constexpr std::size_t kBatch = 16;             // VPNs that are looked at together

bool HasFault(const VpnStatus &status, Fault fault)
{
    return std::ranges::find(status.problems, fault, &Finding::fault) != status.problems.end();
}

bool HasFaultOf(const VpnStatus &status, Fault fault, const std::string &subject)
{
    return std::ranges::any_of(status.problems,
                               [&](const Finding &each) { return each.fault == fault && each.subject == subject; });
}

// An instance that is stopped answers nothing: the silence says nothing more.
void RemoveConsequences(VpnStatus &status)
{
    if (HasFault(status, Fault::kInstanceSuspended)) {
        std::erase_if(status.problems, [](const Finding &each) {
            return each.fault == Fault::kInstanceSilent || each.fault == Fault::kInstanceSilentTcp;
        });
    }
}

bool IsServed(const VpnStatus &status)
{
    return status.fields.meant != 0 && !HasFault(status, Fault::kNamespaceMissing);
}

bool IsAlive(const VpnStatus &status)
{
    return status.fields.alive != 0 && status.fields.is_dnsmasq != 0 && status.fields.starting == 0;
}

} // namespace

WhyQuery::WhyQuery(EventLoop &loop, Host &host, const Instances &instances, const Supervisor &supervisor,
                   StatusScope scope, OnEnd onEnd)
    : loop_(loop), host_(host), instances_(instances), onEnd_(std::move(onEnd)),
      next_(loop.AddDeferred([this] { BeginBatch(); }))
{
    status_.emplace(loop, host, instances, supervisor, std::move(scope), [this](std::vector<VpnStatus> statuses) {
        statuses_ = std::move(statuses);
        next_.Enable();
    });
}

void WhyQuery::BeginBatch()
{
    if (end_ == statuses_.size()) {
        onEnd_(std::move(statuses_));
        return;
    }
    begin_ = end_;
    end_ = std::min(begin_ + kBatch, statuses_.size());
    pending_ = 1;
    BeginProbe();
    for (std::size_t position = begin_; position < end_; ++position) {
        if (IsServed(statuses_[position])) {
            BeginDryStart(position);
        }
    }
}

void WhyQuery::AddTargets(std::size_t position, std::vector<DnsTarget> &targets)
{
    const VpnStatus &status = statuses_[position];
    const std::uint32_t vpnId = status.fields.vpn;
    if (IsAlive(status)) {
        asked_.push_back({position, std::nullopt});
        targets.push_back({.vpnId = vpnId, .overTcp = true, .counter = "servers", .isWhole = true});
    }
    std::vector<InstanceServer> servers = UpstreamsOf(instances_, vpnId);
    std::ranges::move(ForwardServersOf(instances_, vpnId, kForwardServersMax), std::back_inserter(servers));
    for (InstanceServer &server : servers) {
        targets.push_back(server.Target(vpnId));
        asked_.push_back({position, std::move(server)});
    }
}

void WhyQuery::BeginProbe()
{
    asked_.clear();
    std::vector<DnsTarget> targets;
    for (std::size_t position = begin_; position < end_; ++position) {
        if (IsServed(statuses_[position])) {
            AddTargets(position, targets);
        }
    }
    host_.namespaces.BeginRequest();
    probe_.emplace(loop_, host_, targets, kServerTimeout, [this](const DnsAnswers &answering) { EndProbe(answering); });
}

void WhyQuery::BeginDryStart(std::size_t position)
{
    const std::string configuration = instances_.Directory(statuses_[position].fields.vpn) + "/dnsmasq.conf";
    try {
        dryStarts_.push_back(std::make_unique<DryStart>(
            loop_, kDnsmasqProgram, configuration,
            [this, position](const std::optional<std::string> &reason) { EndDryStart(position, reason); }));
        ++pending_;
    } catch (const std::system_error &failure) {
        Log(LogLevel::kDebug, "dnsmasq cannot check the files: %s", failure.what());
    }
}

// What the last start has failed for is told already.
void WhyQuery::EndDryStart(std::size_t position, const std::optional<std::string> &reason)
{
    std::vector<Finding> &problems = statuses_[position].problems;
    const bool isKnown = reason && std::ranges::any_of(problems, [&](const Finding &each) {
                             return each.text.find(*reason) != std::string::npos;
                         });
    if (reason && !isKnown) {
        problems.push_back(
            {Fault::kFilesRejected, "dnsmasq would not start with the files as they are: " + *reason, ""});
    }
    EndPart();
}

void WhyQuery::EndProbe(const DnsAnswers &answering)
{
    for (std::size_t position = 0; position < asked_.size(); ++position) {
        const Asked &asked = asked_[position];
        const auto answer = answering.find(position);
        const auto after = answer == answering.end() ? std::nullopt : std::optional(answer->second);
        VpnStatus &status = statuses_[asked.position];
        if (asked.server) {
            JudgeServer(asked, after);
        } else if (after) {
            CompareServers(status, probe_->AnswerOf(position));
        } else {
            status.problems.push_back(
                {Fault::kInstanceSilentTcp, "does not answer on port 53 over TCP", std::to_string(status.fields.pid)});
        }
    }
    EndPart();
}

// The other servers that it uses are those of forwards, and of files of the operator's own.
void WhyQuery::CompareServers(VpnStatus &status, const DnsProbe::Reply &reply) const
{
    std::set<std::string> used;
    const auto texts = TxtStrings(reply.message);
    for (const std::string &text : texts.value_or(std::vector<std::string>())) {
        if (const auto upstream = ReadUpstream(text)) {
            used.insert(upstream->server.substr(0, upstream->server.find('#')));
        }
    }
    if (!texts || HasFault(status, Fault::kRestartPending)) {
        return;
    }
    for (const InstanceServer &server : UpstreamsOf(instances_, status.fields.vpn)) {
        if (!used.contains(server.address) && !HasFaultOf(status, Fault::kServerLoop, server.address)) {
            status.problems.push_back(
                {Fault::kServersDiffer,
                 "the instance does not use upstream " + server.address + ", which is in its resolv.conf",
                 server.address});
        }
    }
}

void WhyQuery::JudgeServer(const Asked &asked, std::optional<std::chrono::milliseconds> after)
{
    VpnStatus &status = statuses_[asked.position];
    const InstanceServer &server = *asked.server;
    const bool isExplained = HasFaultOf(status, Fault::kServerLoop, server.address) ||
                             HasFaultOf(status, Fault::kBoundInterfaceMissing, server.interface);
    const std::string subject = server.IsForward()
                                    ? "the server of the forward of " + server.domain + ", " + server.address + ","
                                    : "upstream " + server.Name();
    if (!after && !isExplained) {
        status.problems.push_back({server.IsForward() ? Fault::kForwardSilent : Fault::kUpstreamSilent,
                                   subject + " does not answer", server.address});
    } else if (after && *after >= kSlowAnswer) {
        status.problems.push_back({server.IsForward() ? Fault::kForwardSlow : Fault::kUpstreamSlow,
                                   subject + " took " + std::to_string(after->count()) + " ms to answer",
                                   server.address});
    }
}

void WhyQuery::EndPart()
{
    if (--pending_ == 0) {
        EndBatch();
    }
}

// Sockets of others matter when the instance does not answer, or does not run.
void WhyQuery::AddPortOwners(VpnStatus &status) const
{
    const std::uint32_t vpnId = status.fields.vpn;
    const bool isRight = IsAlive(status) && !HasFault(status, Fault::kInstanceSilent) &&
                         !HasFault(status, Fault::kInstanceSilentTcp) && !HasFault(status, Fault::kRestartPending);
    if (isRight || !IsServed(status)) {
        return;
    }
    for (const PortOwner &owner : OwnersOfPort(host_.namespaces, vpnId, kPort)) {
        const Process process = InspectProcess(owner.pid);
        if (VpnOfProcess(process, instances_.Identity()) != vpnId) {
            const std::string pid = std::to_string(owner.pid);
            status.problems.push_back(
                {Fault::kPortTaken,
                 "process " + pid + " (" + process.name + ") has port 53 over " + (owner.overTcp ? "TCP" : "UDP"),
                 pid});
        }
    }
}

void WhyQuery::EndBatch()
{
    for (std::size_t position = begin_; position < end_; ++position) {
        VpnStatus &status = statuses_[position];
        try {
            AddPortOwners(status);
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "vpn %u: the owners of port 53 are not known: %s", status.fields.vpn, failure.what());
        }
        RemoveConsequences(status);
        PutInOrder(status.problems);
    }
    next_.Enable();
}

} // namespace kavel::agent
