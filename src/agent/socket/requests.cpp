#include "socket/requests.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "base/failure.h"
#include "base/log.h"
#include "instances/startup.h"
#include "socket/message_checks.h"
#include "socket/store_requests.h"
#include "vqMemory.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kLaunchTimeout{2000};

// As many as there can be clients. Clients that have disconnected do not cancel theirs.
constexpr std::size_t kStatusesMax = 64;

struct RecordRelease {
    void operator()(VQ_DNSMASQ_CONF *record) const { VQ_AgentMemFree(record); }
};

Answer RefusalOf(std::uint32_t vpnId, std::int32_t result, std::optional<std::string> why)
{
    Answer answer = Refusal(result, std::move(why));
    answer.vpn = vpnId;
    return answer;
}

Answer NotConfigured(std::uint32_t vpnId)
{
    return RefusalOf(vpnId, -ENOENT, "vpn " + std::to_string(vpnId) + " is not configured");
}

Answer MalformedMessage(Platform platform)
{
    return Refusal(-EINVAL, platform == Platform::kCpe ? "not a CPE message" : "not a POP message");
}

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

// The generated enumeration has no negative values, but a client can send them.
std::int32_t VerbOf(const Kavel__Request &request)
{
    std::int32_t verb = 0;
    static_assert(sizeof verb == sizeof request.verb);
    std::memcpy(&verb, &request.verb, sizeof verb);
    return verb;
}

std::span<const std::uint8_t> MessageOf(const Kavel__Request &request)
{
    return {request.message.data, request.has_message != 0 ? request.message.len : 0};
}

// The outcome of a call of the module, with the module's message about a failure.
Answer OutcomeOf(const Host &host, std::int32_t result, std::uint32_t vpnId)
{
    Answer answer;
    answer.result = result;
    answer.vpn = vpnId;
    if (result < 0) {
        answer.reason = host.moduleErrors.Cause(result);
    }
    return answer;
}

void LogOutcome(const Answer &answer, const char *done)
{
    const std::uint32_t vpnId = answer.vpn.value_or(0);
    if (answer.result >= 0) {
        Log(LogLevel::kNotice, "vpn %u: %s", vpnId, done);
        return;
    }
    const std::optional<std::string> &why = answer.reason ? answer.reason : answer.text;
    Log(LogLevel::kWarning, "vpn %u: refused (%d %s)%s%s", vpnId, answer.result, std::strerror(-answer.result),
        why ? ": " : "", why ? why->c_str() : "");
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
        PrepareNamespace(host, vpnId);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its namespace is not ready: %s", vpnId, failure.what());
    }
}

// Runs `work`; what it throws becomes the answer. A client that was answered already gets no second answer.
template <typename Work>
void WithAnswer(const Respond &respond, Work work)
{
    try {
        work();
    } catch (const std::exception &failure) {
        const std::int32_t result = ResultOfCurrentException();
        Log(LogLevel::kError, "control socket: a request failed: %s", failure.what());
        respond(Refusal(result));
    }
}

} // namespace

Requests::Requests(EventLoop &loop, Host &host, const Instances &instances, const ModuleFunctions &module,
                   PendingLaunches &launches)
    : loop_(loop), host_(host), instances_(instances), module_(module), launches_(launches),
      drain_(loop.AddDeferred([this] { DrainQueues(); }))
{
}

void Requests::Handle(ReceivedFrame frame, const Respond &respond)
{
    Dispatch({std::move(frame), respond}, false);
}

void Requests::Dispatch(ReceivedRequest received, bool wasQueued)
{
    const Respond respond = received.respond;
    WithAnswer(respond, [&] {
        const ProtobufMessage envelope = UnpackProtobuf(kavel__request__descriptor, received.frame.Content());
        if (!envelope) {
            respond(Refusal(-EINVAL, "not a request"));
            return;
        }
        host_.namespaces.BeginRequest();
        host_.moduleErrors.Clear();
        DispatchVerb(*reinterpret_cast<const Kavel__Request *>(envelope.get()), std::move(received), wasQueued);
    });
}

