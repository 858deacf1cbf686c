#include "instances/status.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <system_error>
#include <utility>

#include "base/config.h"
#include "base/netns.h"
#include "instances/dns_probe.h"
#include "instances/instances.h"
#include "services/routes_netlink.h"
#include "services/rules_nftables.h"
#include "services/store.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kAnswerPatience{500};

std::uint32_t CountLines(const std::string &path)
{
    std::uint32_t count = 0;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        count += line.empty() ? 0U : 1U;
    }
    return count;
}

void CountFiles(VpnStatus &status)
{
    const std::string directory = InstanceDirectory(status.vpn);
    status.hosts = CountLines(directory + "/hosts");
    status.mxHosts = CountLines(directory + "/dnsmasq.d/Mxhost.conf");
    status.servers = CountLines(directory + "/resolv.conf");
    status.forwards = CountLines(directory + "/dnsmasq.d/DnsProxy.conf");
}

std::string NameOfProcess(const VpnStatus &status)
{
    return "process " + std::to_string(status.pid);
}

std::string Stranger(const VpnStatus &status, const Process &process)
{
    const std::string text = "pid file names " + NameOfProcess(status);
    return IsDnsmasq(process) ? text + ", which is another dnsmasq" : text + ", which is not dnsmasq";
}

// What is wrong with the pid file or with the process in it; nothing is the empty text.
std::string ProcessProblem(const VpnStatus &status, const PidFile &file, const Process &process)
{
    if (!status.pidFile) {
        return status.meant ? "no instance runs: it did not start, or was ended from outside" : std::string{};
    }
    if (file.empty || status.pid <= 0) {
        return "pid file names no process";
    }
    if (!status.alive) {
        return NameOfProcess(status) + " is gone";
    }
    if (!status.isDnsmasq) {
        return Stranger(status, process);
    }
    if (!status.inNamespace) {
        return "runs in another network namespace";
    }
    return status.meant ? std::string{} : "runs although it is switched off";
}

// The box may have a resolver of its own: an answer there is no surprise.
std::string AnswerProblem(const VpnStatus &status)
{
    if (status.alive && !status.answers) {
        return "does not answer on port 53";
    }
    if (!status.meant && !status.alive && status.answers && status.vpn != 0) {
        return "something answers on port 53 although no instance is meant to run";
    }
    return {};
}

void AddProblem(VpnStatus &status, std::string problem)
{
    if (!problem.empty()) {
        status.problems.push_back(std::move(problem));
    }
}

void TakeProcess(VpnStatus &status, const PidFile &file, const Process &process)
{
    status.pidFile = file.exists;
    status.pid = file.pid;
    status.alive = process.alive;
    status.isDnsmasq = IsInstanceOf(process, status.vpn);
    status.uptimeSeconds = process.uptimeSeconds;
    status.memoryBytes = process.memoryBytes;
}

void TakeInstance(VpnStatus &status)
{
    const PidFile file = ReadPidFile(status.vpn);
    const Process process = InspectProcess(file.pid);
    TakeProcess(status, file, process);
    const auto netns = NamespaceOfVpn(status.vpn);
    status.inNamespace = process.alive && netns && NamespaceOfProcess(file.pid) == netns;
    AddProblem(status, ProcessProblem(status, file, process));
}

void TakeRoutes(VpnStatus &status)
{
    const int routes = CountRoutes(status.vpn, kDnsRouteTable);
    if (routes < 0) {
        AddProblem(status, std::string("its routes cannot be read: ") + std::strerror(-routes));
        return;
    }
    status.routes = static_cast<std::uint32_t>(routes);
}

std::string RuleProblem(const VpnStatus &status, bool installed, const std::string &rule)
{
    if (status.meant == installed) {
        return {};
    }
    return installed ? rule + " is installed although the service is switched off" : rule + " is missing";
}

