#include "supervision/repair.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "failure.h"
#include "instances/start_files.h"
#include "log.h"
#include "services/launch_mark.h"
#include "services/process_end.h"
#include "services/routes_netlink.h"
#include "services/rules_nftables.h"
#include "supervision/content.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kProcessesAge{100};
constexpr std::chrono::milliseconds kEndTimeout{2000};

constexpr mode_t kSearchable = S_IRUSR | S_IXUSR | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;

// Lets every user search the directory, if there is one.
void OpenDirectory(const std::string &directory)
{
    struct stat info {};
    if (::stat(directory.c_str(), &info) == 0 && (info.st_mode & S_IXOTH) == 0 &&
        ::chmod(directory.c_str(), (info.st_mode & ALLPERMS) | kSearchable) != 0) {
        ThrowLastErrno(directory);
    }
}

} // namespace

// Runs `work`, which calls the module; what it throws or what the module says is the problem.
template <typename Work>
RepairOutcome Repairs::WithModule(std::uint32_t vpnId, Work work)
{
    try {
        host_.namespaces.BeginRequest();
        host_.moduleErrors.Clear();
        const VpnScope scope(host_, vpnId);
        const std::int32_t result = work();
        if (result < 0) {
            return {host_.moduleErrors.Cause(result).value_or(std::strerror(-result))};
        }
        return {};
    } catch (const std::exception &failure) {
        return {failure.what()};
    }
}

RepairOutcome Repairs::Apply(std::uint32_t vpnId, VQ_DNSMASQ_OPERATION operation, bool switchesOff)
{
    try {
        RecordNode node = RecordOf(host_, module_, vpnId, inForce_.ReadContent(vpnId));
        node->Dnsmasq.Enable = switchesOff ? FALSE : node->Dnsmasq.Enable;
        return {ApplyRecord(host_, module_, vpnId, std::move(node), operation)};
    } catch (const std::exception &failure) {
        return {failure.what()};
    }
}

void Repairs::EndProcesses(std::uint32_t vpnId)
{
    const auto now = EventLoop::Clock::now();
    if (now - processesReadAt_ > kProcessesAge) {
        processes_ = instances_.ProcessesByVpn();
        processesReadAt_ = now;
    }
    std::vector<ProcessHandle> ending;
    for (const pid_t pid : processes_[vpnId]) {
        auto process = ProcessHandle::Open(pid);
        if (process && VpnOfProcess(InspectProcess(pid), instances_.Identity()) == vpnId) {
            process->Signal(SIGKILL);
            ending.push_back(*std::move(process));
        }
    }
    for (const ProcessHandle &process : ending) {
        Log(LogLevel::kNotice, "vpn %u: process %d is killed%s", vpnId, process.Pid(),
            process.EndsWithin(kEndTimeout) ? "" : ", and does not end");
    }
    processes_.erase(vpnId);
}

// Throws std::system_error.
void Repairs::PrepareDirectory(std::uint32_t vpnId)
{
    std::ranges::for_each(instances_.DirectoriesToFiles(vpnId), OpenDirectory);
    if (vpnId == 0) {
        instances_.CreateBoxDirectory();
    } else {
        (void)WithModule(vpnId, [&] { return module_.initDirectory(vpnId); }); // the files fail if this does
    }
}

// A route that cannot be added, over a link that is down, keeps the module from starting the instance; others of its
// clients may reach it all the same. The same where what is in force is not known: an older agent did not keep it.
RepairOutcome Repairs::Restart(std::uint32_t vpnId)
{
    host_.launchOutputs.End(vpnId);
    try {
        if (!instances_.IsRunning(vpnId)) { // the module ends one that runs, once it has written the files
            EndProcesses(vpnId);
        }
        PrepareDirectory(vpnId);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: %s", vpnId, failure.what());
    }
    RepairOutcome outcome = Apply(vpnId, VQ_DNSMASQ_OP_REBOOT);
    if (!host_.launchOutputs.IsBegun(vpnId) && !instances_.IsRunning(vpnId)) {
        const RepairOutcome alone = WithModule(vpnId, [&] { return module_.restartInstance(vpnId); });
        outcome.problem = alone.problem ? alone.problem : outcome.problem;
    }
    return outcome;
}

// The module keeps an instance whose rule it cannot remove, such as one that is gone.
RepairOutcome Repairs::SwitchOff(std::uint32_t vpnId)
{
    RepairOutcome outcome;
    try {
        PrepareDirectory(vpnId);
        const std::vector<FileMark> before = MarksOf(vpnId);
        outcome = Apply(vpnId, VQ_DNSMASQ_OP_RELOAD, true);
        if (MarksOf(vpnId) != before) {
            outcome.problem.reset(); // the files were written; what else failed was a rule that is gone already
        }
        EndProcesses(vpnId);
        instances_.RemovePidFile(vpnId);
    } catch (const std::system_error &failure) {
        outcome.problem = failure.what();
    }
    return outcome;
}