void Requests::DispatchVerb(const Kavel__Request &request, ReceivedRequest received, bool wasQueued)
{
    const std::int32_t verb = VerbOf(request);
    switch (verb) {
    case KAVEL__REQUEST__VERB__APPLY:
        HandleApply(request, std::move(received), wasQueued);
        return;
    case KAVEL__REQUEST__VERB__VPN_INIT:
    case KAVEL__REQUEST__VERB__VPN_RELEASE:
        HandleDirectory(request, std::move(received), wasQueued);
        return;
    case KAVEL__REQUEST__VERB__STATUS:
        BeginStatus(request, received.respond);
        return;
    case KAVEL__REQUEST__VERB__CHECK:
        received.respond(Check(MessageOf(request)));
        return;
    case KAVEL__REQUEST__VERB__STORE_LIST:
        received.respond(ListStore(host_.store));
        return;
    case KAVEL__REQUEST__VERB__STORE_SHOW:
        received.respond(ShowStored(host_.store, request));
        return;
    default:
        received.respond(Refusal(-EINVAL, "unknown verb " + std::to_string(verb)));
    }
}

// Runs `work` now, or after the requests for the VPN that came before. A queued request is handled again from its
// frame.
void Requests::RunInOrder(std::uint32_t vpnId, ReceivedRequest received, bool wasQueued,
                          const std::function<void(const Respond &respond)> &work)
{
    const bool mustWait = !wasQueued && (launches_.IsPending(vpnId) || !queues_.IsEmpty(vpnId));
    if (!mustWait) {
        work(received.respond);
        return;
    }
    if (auto objection = queues_.Objection(vpnId, received.frame.bytes.size())) {
        const Answer answer = RefusalOf(vpnId, -EBUSY, std::move(objection));
        LogOutcome(answer, "");
        received.respond(answer);
        return;
    }
    queues_.Add(vpnId, std::move(received));
}

void Requests::HandleApply(const Kavel__Request &request, ReceivedRequest received, bool wasQueued)
{
    auto unpacked = UnpackControllerMessage(host_.config.platform, MessageOf(request));
    if (!unpacked) {
        received.respond(MalformedMessage(host_.config.platform));
        return;
    }
    const auto message = std::make_shared<const ControllerMessage>(*std::move(unpacked));
    if (!host_.config.Serves(message->vpn)) {
        received.respond(NotConfigured(message->vpn));
    } else {
        RunInOrder(message->vpn, std::move(received), wasQueued,
                   [&](const Respond &respond) { Apply(message, respond); });
    }
}

std::optional<Answer> Requests::ApplyObjection(const ControllerMessage &message) const
{
    if (auto objection = MessageObjection(host_, module_, message)) {
        return objection;
    }
    auto objection = message.reloads ? instances_.ReloadObjection(message.vpn) : std::nullopt;
    return objection ? std::optional(RefusalOf(message.vpn, -ESRCH, std::move(objection))) : std::nullopt;
}

// Calls the module. Whether the message is in force is in `answer.enabled`.
Answer Requests::Configure(const ControllerMessage &message)
{
    const VpnScope scope(host_, message.vpn);
    host_.endedProcesses.clear();
    PrepareNamespaceOrLog(host_, message.vpn);
    StoreChange change(host_.store);
    Answer answer = OutcomeOf(host_, module_.configure(&message.pointer), message.vpn);
    LogOutcome(answer, "applied");
    for (const std::string &process : host_.endedProcesses) {
        AddNote(answer, "also ended " + process);
    }
    if (answer.result >= 0 && !change.Finish()) {
        AddNote(answer, "what was stored before is still stored, and comes back at the next start");
    }
    if (answer.result < 0 && change.IsBegun()) {
        answer.reason = answer.reason.value_or("") +
                        "; the message is in force all the same, and what was stored before is still stored";
    }
    if (answer.result >= 0 || change.IsBegun()) {
        RecordOutcome(instances_, answer, message);
    }
    return answer;
}

