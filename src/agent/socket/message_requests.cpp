// Requests that carry a controller's message: it is applied, or only checked.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>

#include "instances/startup.h"
#include "log.h"
#include "socket/apply_form.h"
#include "socket/message_checks.h"
#include "socket/request_answers.h"
#include "socket/requests.h"
#include "vqMemory.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kLaunchTimeout{2000};

struct RecordRelease {
    void operator()(VQ_DNSMASQ_CONF *record) const { VQ_AgentMemFree(record); }
};

// The content of a CPE message; null for a POP message.
const DnsmasqConf *CpeContent(Platform platform, const ControllerMessage &message)
{
    return platform == Platform::kCpe ? message.pointer.DnsmasqPbCPE : nullptr;
}

// What the module does not check and must not get. A message that switches the service off starts nothing.
std::optional<Answer> MessageObjection(const Host &host, const ModuleFunctions &module,
                                       const ControllerMessage &message)
{
    const DnsmasqConf *content = CpeContent(host.config.platform, message);
    if (content == nullptr) {
        return std::nullopt;
    }
    auto objection = InterfaceNameObjection(*content);
    if (!objection && message.enables) {
        objection = StartObjection(*content, module);
    }
    return objection ? std::optional(RefusalOf(message.vpn, -EINVAL, std::move(objection))) : std::nullopt;
}

std::vector<std::string> NotesOn(Host &host, const ModuleFunctions &module, const ControllerMessage &message)
{
    const DnsmasqConf *content = CpeContent(host.config.platform, message);
    if (content == nullptr || !message.enables) {
        return {};
    }
    std::vector<std::string> notes = IneffectiveFields(*content, module);
    std::ranges::move(MissingInterfaces(*content, host, message.vpn), std::back_inserter(notes));
    return notes;
}

Kavel__Summary Summarise(const VQ_DNSMASQ_CONF &record)
{
    Kavel__Summary summary = KAVEL__SUMMARY__INIT;
    summary.enable = record.Enable != FALSE ? 1 : 0;
    summary.operation = static_cast<std::uint32_t>(record.Op);
    summary.persistent = record.PersistentFlag != FALSE ? 1 : 0;
    summary.hosts = record.DnsHostNum;
    summary.mx_hosts = record.DnsMxHostNum;
    summary.servers = record.DnsServerNum;
    summary.proxies = record.DnsProxyNum;
    return summary;
}

// An operation that the module does not know is refused after the files are written.
std::optional<Answer> OperationObjection(const ControllerMessage &message, const VQ_DNSMASQ_CONF &record)
{
    const auto operation = static_cast<std::uint32_t>(record.Op);
    const bool isKnown = operation == VQ_DNSMASQ_OP_RELOAD || operation == VQ_DNSMASQ_OP_REBOOT;
    return !message.enables || isKnown ? std::nullopt
                                       : std::optional(RefusalOf(message.vpn, -EINVAL,
                                                                 "operation: it is " + std::to_string(operation) +
                                                                     "; 0 is reload, 1 is reboot"));
}

// The message stays applied.
void ReportServiceProblem(Answer &answer, const std::string &problem)
{
    answer.text = problem;
    Log(LogLevel::kError, "vpn %u: %s", answer.vpn.value_or(0), problem.c_str());
}

void AddNote(Answer &answer, std::string note)
{
    Log(LogLevel::kWarning, "vpn %u: %s", answer.vpn.value_or(0), note.c_str());
    answer.notes.push_back(std::move(note));
}

// What is meant to run from now on, and whether it does.
void RecordOutcome(const Instances &instances, Answer &answer, const ControllerMessage &message)
{
    instances.SetMeantToRun(message.vpn, message.enables);
    answer.enabled = message.enables;
    if (message.launches) {
        return; // not known yet
    }
    answer.running = instances.IsRunning(message.vpn);
    if (message.reloads && !*answer.running) {
        ReportServiceProblem(answer, "no instance runs, and a reload starts none");
    } else if (!message.enables && *answer.running) {
        ReportServiceProblem(answer, "the instance still runs");
    }
}

void PrepareNamespaceOrLog(Host &host, std::uint32_t vpnId)
{
    try {
        (void)PrepareNamespace(host, vpnId);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its namespace is not ready: %s", vpnId, failure.what());
    }
}

} // namespace

std::optional<Answer> Requests::ApplyObjection(const ControllerMessage &message) const
{
    if (auto objection = MessageObjection(host_, module_, message)) {
        return objection;
    }
    auto objection = message.reloads ? instances_.ReloadObjection(message.vpn) : std::nullopt;
    return objection ? std::optional(RefusalOf(message.vpn, -ESRCH, std::move(objection))) : std::nullopt;
}