// What the module has not found to remove, such as the rule of an older agent.
void Repairs::RemoveRulesAndRoutes(std::uint32_t vpnId)
{
    if (!host_.config.Serves(vpnId) || FindMissing(host_, vpnId).isNamespace) {
        return; // its namespace is not known, or they are gone with it
    }
    const InstalledRules rules = FindInstalledRules(host_, vpnId);
    if (rules.dns || rules.stale) {
        (void)WithModule(vpnId, [&] { return module_.removePolicy(vpnId); });
    }
    if (vpnId != 0) {
        (void)WithModule(vpnId, [&] {
            module_.removeRoutes(vpnId);
            return 0;
        });
        RemovePolicyRule(host_, vpnId);
    }
    const InstalledRules left = FindInstalledRules(host_, vpnId);
    if (left.dns || left.dnat || left.stale) {
        throw std::runtime_error("a steering rule is left");
    }
    if (vpnId != 0 && CountRoutes(host_, vpnId, kDnsRouteTable) > 0) {
        throw std::runtime_error("routes are left");
    }
}

RepairOutcome Repairs::TakeDown(std::uint32_t vpnId)
{
    host_.launchOutputs.End(vpnId);
    if (inForce_.Read(vpnId)) {
        (void)SwitchOff(vpnId); // what it could not remove is removed below, or told
    }
    return WithModule(vpnId, [&] {
        EndProcesses(vpnId);
        instances_.RemovePidFile(vpnId);
        RemoveRulesAndRoutes(vpnId);
        inForce_.Remove(vpnId);
        instances_.SetMeantToRun(vpnId, false);
        ::unlink(instances_.StatePath(vpnId, kLaunchMark).c_str());
        ForgetStartFiles(instances_, vpnId);
        return 0;
    });
}

std::vector<FileMark> Repairs::MarksOf(std::uint32_t vpnId) const
{
    std::vector<FileMark> marks;
    std::ranges::transform(instances_.Files(vpnId), std::back_inserter(marks), MarkOfFile);
    return marks;
}

void Repairs::Forsake(std::uint32_t vpnId)
{
    const RepairOutcome outcome = WithModule(vpnId, [&] {
        EndProcesses(vpnId);
        instances_.RemovePidFile(vpnId);
        return 0;
    });
    (void)WithModule(vpnId, [&] { return module_.removePolicy(vpnId); }); // there may be none
    if (outcome.problem) {
        Log(LogLevel::kError, "vpn %u: %s", vpnId, outcome.problem->c_str());
    }
}

RepairOutcome Repairs::RepairFiles(std::uint32_t vpnId, pid_t instance)
{
    try {
        PrepareDirectory(vpnId);
        if (instance != 0) {
            instances_.WritePidFile(vpnId, instance); // the module signals the process that it names
        }
    } catch (const std::system_error &failure) {
        return {failure.what()};
    }
    return Apply(vpnId, VQ_DNSMASQ_OP_RELOAD);
}

RepairOutcome Repairs::RepairRoutes(std::uint32_t vpnId)
{
    return WithModule(vpnId, [&] {
        const RecordNode node = RecordOf(host_, module_, vpnId, inForce_.ReadContent(vpnId));
        host_.moduleErrors.Clear();
        return module_.addRoutes(&node->Dnsmasq);
    });
}

// The module finds an instance by its pid file: a reload that came while it was wrong has not reached the instance.
RepairOutcome Repairs::RepairPidFile(std::uint32_t vpnId, pid_t instance)
{
    return WithModule(vpnId, [&] {
        if (instance != 0) {
            instances_.WritePidFile(vpnId, instance);
            if (const auto process = ProcessHandle::Open(instance)) {
                process->Signal(SIGHUP);
            }
        } else {
            instances_.RemovePidFile(vpnId);
        }
        return 0;
    });
}

RepairOutcome Repairs::InstallRules(std::uint32_t vpnId)
{
    return WithModule(vpnId, [&] {
        const std::int32_t result = module_.addPolicy(vpnId);
        if (result < 0 || vpnId != 0 || host_.config.platform != Platform::kPop) {
            return result;
        }
        const RecordNode node = RecordOf(host_, module_, vpnId, inForce_.ReadContent(vpnId));
        host_.moduleErrors.Clear();
        return module_.addDnat(node->Dnsmasq.LocalIp);
    });
}

RepairOutcome Repairs::RepairPart(std::uint32_t vpnId, Part part, pid_t instance)
{
    switch (part) {
    case Part::kInstance:
        return {}; // not repaired by itself
    case Part::kFiles:
        return RepairFiles(vpnId, instance);
    case Part::kRoutes:
        return RepairRoutes(vpnId);
    case Part::kPidFile:
        return RepairPidFile(vpnId, instance);
    case Part::kRule:
        return InstallRules(vpnId);
    }
    return {};
}

RepairOutcome Repairs::Repair(std::uint32_t vpnId, const InForce &wanted, std::span<const Difference> differences,
                              pid_t instance)
{
    if (!wanted.enables) {
        return SwitchOff(vpnId);
    }
    if (Has(differences, Part::kInstance)) {
        return Restart(vpnId);
    }
    RepairOutcome outcome;
    for (const Difference &difference : differences) {
        RepairOutcome one = RepairPart(vpnId, difference.part, instance);
        if (one.problem && !outcome.problem) {
            outcome.problem = std::move(one.problem);
        }
    }
    return outcome;
}

} // namespace kavel::agent