void TakeRules(VpnStatus &status)
{
    const auto rules = FindInstalledRules(status.vpn);
    if (!rules) {
        AddProblem(status, "its rules cannot be read");
        return;
    }
    status.rule = rules->dns;
    AddProblem(status, RuleProblem(status, rules->dns, "the steering rule"));
    if (status.vpn == 0 && ActiveConfig().platform == Platform::kPop) {
        status.dnat = rules->dnat;
        AddProblem(status, RuleProblem(status, rules->dnat, "the DNAT rule"));
    }
}

// What is stored, for every VPN that is asked about.
struct StoredRecords {
    bool known = false;
    std::map<std::uint32_t, StoredRecord> records;
    std::string problem; // why nothing is known although something should be
};

StoredRecords ReadRecords(const std::vector<std::uint32_t> &vpnIds)
{
    StoredRecords stored;
    if (!ActiveConfig().persistence) {
        return stored;
    }
    try {
        if (vpnIds.size() == 1) {
            if (auto record = ReadStored(vpnIds.front())) {
                stored.records.emplace(record->vpn, std::move(*record));
            }
        } else {
            for (StoredRecord &record : ReadStored()) {
                stored.records.emplace(record.vpn, std::move(record));
            }
        }
        stored.known = true;
    } catch (const std::system_error &failure) {
        stored.problem = std::string("the store cannot be read: ") + failure.what();
    }
    return stored;
}

void TakeStored(VpnStatus &status, const StoredRecords &stored)
{
    if (!stored.known) {
        return;
    }
    const auto found = stored.records.find(status.vpn);
    status.stored = found != stored.records.end();
    if (!*status.stored) {
        return;
    }
    const StoredRecord &record = found->second;
    if (!record.problem.empty()) {
        AddProblem(status, "its stored record cannot be read: " + record.problem);
        return;
    }
    status.storedEnable = record.enable;
    if (record.enable != status.meant) {
        AddProblem(status, record.enable ? "stored as switched on, but not meant to run"
                                         : "stored as switched off, but meant to run");
    }
}

VpnStatus StatusOfVpn(std::uint32_t vpnId, bool answers, const StoredRecords &stored)
{
    VpnStatus status;
    status.vpn = vpnId;
    status.netns = vpnId == 0 ? "-" : ActiveConfig().Find(vpnId)->netns;
    status.meant = MeantToRun(vpnId);
    status.answers = answers;
    CountFiles(status);
    TakeStored(status, stored);
    TakeInstance(status);
    if (NamespaceOfVpn(vpnId)) {
        TakeRoutes(status);
        TakeRules(status);
        AddProblem(status, AnswerProblem(status));
    } else {
        AddProblem(status, "namespace " + status.netns + " does not exist");
    }
    return status;
}

VpnStatus StatusOfStray(std::uint32_t vpnId)
{
    VpnStatus status;
    status.vpn = vpnId;
    status.netns = "-";
    CountFiles(status);
    const PidFile file = ReadPidFile(vpnId);
    TakeProcess(status, file, InspectProcess(file.pid));
    AddProblem(status, "an instance runs, but the VPN is not configured");
    return status;
}

} // namespace

std::vector<VpnStatus> StatusOf(const std::vector<std::uint32_t> &vpnIds)
{
    const std::set<std::uint32_t> answering = AnsweringVpns(vpnIds, kAnswerPatience);
    const StoredRecords stored = ReadRecords(vpnIds);
    std::vector<VpnStatus> all;
    all.reserve(vpnIds.size());
    std::ranges::transform(vpnIds, std::back_inserter(all),
                           [&](std::uint32_t vpnId) { return StatusOfVpn(vpnId, answering.contains(vpnId), stored); });
    if (!all.empty()) {
        AddProblem(all.front(), stored.problem); // once is enough
    }
    return all;
}

std::vector<VpnStatus> StatusOfStrays()
{
    std::vector<VpnStatus> strays;
    for (const std::uint32_t vpnId : VpnsWithProcesses()) {
        if (!ActiveConfig().Serves(vpnId)) {
            strays.push_back(StatusOfStray(vpnId));
        }
    }
    return strays;
}

} // namespace kavel::agent
