// The start of the agent: everything that is in force, or else is stored, is brought back. What is right is left alone.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "log.h"
#include "services/launch_mark.h"
#include "supervision/content.h"
#include "supervision/supervisor.h"

namespace kavel::agent {
namespace {

// For launches that an earlier agent began before it died.
constexpr std::chrono::milliseconds kAdoptionTimeout{2000};
constexpr std::chrono::milliseconds kMarkInterval{10};

} // namespace

void Supervisor::Start(std::function<void()> onStarted)
{
    onStarted_ = std::move(onStarted);
    for (const Vpn &vpn : host_.config.vpns) {
        toBringBack_.insert(vpn.id);
    }
    toBringBack_.insert(0);
    for (const std::uint32_t vpnId : toBringBack_) {
        Of(vpnId);
    }
    startTotal_ = static_cast<std::uint32_t>(host_.config.vpns.size());
    marked_ = instances_.WithState(kLaunchMark);
    markDeadline_ = Clock::now() + kAdoptionTimeout;
    WatchDirectories();
    markTimer_.ArmTimer(Clock::now());
}

// A launch that is not visible among the processes yet: the child of an agent that was killed looks like that agent.
void Supervisor::WaitForMarks()
{
    const bool isHeld = std::ranges::any_of(
        marked_, [this](std::uint32_t vpnId) { return IsLaunchMarkHeld(instances_.StatePath(vpnId, kLaunchMark)); });
    if (isHeld && Clock::now() < markDeadline_) {
        markTimer_.ArmTimer(Clock::now() + kMarkInterval);
        return;
    }
    Adopt();
}

// The module finds an instance by its pid file: without this wait it would start a second instance beside one that has
// not written its file yet, or never stop it. An instance of a VPN that is not configured is left alone: a VPN that was
// removed from the configuration by mistake must not lose its DNS service.
void Supervisor::Adopt()
{
    for (const std::uint32_t vpnId : instances_.WithProcesses()) {
        if (!host_.config.Serves(vpnId)) {
            Log(LogLevel::kWarning, "vpn %u: an instance runs, but the VPN is not configured", vpnId);
        } else {
            launches_.Add(vpnId, kAdoptionTimeout, [](LaunchOutcome /*outcome*/) {});
        }
    }
    ReportUnknownRows();
    bringBack_.Enable();
}

void Supervisor::ReportUnknownRows()
{
    if (!host_.config.persistence) {
        return;
    }
    try {
        for (const std::uint32_t vpnId : host_.store.Ids()) {
            if (!host_.config.Serves(vpnId)) {
                Log(LogLevel::kWarning, "vpn %u: its stored record is not applied: the VPN is not configured", vpnId);
            }
        }
    } catch (const std::system_error &failure) {
        Log(LogLevel::kError, "store %s: the stored records cannot be read: %s", host_.config.store.c_str(),
            failure.what());
    }
}

// One VPN per iteration of the loop: clients are served meanwhile.
void Supervisor::BringBackNext()
{
    const auto next =
        std::ranges::find_if(toBringBack_, [this](std::uint32_t vpnId) { return !launches_.IsPending(vpnId); });
    if (next == toBringBack_.end()) {
        return; // continued when a launch has ended
    }
    const std::uint32_t vpnId = *next;
    toBringBack_.erase(next);
    bringingBack_.insert(vpnId);
    BringBack(vpnId);
    if (!launches_.IsPending(vpnId)) {
        EndBringingBack(vpnId);
    }
    if (!toBringBack_.empty()) {
        bringBack_.Enable();
    }
}

// What is in force by the stored row. False when there is none that can be read.
bool Supervisor::LoadStoredRow(std::uint32_t vpnId)
{
    try {
        const auto text = host_.config.persistence ? host_.store.ReadText(vpnId) : std::nullopt;
        if (!text) {
            return false;
        }
        const RecordNode node = MapZeroed<VQ_DnsmasqConfNode>();
        if (const auto problem = host_.store.Fill(node->Dnsmasq, vpnId, *text)) {
            Log(LogLevel::kError, "vpn %u: its stored record cannot be read, and is kept: %s", vpnId, problem->c_str());
            return false;
        }
        InForce wanted;
        wanted.enables = node->Dnsmasq.Enable != FALSE;
        wanted.isStored = true;
        wanted.revision = RevisionOfStoredText(host_, module_, vpnId, *text);
        wanted.files.resize(instances_.Files(vpnId).size()); // marks of no file: what is there is not right yet
        inForce_.Write(vpnId, wanted, {false, *text});
        instances_.SetMeantToRun(vpnId, wanted.enables);
        Of(vpnId).wanted = std::move(wanted);
        return true;
    } catch (const std::system_error &failure) {
        Log(LogLevel::kError, "vpn %u: its stored record cannot be read, and is kept: %s", vpnId, failure.what());
        return false;
    }
}

// Also if the namespace is missing: the first message may come as soon as the namespace is there.
void Supervisor::CreateDirectoryOrLog(std::uint32_t vpnId)
{
    const VpnScope scope(host_, vpnId);
    const VQ_ERR_T result = module_.initDirectory(vpnId);
    if (result < 0) {
        Log(LogLevel::kError, "vpn %u: no instance directory: %s", vpnId, std::strerror(-result));
    }
}

void Supervisor::BringBack(std::uint32_t vpnId)
{
    WatchedVpn &vpn = Of(vpnId);
    const bool isUnconfirmed = marked_.contains(vpnId); // a launch was begun that nobody has confirmed
    vpn.wanted = inForce_.Read(vpnId);
    if (vpn.wanted && vpn.wanted->revision) {
        host_.numbered.NoteInForce(vpnId, *vpn.wanted->revision);
    }
    ResumeConfirmation(vpnId);
    bool mustApply = isUnconfirmed;
    if (!vpn.wanted && LoadStoredRow(vpnId)) {
        mustApply = true;
    } else if (!vpn.wanted && instances_.IsMeantToRun(vpnId)) {
        vpn.wanted.emplace().enables = true; // by an older agent
    }
    RefreshNamespace(vpnId);
    // Where an instance is started or looked at now, its directory is looked at with the rest.
    const bool isLookedAt = vpn.wanted && vpn.wanted->enables && !vpn.missing.isNamespace;
    if (vpnId != 0 && !isLookedAt) {
        CreateDirectoryOrLog(vpnId);
    }
    if (vpn.missing.isNamespace) {
        return;
    }
    PrepareVpn(vpnId);
    if (!vpn.wanted) {
        if (isUnconfirmed) {
            Log(LogLevel::kNotice, "vpn %u: its instance was started by a message that nobody has confirmed", vpnId);
            repairs_.Forsake(vpnId);
            RemoveMark(vpnId);
        }
        return;
    }
    vpn.isBack = true; // what follows treats it as idle
    CheckStoredText(vpnId);
    if (!mustApply) {
        LookAndRepair(vpnId, true);
    } else if (vpn.wanted->enables) {
        StartInstance(vpnId);
    } else {
        const RepairOutcome outcome = repairs_.SwitchOff(vpnId);
        SaveFacts(vpnId, !outcome.problem);
        RemoveMark(vpnId);
    }
    vpn.isBack = !launches_.IsPending(vpnId);
}

// The row counts after a restart of the box: it must say what is in force.
void Supervisor::CheckStoredText(std::uint32_t vpnId)
{
    const InForce &wanted = *Of(vpnId).wanted;
    if (!host_.config.persistence || wanted.files.empty() || wanted.confirmation) {
        return;
    }
    try {
        const bool isStored = host_.store.Has(vpnId);
        const bool isRight =
            !wanted.isStored
                ? !isStored
                : host_.store.Equals(vpnId, StoredTextOf(host_, module_, vpnId, inForce_.ReadContent(vpnId)));
        if (!isRight) {
            RepairRow(vpnId, !wanted.isStored);
        }
    } catch (const std::exception &failure) {
        Log(LogLevel::kWarning, "vpn %u: its stored row is not checked: %s", vpnId, failure.what());
    }
}

void Supervisor::LaunchEndedInStart(std::uint32_t vpnId)
{
    if (bringingBack_.contains(vpnId)) {
        EndBringingBack(vpnId);
    } else {
        bringBack_.Enable(); // it was adopted
    }
}

void Supervisor::EndBringingBack(std::uint32_t vpnId)
{
    bringingBack_.erase(vpnId);
    Of(vpnId).isBack = true;
    CheckStartEnd();
    if (onFree_) {
        onFree_(vpnId);
    }
}

void Supervisor::CheckStartEnd()
{
    if (!onStarted_ || !toBringBack_.empty() || !bringingBack_.empty()) {
        return;
    }
    const auto inForce = std::ranges::count_if(vpns_, [](const auto &each) { return each.second.wanted.has_value(); });
    const auto running =
        std::ranges::count_if(vpns_, [](const auto &each) { return each.second.instance.has_value(); });
    Log(LogLevel::kNotice, "recovered: %td in force, %td running", inForce, running);
    BeginTicks();
    std::exchange(onStarted_, nullptr)();
}

std::optional<StartProgress> Supervisor::Progress() const
{
    if (!onStarted_) {
        return std::nullopt;
    }
    const auto left = static_cast<std::uint32_t>(toBringBack_.size() + bringingBack_.size());
    return StartProgress{startTotal_ - std::min(startTotal_, left), startTotal_};
}

// A VPN that is left out keeps its instance: it may have been removed by mistake.
void Supervisor::ConfigurationChanged(const Config &old)
{
    for (const Vpn &vpn : old.vpns) {
        if (host_.config.Find(vpn.id) == nullptr) {
            Log(LogLevel::kNotice, "vpn %u: is not configured any more; what it has is left as it is", vpn.id);
            vpns_.erase(vpn.id);
            toBringBack_.erase(vpn.id);
            bringingBack_.erase(vpn.id);
        }
    }
    for (const Vpn &vpn : host_.config.vpns) {
        const Vpn *before = old.Find(vpn.id);
        if (before == nullptr) {
            Log(LogLevel::kNotice, "vpn %u: is configured now", vpn.id);
            Of(vpn.id);
            toBringBack_.insert(vpn.id);
        } else if (!before->HasSameInterfaces(vpn) && IsIdle(vpn.id)) {
            Log(LogLevel::kNotice, "vpn %u: its configuration was changed", vpn.id);
            Of(vpn.id).haveInterfacesChanged = true;
            Of(vpn.id).isRuleOutdated = true;
            ScheduleLook(vpn.id, Clock::now());
        }
    }
    if (IsIdle(0)) {
        Of(0).areRulesRight = false;
        ScheduleLook(0, Clock::now());
    }
    if (!toBringBack_.empty()) {
        bringBack_.Enable();
    }
    CheckStartEnd(); // what was left out may have been the last
}

} // namespace kavel::agent
