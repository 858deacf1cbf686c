#include "instances/status.h"

#include <fstream>
#include <system_error>
#include <utility>

#include "base/instance_process.h"
#include "base/netns.h"
#include "base/procfs.h"
#include "log.h"
#include "services/routes_netlink.h"
#include "services/rules_nftables.h"

namespace kavel::agent {
namespace {

std::uint32_t CountLines(const std::string &path)
{
    std::uint32_t count = 0;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        count += line.empty() ? 0U : 1U;
    }
    return count;
}

VpnStatus NewStatus(const Instances &instances, std::uint32_t vpnId)
{
    VpnStatus status;
    status.fields.vpn = vpnId;
    status.netns = "-";
    const std::string directory = instances.Directory(vpnId);
    status.fields.hosts = CountLines(directory + "/hosts");
    status.fields.mx_hosts = CountLines(directory + "/dnsmasq.d/Mxhost.conf");
    status.fields.servers = CountLines(directory + "/resolv.conf");
    status.fields.forwards = CountLines(directory + "/dnsmasq.d/DnsProxy.conf");
    return status;
}

protobuf_c_boolean Boolean(bool value)
{
    return value ? 1 : 0;
}

// An optional field that is known.
void SetKnown(protobuf_c_boolean &has, protobuf_c_boolean &field, bool value)
{
    has = 1;
    field = Boolean(value);
}

void AddProblem(VpnStatus &status, std::optional<Finding> problem)
{
    if (problem) {
        status.problems.push_back(*std::move(problem));
    }
}

void SetProcess(Kavel__VpnStatus &status, const PidFile &file, const Process &process, const InstanceIdentity &identity)
{
    status.pid_file = Boolean(file.exists);
    status.pid = file.pid;
    status.alive = Boolean(process.alive);
    status.is_dnsmasq = Boolean(IsInstanceOf(process, status.vpn, identity));
    status.uptime_seconds = process.uptimeSeconds;
    status.memory_bytes = process.memoryBytes;
}

void SetInstance(const Host &host, const Instances &instances, VpnStatus &status)
{
    Kavel__VpnStatus &fields = status.fields;
    const PidFile file = instances.ReadPidFile(fields.vpn);
    const Process process = InspectProcess(file.pid);
    SetProcess(fields, file, process, instances.Identity());
    const auto netns = host.namespaces.IdOf(fields.vpn);
    fields.in_namespace = Boolean(process.alive && netns && NamespaceOfProcess(file.pid) == netns);
    AddProblem(status, ProcessProblem(fields, {file.isEmpty, IsDnsmasq(process, instances.Identity())}));
}

void SetRoutes(Host &host, VpnStatus &status)
{
    try {
        status.fields.routes = CountRoutes(host, status.fields.vpn, kDnsRouteTable);
    } catch (const std::system_error &failure) {
        AddProblem(status,
                   Finding{Fault::kKernelUnreadable, "its routes cannot be read: " + failure.code().message(), ""});
    }
}

void SetRules(Host &host, VpnStatus &status)
{
    Kavel__VpnStatus &fields = status.fields;
    try {
        const InstalledRules rules = FindInstalledRules(host, fields.vpn);
        fields.has_redirected = Boolean(rules.redirected.has_value());
        fields.redirected = rules.redirected.value_or(0);
        SetKnown(fields.has_rule, fields.rule, rules.dns);
        AddProblem(status, RuleProblem(fields, rules.dns, false));
        if (fields.vpn == 0 && host.config.platform == Platform::kPop) {
            SetKnown(fields.has_dnat, fields.dnat, rules.dnat);
            AddProblem(status, RuleProblem(fields, rules.dnat, true));
        }
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its rules cannot be read: %s", fields.vpn, failure.what());
        AddProblem(status, Finding{Fault::kKernelUnreadable, "its rules cannot be read", ""});
    }
}

void SetStored(VpnStatus &status, const StoredRecords &stored)
{
    if (!stored.isKnown) {
        return;
    }
    Kavel__VpnStatus &fields = status.fields;
    const auto found = stored.records.find(fields.vpn);
    SetKnown(fields.has_stored, fields.stored, found != stored.records.end());
    if (found == stored.records.end()) {
        return;
    }
    const StoredRecord &record = found->second;
    if (!record.problem) {
        SetKnown(fields.has_stored_enable, fields.stored_enable, record.enable);
    }
    AddProblem(status, StoredProblem(fields, record));
}

VpnStatus StatusOfStray(const Instances &instances, std::uint32_t vpnId)
{
    VpnStatus status = NewStatus(instances, vpnId);
    const PidFile file = instances.ReadPidFile(vpnId);
    SetProcess(status.fields, file, InspectProcess(file.pid), instances.Identity());
    AddProblem(status, Finding{Fault::kInstanceUnwanted, "an instance runs, but the VPN is not configured",
                               std::to_string(file.pid)});
    return status;
}

} // namespace

