// Keeps what is in force in force: starts instances again, repairs what differs, and brings everything back when the
// agent starts.
#ifndef KAVEL_AGENT_SUPERVISOR_H
#define KAVEL_AGENT_SUPERVISOR_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "base/child_reaper.h"
#include "event_loop.h"
#include "instances/controller_message.h"
#include "instances/in_force.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "instances/pending_launches.h"
#include "instances/status.h"
#include "services/host.h"
#include "supervision/repair.h"
#include "supervision/watched_vpn.h"

namespace kavel::agent {

// How far the start is: VPNs whose state is restored, of those whose state has to be.
struct StartProgress {
    std::uint32_t back = 0;
    std::uint32_t total = 0;
};

class Supervisor {
  public:
    // The references must outlive this object.
    Supervisor(EventLoop &loop, Host &host, const Instances &instances, const ModuleFunctions &module,
               PendingLaunches &launches, ChildReaper &reaper);
    Supervisor(const Supervisor &) = delete;
    Supervisor &operator=(const Supervisor &) = delete;
    ~Supervisor();

    // Called when a VPN that was busy can take requests again.
    void OnFree(std::function<void(std::uint32_t vpnId)> handler) { onFree_ = std::move(handler); }

    // Begins to bring everything back that is in force, or else is stored: what is right is left alone. The loop calls
    // `onStarted` when it is done.
    void Start(std::function<void()> onStarted);
    // Nothing when the start is over.
    [[nodiscard]] std::optional<StartProgress> Progress() const;

    // Whether requests for the VPN must wait: its state is not restored yet, or an instance is being started.
    [[nodiscard]] bool IsBusy(std::uint32_t vpnId) const;

    // The message, which `bytes` is the packed form of, is in force from now on. If it launches, its launch is pending.
    // With `confirmSeconds` it waits for its confirmation: KeepBefore() was called before. Without them it confirms one
    // that waits.
    void Applied(const ControllerMessage &message, std::span<const std::uint8_t> bytes,
                 const std::optional<std::string> &revision,
                 std::optional<std::uint32_t> confirmSeconds = std::nullopt);

    // Keeps what is in force for the VPN, to be brought back if the message that is applied now is not confirmed. If
    // one waits for its confirmation, what was in force before that one stays kept. Throws std::system_error.
    void KeepBefore(std::uint32_t vpnId);
    // What KeepBefore() has kept; nothing if nothing was in force. Throws std::system_error.
    [[nodiscard]] std::optional<BeforeUnconfirmed> Before(std::uint32_t vpnId) const;
    // Nothing if no message of the VPN waits for its confirmation.
    [[nodiscard]] std::optional<AwaitedConfirmation> Confirmation(std::uint32_t vpnId) const;
    // The message that waits for its confirmation stays in force. Its row is written now, or removed: until then the
    // row is that of before, which counts after a restart of the box. Returns what is wrong with the row. Throws
    // std::system_error when the message still waits.
    [[nodiscard]] std::optional<std::string> Confirm(std::uint32_t vpnId);
    // Called for a VPN that is not busy when its message was not confirmed in time. `undo` begins to bring back what
    // was in force before; false: not now. It is called again later until the VPN has no such message.
    void OnUnconfirmed(std::function<bool(std::uint32_t vpnId)> undo) { onUnconfirmed_ = std::move(undo); }

    // Facts about what is in force for the VPN; null when nothing is.
    [[nodiscard]] const InForce *InForceOf(std::uint32_t vpnId) const;

    // The module has refused a message for the VPN, and what was in force before still is.
    void Refused(std::uint32_t vpnId);

    // Looks at VPNs that are not busy and repairs what differs. `onEnd` is called when the instances that were started
    // run or have failed. `notes` says what was repaired, `problems` what could not be; one line each.
    struct RepairReport {
        std::vector<std::string> notes;
        std::vector<std::string> problems;
    };
    void RepairNow(const std::vector<std::uint32_t> &vpnIds, std::function<void(const RepairReport &report)> onEnd);

    // Ends the instance of a VPN that is not busy, with its rules and routes, and forgets what is in force. The stored
    // row stays: the next start of the agent brings it back. Returns what is left of it; nothing if all is gone.
    [[nodiscard]] std::optional<std::string> TakeDown(std::uint32_t vpnId);

    // Whether the VPN was meant to run until TakeDown(), and no message was applied since.
    [[nodiscard]] bool IsStopped(std::uint32_t vpnId) const;
    // Has the instance of a VPN that is not busy empty its cache and read its hosts again. False when none runs. Throws
    // std::system_error.
    [[nodiscard]] bool FlushCache(std::uint32_t vpnId);

    // Adds what is known about the VPN to its status.
    void Describe(VpnStatus &status) const;

    // Host::config was replaced; `old` is what it was.
    void ConfigurationChanged(const Config &old);

    // Ends all watching. Nothing is started or repaired any more.
    void Stop();

  private:
    using Clock = EventLoop::Clock;

    // ---- the start: start_sequence.cpp ----
    void WaitForMarks();
    void Adopt();
    void BringBackNext();
    void CreateDirectoryOrLog(std::uint32_t vpnId);
    void BringBack(std::uint32_t vpnId);
    [[nodiscard]] bool LoadStoredRow(std::uint32_t vpnId);
    void LaunchEndedInStart(std::uint32_t vpnId);
    void EndBringingBack(std::uint32_t vpnId);
    void CheckStartEnd();
    void ReportUnknownRows();
    void CheckStoredText(std::uint32_t vpnId);