void Requests::Apply(const std::shared_ptr<const ControllerMessage> &message, const Respond &respond)
{
    if (const auto objection = ApplyObjection(*message)) {
        LogOutcome(*objection, "");
        respond(*objection);
        return;
    }
    const std::vector<std::string> notes = NotesOn(host_, module_, *message);
    Answer answer = Configure(*message);
    const bool isInForce = answer.enabled.has_value();
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
    if (!queues_.IsEmpty(message.vpn)) {
        drainable_.insert(message.vpn);
        drain_.Enable();
    }
}

// One request per iteration of the loop, until one of them launches an instance again.
void Requests::DrainQueues()
{
    const std::uint32_t vpnId = *drainable_.begin();
    if (auto request = queues_.Take(vpnId)) {
        Dispatch(*std::move(request), true);
    }
    if (queues_.IsEmpty(vpnId) || launches_.IsPending(vpnId)) {
        drainable_.erase(vpnId);
    }
    if (!drainable_.empty()) {
        drain_.Enable();
    }
}

void Requests::Stop()
{
    drainable_.clear();
    drain_.Disable();
    for (const ReceivedRequest &waiting : queues_.TakeAll()) {
        waiting.respond(Refusal(-ECANCELED, "the agent is stopping; nothing was applied"));
    }
    for (const PendingStatus &status : statuses_) {
        status.respond(Refusal(-ECANCELED, "the agent is stopping"));
    }
    statuses_.clear();
    launches_.CancelAll();
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

void Requests::BeginStatus(const Kavel__Request &request, const Respond &respond)
{
    StatusScope scope{{request.vpn}, request.has_vpn == 0};
    if (scope.isAll) {
        scope.vpnIds = {0};
        for (const Vpn &vpn : host_.config.vpns) {
            scope.vpnIds.push_back(vpn.id);
        }
    } else if (!host_.config.Serves(request.vpn)) {
        respond(NotConfigured(request.vpn));
        return;
    }
    if (statuses_.size() >= kStatusesMax) {
        respond(Refusal(-EBUSY, "the agent handles " + std::to_string(kStatusesMax) + " status requests already"));
        return;
    }
    const auto status = statuses_.insert(statuses_.end(), PendingStatus{respond, std::nullopt});
    status->query.emplace(loop_, host_, instances_, launches_, std::move(scope),
                          [this, status](std::vector<VpnStatus> statuses) {
                              Answer answer;
                              answer.vpns = std::move(statuses);
                              status->respond(answer);
                              statuses_.erase(status);
                          });
}

std::optional<Answer> Requests::DirectoryObjection(const Kavel__Request &request) const
{
    if (request.has_vpn == 0) {
        return Refusal(-EINVAL, "no vpn is named");
    }
    if (request.vpn == 0) {
        return Refusal(-EINVAL, "vpn 0 is the box itself and has no directory of its own");
    }
    return host_.config.Serves(request.vpn) ? std::nullopt : std::optional(NotConfigured(request.vpn));
}

void Requests::HandleDirectory(const Kavel__Request &request, ReceivedRequest received, bool wasQueued)
{
    if (const auto objection = DirectoryObjection(request)) {
        received.respond(*objection);
        return;
    }
    RunInOrder(request.vpn, std::move(received), wasQueued, [&](const Respond &respond) {
        const bool isInit = VerbOf(request) == KAVEL__REQUEST__VERB__VPN_INIT;
        respond(isInit ? InitDirectory(request.vpn) : ReleaseDirectory(request.vpn));
    });
}

Answer Requests::InitDirectory(std::uint32_t vpnId) const
{
    const VpnScope scope(host_, vpnId);
    Answer answer = OutcomeOf(host_, module_.initDirectory(vpnId), vpnId);
    LogOutcome(answer, "directory created");
    return answer;
}

Answer Requests::ReleaseDirectory(std::uint32_t vpnId) const
{
    if (instances_.IsRunning(vpnId)) {
        return RefusalOf(vpnId, -EBUSY, "the instance of vpn " + std::to_string(vpnId) + " is running");
    }
    const VpnScope scope(host_, vpnId);
    Answer answer = OutcomeOf(host_, module_.releaseDirectory(vpnId), vpnId);
    LogOutcome(answer, "directory removed");
    return answer;
}

} // namespace kavel::agent