std::optional<Finding> ProcessProblem(const Kavel__VpnStatus &status, PidFileTraits traits)
{
    if (status.starting != 0) {
        return std::nullopt; // the pid file is not written yet, or is that of the instance that was ended
    }
    const std::string pid = std::to_string(status.pid);
    const std::string process = "process " + pid;
    if (status.pid_file == 0) {
        return status.meant != 0 ? std::optional(Finding{Fault::kInstanceMissing,
                                                         "no instance runs: it did not start, or was ended from "
                                                         "outside",
                                                         ""})
                                 : std::nullopt;
    }
    if (traits.isEmptyPidFile || status.pid <= 0) {
        return Finding{Fault::kPidFileWrong, "pid file names no process", ""};
    }
    if (status.alive == 0) {
        return Finding{Fault::kInstanceMissing, process + " is gone", ""};
    }
    if (status.is_dnsmasq == 0) {
        const char *other = traits.isOtherDnsmasq ? ", which is another dnsmasq" : ", which is not dnsmasq";
        return Finding{Fault::kPidFileWrong, "pid file names " + process + other, pid};
    }
    if (status.in_namespace == 0) {
        return Finding{Fault::kInstanceMisplaced, "runs in another network namespace", pid};
    }
    return status.meant != 0
               ? std::nullopt
               : std::optional(Finding{Fault::kInstanceUnwanted, "runs although it is switched off", pid});
}

// The box may have a resolver of its own, so an answer in VPN 0 is not a problem.
std::optional<Finding> AnswerProblem(const Kavel__VpnStatus &status)
{
    if (status.starting != 0) {
        return std::nullopt;
    }
    if (status.alive != 0 && status.answers == 0) {
        return Finding{Fault::kInstanceSilent, "does not answer on port 53", std::to_string(status.pid)};
    }
    if (status.meant == 0 && status.alive == 0 && status.answers != 0 && status.vpn != 0) {
        return Finding{Fault::kPortTaken, "something answers on port 53 although no instance is meant to run", ""};
    }
    return std::nullopt;
}

std::optional<Finding> RuleProblem(const Kavel__VpnStatus &status, bool isInstalled, bool isDnat)
{
    if ((status.meant != 0) == isInstalled) {
        return std::nullopt;
    }
    const std::string rule = isDnat ? "the DNAT rule" : "the steering rule";
    if (isInstalled) {
        return Finding{isDnat ? Fault::kDnatUnwanted : Fault::kSteeringUnwanted,
                       rule + " is installed although the service is switched off", ""};
    }
    return Finding{isDnat ? Fault::kDnatMissing : Fault::kSteeringMissing, rule + " is missing", ""};
}

std::optional<Finding> StoredProblem(const Kavel__VpnStatus &status, const StoredRecord &record)
{
    if (record.problem) {
        return Finding{Fault::kRecordUnreadable, "its stored record cannot be read: " + *record.problem, ""};
    }
    const bool isStopped = record.enable && status.stopped != 0; // on purpose
    if (record.enable == (status.meant != 0) || isStopped) {
        return std::nullopt;
    }
    return Finding{
        Fault::kRecordDiffers,
        record.enable ? "stored as switched on, but not meant to run" : "stored as switched off, but meant to run", ""};
}

StoredRecords ReadStoredRecords(Host &host, const std::vector<std::uint32_t> &vpnIds)
{
    StoredRecords stored;
    if (!host.config.persistence) {
        return stored;
    }
    try {
        if (vpnIds.size() == 1) {
            if (auto record = host.store.Read(vpnIds.front())) {
                stored.records.emplace(vpnIds.front(), *std::move(record));
            }
        } else {
            for (StoredRecord &record : host.store.Read()) {
                const std::uint32_t vpnId = record.vpn;
                stored.records.emplace(vpnId, std::move(record));
            }
        }
        stored.isKnown = true;
    } catch (const std::system_error &failure) {
        stored.problem = std::string("the store cannot be read: ") + failure.what();
    }
    return stored;
}

VpnStatus StatusOfVpn(Host &host, const Instances &instances, std::uint32_t vpnId, KnownState known,
                      const StoredRecords &stored)
{
    VpnStatus status = NewStatus(instances, vpnId);
    Kavel__VpnStatus &fields = status.fields;
    fields.meant = Boolean(instances.IsMeantToRun(vpnId));
    fields.answers = Boolean(known.answers);
    if (known.starting) {
        SetKnown(fields.has_starting, fields.starting, true);
    }
    if (known.stopped) {
        SetKnown(fields.has_stopped, fields.stopped, true);
    }
    if (vpnId != 0) {
        status.netns = host.config.Find(vpnId)->netns;
    }
    SetStored(status, stored);
    SetInstance(host, instances, status);
    if (host.namespaces.IdOf(vpnId)) {
        SetRoutes(host, status);
        SetRules(host, status);
        AddProblem(status, AnswerProblem(fields));
    } else {
        AddProblem(status,
                   Finding{Fault::kNamespaceMissing, "namespace " + status.netns + " does not exist", status.netns});
    }
    return status;
}

bool IsIdleBox(const VpnStatus &status)
{
    const Kavel__VpnStatus &fields = status.fields;
    const bool hasInstance = fields.meant != 0 || fields.pid_file != 0 || fields.starting != 0 || fields.stopped != 0;
    const bool isPrepared = fields.stored != 0 || fields.rule != 0 || fields.routes != 0 || status.revision;
    return fields.vpn == 0 && !hasInstance && !isPrepared && status.problems.empty();
}

std::vector<VpnStatus> StatusOfStrays(const Config &config, const Instances &instances)
{
    std::vector<VpnStatus> strays;
    for (const std::uint32_t vpnId : instances.WithProcesses()) {
        if (!config.Serves(vpnId)) {
            strays.push_back(StatusOfStray(instances, vpnId));
        }
    }
    return strays;
}

} // namespace kavel::agent