// What is in force is kept if the message has to be confirmed.
std::optional<Answer> Requests::KeepBefore(const ControllerMessage &message, const Kavel__Request &request)
{
    if (request.has_confirm_seconds == 0) {
        return std::nullopt;
    }
    try {
        supervisor_.KeepBefore(message.vpn);
        return std::nullopt;
    } catch (const std::system_error &failure) {
        return RefusalOf(message.vpn, -failure.code().value(),
                         "what is in force cannot be kept: " + std::string(failure.what()));
    }
}

// Calls the module. Whether the message is in force is in `answer.enabled`.
Answer Requests::Configure(const ControllerMessage &message, const Kavel__Request &request)
{
    const VpnScope scope(host_, message.vpn);
    host_.endedProcesses.clear();
    PrepareNamespaceOrLog(host_, message.vpn);
    const auto confirmSeconds = ConfirmSecondsOf(request);
    StoreChange change(host_.store, confirmSeconds ? RowChange::kLeftOut : RowChange::kCarriedOut);
    Answer answer = OutcomeOf(host_, module_.configure(&message.pointer), message.vpn);
    LogOutcome(answer, "applied");
    for (const std::string &process : host_.endedProcesses) {
        AddNote(answer, "also ended " + process);
    }
    if (answer.result >= 0 && !change.Finish()) {
        AddNote(answer, "what was stored before is still stored, until the store works again");
    }
    if (answer.result < 0 && change.IsBegun()) {
        answer.reason = answer.reason.value_or("") +
                        "; the message is in force all the same, and what was stored before is still stored";
    }
    if (answer.result >= 0 || change.IsBegun()) {
        supervisor_.Applied(message, MessageOf(request), RevisionOf(request), confirmSeconds);
        RecordOutcome(instances_, answer, message);
    }
    return answer;
}

void Requests::Apply(const std::shared_ptr<const ControllerMessage> &message, const Kavel__Request &request,
                     const Respond &respond)
{
    if (const auto objection = ApplyObjection(*message)) {
        LogOutcome(*objection, "");
        respond(*objection);
        return;
    }
    if (const auto objection = KeepBefore(*message, request)) {
        LogOutcome(*objection, "");
        respond(*objection);
        return;
    }
    const std::vector<std::string> notes = NotesOn(host_, module_, *message);
    Answer answer = Configure(*message, request);
    const bool isInForce = answer.enabled.has_value();
    if (!isInForce) {
        supervisor_.Refused(message->vpn);
    }
    for (const std::string &note : notes) {
        AddNote(answer, note);
    }
    if (!isInForce || !message->launches) {
        respond(answer);
        return;
    }
    launches_.Add(message->vpn, kLaunchTimeout, [this, answer, message, respond](LaunchOutcome outcome) {
        EndLaunch(answer, *message, outcome, respond);
    });
}

// What dnsmasq wrote, and the field of the message that it is about.
std::string Requests::LaunchFailure(const ControllerMessage &message) const
{
    const std::string reason = host_.launchOutputs.Reason(message.vpn);
    if (reason.empty()) {
        return "the instance did not come up";
    }
    const DnsmasqConf *content = CpeContent(host_.config.platform, message);
    const auto field = content != nullptr ? FieldOfReason(*content, module_, reason) : std::nullopt;
    return "the instance did not come up: " + (field ? *field + ": " : "") + reason;
}

void Requests::EndLaunch(Answer answer, const ControllerMessage &message, LaunchOutcome outcome, const Respond &respond)
{
    if (outcome == LaunchOutcome::kCancelled) {
        answer.text = "the agent is stopping; the instance was still starting";
    } else {
        answer.running = outcome == LaunchOutcome::kRunning;
    }
    if (outcome == LaunchOutcome::kFailed) {
        ReportServiceProblem(answer, LaunchFailure(message));
    }
    respond(answer);
}

Answer Requests::Check(std::span<const std::uint8_t> bytes)
{
    const auto message = UnpackControllerMessage(host_.config.platform, bytes);
    if (!message) {
        return MalformedMessage(host_.config.platform);
    }
    if (!host_.config.Serves(message->vpn)) {
        return NotConfigured(message->vpn);
    }
    if (auto objection = MessageObjection(host_, module_, *message)) {
        return *std::move(objection);
    }
    const std::unique_ptr<VQ_DNSMASQ_CONF, RecordRelease> record(
        static_cast<VQ_DNSMASQ_CONF *>(VQ_AgentMemZeroAlloc(sizeof(VQ_DNSMASQ_CONF))));
    if (!record) {
        return Refusal(-ENOMEM);
    }
    const VpnScope scope(host_, message->vpn);
    Answer answer = OutcomeOf(host_, module_.translate(&message->pointer, record.get()), message->vpn);
    if (answer.result < 0) {
        return answer;
    }
    if (auto objection = OperationObjection(*message, *record)) {
        return *std::move(objection);
    }
    answer.summary = Summarise(*record);
    answer.notes = NotesOn(host_, module_, *message);
    return answer;
}

} // namespace kavel::agent
