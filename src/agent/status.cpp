#include "status.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <utility>

#include "config.h"
#include "dns_probe.h"
#include "instances.h"
#include "netns.h"
#include "routes_netlink.h"

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

void TakeProcess(VpnStatus &status)
{
    const PidFile file = ReadPidFile(status.vpn);
    const Process process = InspectProcess(file.pid);
    status.pidFile = file.exists;
    status.pid = file.pid;
    status.alive = process.alive;
    status.isDnsmasq = IsInstanceOf(process, status.vpn);
    const auto netns = NamespaceOfVpn(status.vpn);
    status.inNamespace = process.alive && netns && NamespaceOfProcess(file.pid) == netns;
    status.uptimeSeconds = process.uptimeSeconds;
    status.memoryBytes = process.memoryBytes;
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

VpnStatus StatusOfVpn(std::uint32_t vpnId, bool answers)
{
    VpnStatus status;
    status.vpn = vpnId;
    status.netns = vpnId == 0 ? "-" : ActiveConfig().Find(vpnId)->netns;
    status.meant = MeantToRun(vpnId);
    status.answers = answers;
    CountFiles(status);
    TakeProcess(status);
    if (NamespaceOfVpn(vpnId)) {
        TakeRoutes(status);
        AddProblem(status, AnswerProblem(status));
    } else {
        AddProblem(status, "namespace " + status.netns + " does not exist");
    }
    return status;
}

} // namespace

std::vector<VpnStatus> StatusOf(const std::vector<std::uint32_t> &vpnIds)
{
    const std::set<std::uint32_t> answering = AnsweringVpns(vpnIds, kAnswerPatience);
    std::vector<VpnStatus> all;
    all.reserve(vpnIds.size());
    std::ranges::transform(vpnIds, std::back_inserter(all),
                           [&](std::uint32_t vpnId) { return StatusOfVpn(vpnId, answering.contains(vpnId)); });
    return all;
}

} // namespace kavel::agent