    // ---- one VPN: supervisor.cpp ----
    WatchedVpn &Of(std::uint32_t vpnId);
    void PrepareVpn(std::uint32_t vpnId);
    void RefreshNamespace(std::uint32_t vpnId);
    void RecordFacts(std::uint32_t vpnId, bool isComplete);
    void SaveFacts(std::uint32_t vpnId, bool isComplete);
    void WatchInstance(std::uint32_t vpnId);
    void InstanceEnded(std::uint32_t vpnId);
    void NoteEnd(std::uint32_t vpnId, const std::string &why);
    void PlanStart(std::uint32_t vpnId, std::chrono::seconds leastDelay = {});
    void StartInstance(std::uint32_t vpnId);
    void LaunchEnded(std::uint32_t vpnId, LaunchOutcome outcome);
    void RemoveMark(std::uint32_t vpnId) const;
    [[nodiscard]] bool IsLaunchMarked(std::uint32_t vpnId) const;
    void JudgeLaunch(std::uint32_t vpnId, bool isRunning);
    void SwitchedOff(std::uint32_t vpnId);
    [[nodiscard]] bool IsIdle(std::uint32_t vpnId) const;

    // ---- looks and repairs: upkeep.cpp ----
    void AddToAgenda(std::uint32_t vpnId, Clock::time_point when);
    void ScheduleLook(std::uint32_t vpnId, Clock::time_point when);
    void RunAgenda();
    void Attend(std::uint32_t vpnId);
    void StartOrAdopt(std::uint32_t vpnId);
    void NamespaceChanged(std::uint32_t vpnId);
    [[nodiscard]] std::vector<Difference> Look(std::uint32_t vpnId, bool isThorough);
    void LookAndRepair(std::uint32_t vpnId, bool isThorough);
    void RepairDifferences(std::uint32_t vpnId, const std::vector<Difference> &differences);
    void NoteRepair(std::uint32_t vpnId, const std::string &what);
    void CheckRows();
    void RepairRow(std::uint32_t vpnId, bool isStored);
    void RepairRowOrLog(std::uint32_t vpnId, bool isStored);
    void WatchDirectories();
    void EndAwaited(std::uint32_t vpnId);
    void AddToReport(RepairReport &report, std::uint32_t vpnId, std::uint32_t repairsBefore, bool hasStarted);

    // ---- the status: description.cpp ----
    void AddWatched(VpnStatus &status, const WatchedVpn &vpn) const;
    // ---- messages that wait for a confirmation: confirmation.cpp ----
    void BeginConfirmation(std::uint32_t vpnId, std::optional<std::uint32_t> seconds);
    void ResumeConfirmation(std::uint32_t vpnId);
    void ForgetBefore(std::uint32_t vpnId) const;
    void ScheduleUndo(std::uint32_t vpnId, Clock::time_point when);
    void ArmUndoTimer();
    void RunUndos();
    void StoreConfirmed(std::uint32_t vpnId);
    void DescribeConfirmation(VpnStatus &status) const;

    // ---- queries: health.cpp ----
    void BeginTicks();
    void Tick();
    void NoteUpstream(std::uint32_t vpnId, const std::string &name, bool hasAnswered);
    void ProbeInstances(bool overTcp);
    void ProbeUpstreams();
    void ProbeEnded(const std::vector<std::uint32_t> &asked, const DnsAnswers &answering, bool overTcp);
    template <typename OnEnd>
    void RunProbe(const std::vector<DnsTarget> &targets, OnEnd onEnd);

    EventLoop &loop_;
    Host &host_;
    const Instances &instances_;
    const ModuleFunctions &module_;
    PendingLaunches &launches_;
    ChildReaper &reaper_;
    InForceFiles inForce_{instances_};
    Repairs repairs_{host_, instances_, module_, inForce_};
    std::map<std::uint32_t, WatchedVpn> vpns_; // those that something is in force for, and those to bring back
    std::function<void(std::uint32_t vpnId)> onFree_;
    std::function<bool(std::uint32_t vpnId)> onUnconfirmed_;
    bool isStopped_ = false;

    // The start.
    std::function<void()> onStarted_;
    std::set<std::uint32_t> marked_;       // with a launch that an earlier agent has begun
    std::set<std::uint32_t> toBringBack_;  // not begun
    std::set<std::uint32_t> bringingBack_; // begun, with an instance that is starting
    std::uint32_t startTotal_ = 0;
    Clock::time_point markDeadline_;
    EventSource markTimer_;
    EventSource bringBack_;

    // Repairs that a client waits for.
    struct AwaitedRepair {
        std::set<std::uint32_t> launching;
        RepairReport report;
        std::function<void(const RepairReport &report)> onEnd;
    };
    std::list<AwaitedRepair> awaited_;

    std::multimap<Clock::time_point, std::uint32_t> agenda_; // when to attend to which VPN
    EventSource agendaTimer_;
    EventSource tick_;
    std::map<std::uint32_t, Clock::time_point> undos_; // when to look whether a message was confirmed
    EventSource undoTimer_;
    Clock::time_point nextRowCheck_;
    std::optional<EventSource> pidFiles_;
    std::optional<EventSource> namespaceFiles_;
    std::list<std::unique_ptr<DnsProbe>> probes_; // that are under way
};

} // namespace kavel::agent

#endif
