// Looks at the VPNs, when something has changed and every now and then, and repairs what differs.
#include <sys/inotify.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <system_error>
#include <utility>

#include "log.h"
#include "supervision/content.h"
#include "supervision/supervisor.h"

namespace kavel::agent {
namespace {

// Several events come together, and a bind mount follows the file that it is mounted on.
constexpr std::chrono::milliseconds kEventDelay{100};
constexpr std::chrono::seconds kMissingLook{1}; // between two looks whether a missing namespace is there
constexpr std::chrono::seconds kBetweenEventLooks{1};
constexpr std::chrono::seconds kLongestRepairDelay{60};
constexpr unsigned kShiftsMax = 6;

// VPNs that are attended to before other events are dispatched: a few milliseconds of work.
constexpr int kPerIteration = 8;

std::string TextOf(const std::vector<Difference> &differences)
{
    std::string text;
    for (const Difference &difference : differences) {
        text += (text.empty() ? "" : "; ") + difference.text;
    }
    return text;
}

constexpr const char *kInstanceStarted = "its instance was started";

// 0: no instance is watched.
} // namespace

void Supervisor::AddToAgenda(std::uint32_t vpnId, Clock::time_point when)
{
    if (isStopped_) {
        return;
    }
    if (agenda_.empty() || when < agenda_.begin()->first) {
        agendaTimer_.ArmTimer(when);
    }
    agenda_.emplace(when, vpnId);
}

void Supervisor::ScheduleLook(std::uint32_t vpnId, Clock::time_point when)
{
    WatchedVpn &vpn = Of(vpnId);
    const bool isPassed = vpn.lookAt <= vpn.lookedAt;
    if (isPassed || when < vpn.lookAt) {
        vpn.lookAt = when;
        AddToAgenda(vpnId, when);
    }
}

void Supervisor::RunAgenda()
{
    for (int done = 0; done < kPerIteration && !agenda_.empty() && agenda_.begin()->first <= Clock::now(); ++done) {
        const std::uint32_t vpnId = agenda_.begin()->second;
        agenda_.erase(agenda_.begin());
        Attend(vpnId);
    }
    if (!agenda_.empty()) {
        agendaTimer_.ArmTimer(agenda_.begin()->first);
    }
}

// The agenda may have entries of before: what is not due is left. A look that is due has passed also when the VPN
// cannot be looked at now: the next one could not be scheduled otherwise.
void Supervisor::Attend(std::uint32_t vpnId)
{
    const auto found = vpns_.find(vpnId);
    if (found == vpns_.end()) {
        return;
    }
    WatchedVpn &vpn = found->second;
    const auto now = Clock::now();
    const bool isLookDue = vpn.lookAt > vpn.lookedAt && now >= vpn.lookAt;
    if (isLookDue) {
        vpn.lookAt = {};
    }
    if (!IsIdle(vpnId)) {
        return; // looked at when its launch has ended
    }
    if (vpn.startAt && now >= *vpn.startAt) {
        StartOrAdopt(vpnId);
    } else if (isLookDue) {
        LookAndRepair(vpnId, false);
    }
}

// An instance that has started slowly may run by now.
void Supervisor::StartOrAdopt(std::uint32_t vpnId)
{
    if (!instances_.IsRunning(vpnId)) {
        StartInstance(vpnId);
        return;
    }
    Of(vpnId).startAt.reset();
    Of(vpnId).startTime.reset();
    LookAndRepair(vpnId, false);
}

void Supervisor::NamespaceChanged(std::uint32_t vpnId)
{
    const auto found = vpns_.find(vpnId);
    if (found == vpns_.end()) {
        return;
    }
    found->second.repairFailures = 0;
    found->second.repairAt = {};
    ScheduleLook(vpnId, std::max(Clock::now() + kEventDelay, found->second.lookedAt + kBetweenEventLooks));
}

std::vector<Difference> Supervisor::Look(std::uint32_t vpnId, bool isThorough)
{
    WatchedVpn &vpn = Of(vpnId);
    const bool hasRulesetChanged = !vpn.events || vpn.events->TakeRulesetChange();
    LookOptions options;
    options.instance = vpn.InstancePid();
    options.skipsRules = !isThorough && vpn.areRulesRight && !hasRulesetChanged;
    host_.namespaces.BeginRequest();
    std::vector<Difference> differences = LookAt(host_, instances_, vpnId, *vpn.wanted, options);
    if (!options.skipsRules) {
        vpn.areRulesRight = !Has(differences, Part::kRule);
    }
    if (vpn.haveInterfacesChanged && vpn.wanted->enables && !Has(differences, Part::kRoutes)) {
        differences.push_back({Part::kRoutes, "its interfaces had changed"});
    }
    if (vpn.isRuleOutdated && vpn.wanted->enables && !Has(differences, Part::kRule)) {
        differences.push_back({Part::kRule, "the steering rule was for other interfaces"});
    }
    return differences;
}

void Supervisor::LookAndRepair(std::uint32_t vpnId, bool isThorough)
{
    RefreshNamespace(vpnId);
    WatchedVpn &vpn = Of(vpnId);
    vpn.lookedAt = Clock::now();
    ScheduleLook(vpnId, vpn.lookedAt + std::chrono::seconds(host_.config.watch.lookSeconds));
    if (vpn.missing.isNamespace) {
        ScheduleLook(vpnId, vpn.lookedAt + kMissingLook);
        return;
    }
    if (host_.config.watch.repair || isThorough) {
        PrepareVpn(vpnId);
    }
    const std::vector<Difference> differences = Look(vpnId, isThorough);
    if (!differences.empty()) {
        if (isThorough || (host_.config.watch.repair && vpn.lookedAt >= vpn.repairAt)) {
            RepairDifferences(vpnId, differences);
        } else if (host_.config.watch.repair) {
            ScheduleLook(vpnId, vpn.repairAt); // a look in between has replaced it
        } else {
            vpn.problem = "not repaired: " + TextOf(differences);
        }
        return;
    }
    vpn.problem.clear();
    vpn.repairFailures = 0;
    if (!vpn.instance && vpn.wanted->enables) {
        WatchInstance(vpnId);
    }
}

void Supervisor::RepairDifferences(std::uint32_t vpnId, const std::vector<Difference> &differences)
{
    WatchedVpn &vpn = Of(vpnId);
    if (Has(differences, Part::kInstance) && vpn.wanted->enables) {
        if (!vpn.startAt) {
            vpn.repairing = TextOf(differences);
            Log(LogLevel::kWarning, "vpn %u: %s", vpnId, vpn.repairing.c_str());
            StartInstance(vpnId);
        }
        return;
    }
    const pid_t instance = vpn.InstancePid();
    RepairOutcome outcome = repairs_.Repair(vpnId, *vpn.wanted, differences, instance);
    SaveFacts(vpnId, !outcome.problem);
    const std::vector<Difference> left = Look(vpnId, true);
    if (left.empty()) {
        vpn.problem.clear();
        vpn.repairFailures = 0;
        NoteRepair(vpnId, TextOf(differences));
        return;
    }
    const std::string problem = TextOf(left) + (outcome.problem ? ": " + *outcome.problem : "");
    if (problem != vpn.problem) {
        Log(LogLevel::kWarning, "vpn %u: cannot be repaired: %s", vpnId, problem.c_str());
        vpn.problem = problem;
    }
    vpn.repairAt = Clock::now() +
                   std::min<Clock::duration>(kLongestRepairDelay,
                                             std::chrono::seconds(1U << std::min(vpn.repairFailures++, kShiftsMax)));
    ScheduleLook(vpnId, vpn.repairAt);
}

void Supervisor::NoteRepair(std::uint32_t vpnId, const std::string &what)
{
    WatchedVpn &vpn = Of(vpnId);
    vpn.repairs = {vpn.repairs.count + 1, std::time(nullptr), what};
    Log(LogLevel::kNotice, "vpn %u: repaired: %s", vpnId, what.c_str());
}

void Supervisor::RepairRow(std::uint32_t vpnId, bool isStored)
{
    const bool isCpe = host_.config.platform == Platform::kCpe;
    const auto table = isCpe ? VQ_SQL_CONF_CPE_DNSMASQ : VQ_SQL_CONF_POP_DNSMASQ;
    if (isStored) {
        host_.store.Remove(vpnId, table);
        NoteRepair(vpnId, "a row was stored that is not in force");
        return;
    }
    host_.store.Put(vpnId, StoredTextOf(host_, module_, vpnId, inForce_.ReadContent(vpnId)), table);
    NoteRepair(vpnId, "its stored row was gone");
}

// A content that cannot be read is that VPN's own trouble. Throws std::system_error when the store fails.
void Supervisor::RepairRowOrLog(std::uint32_t vpnId, bool isStored)
{
    try {
        RepairRow(vpnId, isStored);
    } catch (const std::system_error &) {
        throw;
    } catch (const std::exception &failure) {
        Log(LogLevel::kWarning, "vpn %u: its stored row is not repaired: %s", vpnId, failure.what());
    }
}

// The store is asked once for all VPNs: it may be locked, and each question would wait.
void Supervisor::CheckRows()
{
    try {
        const std::vector<std::uint32_t> ids = host_.store.Ids();
        const std::set<std::uint32_t> stored(ids.begin(), ids.end());
        for (const auto &[vpnId, vpn] : vpns_) {
            const bool isStored = stored.contains(vpnId);
            // What an older agent has put into force is not known. An unconfirmed message has the row of before.
            if (IsIdle(vpnId) && !vpn.wanted->confirmation && vpn.wanted->isStored != isStored &&
                !vpn.wanted->files.empty()) {
                RepairRowOrLog(vpnId, isStored);
            }
        }
    } catch (const std::exception &failure) {
        Log(LogLevel::kDebug, "the stored rows are not repaired: %s", failure.what());
    }
}

void Supervisor::WatchDirectories()
{
    if (!pidFiles_) {
        pidFiles_ = loop_.AddInotify(instances_.PidDirectory(), IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM,
                                     [this](const inotify_event &event) {
                                         const auto vpnId = VpnOfPidFile(event.len > 0 ? event.name : "");
                                         if (vpnId && IsIdle(*vpnId)) {
                                             ScheduleLook(*vpnId, Clock::now() + kEventDelay);
                                         }
                                     });
    }
    if (!namespaceFiles_) {
        constexpr std::uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
        namespaceFiles_ = loop_.AddInotify(kNamespaceDirectory, kMask, [this](const inotify_event &event) {
            host_.routeSockets.CloseStale();
            host_.nftables.CloseStale();
            const std::string name = event.len > 0 ? event.name : "";
            for (const Vpn &vpn : host_.config.vpns) {
                if (vpn.netns == name && vpns_.contains(vpn.id)) {
                    NamespaceChanged(vpn.id);
                }
            }
        });
    }
}

void Supervisor::RepairNow(const std::vector<std::uint32_t> &vpnIds,
                           std::function<void(const RepairReport &report)> onEnd)
{
    AwaitedRepair &repair = awaited_.emplace_back();
    repair.onEnd = std::move(onEnd);
    std::map<std::uint32_t, std::uint32_t> repairsBefore;
    for (const std::uint32_t vpnId : vpnIds) {
        repairsBefore[vpnId] = Of(vpnId).repairs.count;
    }
    if (host_.config.persistence) {
        CheckRows();
    }
    for (const std::uint32_t vpnId : vpnIds) {
        if (const auto found = vpns_.find(vpnId); found != vpns_.end() && !found->second.isBack) {
            repair.report.problems.push_back("vpn " + std::to_string(vpnId) + ": its state is not restored yet");
            continue;
        }
        if (!IsIdle(vpnId)) {
            if (launches_.IsPending(vpnId)) {
                repair.launching.insert(vpnId);
            }
            continue;
        }
        const pid_t before = Of(vpnId).InstancePid();
        LookAndRepair(vpnId, true);
        if (launches_.IsPending(vpnId)) {
            repair.launching.insert(vpnId);
        } else {
            AddToReport(repair.report, vpnId, repairsBefore[vpnId], Of(vpnId).InstancePid() != before);
        }
    }
    if (repair.launching.empty()) {
        const AwaitedRepair done = std::move(awaited_.back());
        awaited_.pop_back();
        done.onEnd(done.report);
    }
}

void Supervisor::AddToReport(RepairReport &report, std::uint32_t vpnId, std::uint32_t repairsBefore, bool hasStarted)
{
    const WatchedVpn &vpn = Of(vpnId);
    const std::string subject = "vpn " + std::to_string(vpnId) + ": ";
    if (vpn.repairs.count != repairsBefore) {
        report.notes.push_back(subject +
                               "repaired: " + (hasStarted ? std::string(kInstanceStarted) : vpn.repairs.text));
    }
    for (const Finding &finding : vpn.missing.findings) {
        report.problems.push_back(subject + finding.text);
    }
    if (!vpn.problem.empty()) {
        report.problems.push_back(subject + vpn.problem);
    }
}

// Answers the clients that wait for this VPN alone.
void Supervisor::EndAwaited(std::uint32_t vpnId)
{
    for (auto at = awaited_.begin(); at != awaited_.end();) {
        const auto here = at++;
        if (here->launching.erase(vpnId) == 0) {
            continue;
        }
        const auto found = vpns_.find(vpnId);
        const std::string subject = "vpn " + std::to_string(vpnId) + ": ";
        if (found == vpns_.end()) {
            here->report.problems.push_back(subject + "is not configured any more");
        } else if (found->second.instance) {
            here->report.notes.push_back(subject + "repaired: " + kInstanceStarted);
        } else {
            here->report.problems.push_back(subject + found->second.ends.text);
        }
        if (here->launching.empty()) {
            const AwaitedRepair done = std::move(*here);
            awaited_.erase(here);
            done.onEnd(done.report);
        }
    }
}

} // namespace kavel::agent
