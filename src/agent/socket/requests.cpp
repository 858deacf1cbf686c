#include "socket/requests.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "base/log.h"
#include "base/netns.h"
#include "instances/instances.h"
#include "services/interfaces_netlink.h"
#include "services/routes_netlink.h"
#include "services/store.h"
#include "socket/controller_message.h"
#include "socket/store_requests.h"
#include "vqMemory.h"

namespace kavel::agent {
namespace {

constexpr std::chrono::milliseconds kStartPatience{2000};

struct RecordRelease {
    void operator()(VQ_DNSMASQ_CONF *record) const { VQ_AgentMemFree(record); }
};

Answer RefusalOf(std::uint32_t vpnId, std::int32_t result, std::string why)
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

// What the module does not look at and must not get.
std::optional<Answer> Objection(Platform platform, const ControllerMessage &message)
{
    auto hazard = platform == Platform::kCpe ? InterfaceNameHazard(*message.pointer.cpe) : std::nullopt;
    return hazard ? std::optional(RefusalOf(message.vpn, -EINVAL, std::move(*hazard))) : std::nullopt;
}

// The enumeration has no room for the negative numbers that a peer can send.
std::int32_t VerbOf(const Kavel__Request &request)
{
    std::int32_t verb = 0;
    static_assert(sizeof verb == sizeof request.verb);
    std::memcpy(&verb, &request.verb, sizeof verb);
    return verb;
}

// The outcome of a call of the module, with what the module itself said about it.
Answer Outcome(std::int32_t result, std::uint32_t vpnId)
{
    Answer answer;
    answer.result = result;
    answer.vpn = vpnId;
    if (result < 0) {
        answer.reason = ModuleErrors().Cause(result);
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
    const std::string &why = answer.reason.empty() ? answer.text : answer.reason;
    Log(LogLevel::kWarning, "vpn %u: refused (%d %s)%s%s", vpnId, answer.result, std::strerror(-answer.result),
        why.empty() ? "" : ": ", why.c_str());
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

// It does not undo what was applied.
void TellTrouble(Answer &answer, const char *wrong)
{
    answer.text = wrong;
    Log(LogLevel::kError, "vpn %u: %s", answer.vpn.value_or(0), wrong);
}

// After a message has come into force.
void Settle(Answer &answer, const ControllerMessage &message)
{
    SetMeantToRun(message.vpn, message.enables);
    answer.awaitsLaunch = message.launches;
    if (message.reloads && !IsRunning(message.vpn)) {
        TellTrouble(answer, "no instance runs, and a reload starts none");
    } else if (!message.enables && IsRunning(message.vpn)) {
        TellTrouble(answer, "the instance still runs");
    }
}

} // namespace

int PrepareNamespace(std::uint32_t vpnId)
{
    if (vpnId == 0) {
        return 0; // the box's own namespace is not the agent's to change
    }
    const int loopback = BringLoopbackUp(vpnId);
    return loopback < 0 ? loopback : EnsurePolicyRule(vpnId);
}

void Requests::Handle(std::span<const std::uint8_t> frame, const Respond &respond) const
{
    const ProtobufMessage envelope = UnpackProtobuf(kavel__request__descriptor, frame);
    if (!envelope) {
        respond(Refusal(-EINVAL, "not a request"));
        return;
    }
    Answer answer = AnswerTo(*reinterpret_cast<const Kavel__Request *>(envelope.get()));
    if (!answer.awaitsLaunch) {
        respond(answer);
        return;
    }
    launches_.Add(answer.vpn.value_or(0), kStartPatience, [answer, respond](bool isUp) mutable {
        if (!isUp) {
            TellTrouble(answer, "the instance did not come up");
        }
        respond(answer);
    });
}

Answer Requests::AnswerTo(const Kavel__Request &request) const
{
    BeginRound();
    ModuleErrors().Clear();
    const std::span<const std::uint8_t> message(request.message.data,
                                                request.has_message != 0 ? request.message.len : 0);
    const std::int32_t verb = VerbOf(request);
    switch (verb) {
    case KAVEL__REQUEST__VERB__APPLY:
        return Apply(message);
    case KAVEL__REQUEST__VERB__CHECK:
        return Check(message);
    case KAVEL__REQUEST__VERB__STATUS:
        return Status(request);
    case KAVEL__REQUEST__VERB__VPN_INIT:
        return InitDirectory(request);
    case KAVEL__REQUEST__VERB__VPN_RELEASE:
        return ReleaseDirectory(request);
    case KAVEL__REQUEST__VERB__STORE_LIST:
        return ListStore();
    case KAVEL__REQUEST__VERB__STORE_SHOW:
        return ShowStored(request);
    default:
        return Refusal(-EINVAL, "unknown verb " + std::to_string(verb));
    }
}

Answer Requests::Apply(std::span<const std::uint8_t> message) const
{
    const auto unpacked = UnpackControllerMessage(config_.platform, message);
    if (!unpacked) {
        return MalformedMessage(config_.platform);
    }
    const std::uint32_t vpnId = unpacked->vpn;
    if (!config_.Serves(vpnId)) {
        return NotConfigured(vpnId);
    }
    launches_.Await(vpnId); // the module finds an instance by its pid file, which is still to come
    if (auto objection = Objection(config_.platform, *unpacked)) {
        LogOutcome(*objection, "");
        return *objection;
    }
    if (auto hazard = unpacked->reloads ? ReloadHazard(vpnId) : std::nullopt) {
        Answer answer = RefusalOf(vpnId, -ESRCH, std::move(*hazard));
        LogOutcome(answer, "");
        return answer;
    }
    const int prepared = PrepareNamespace(vpnId);
    if (prepared < 0) {
        Log(LogLevel::kWarning, "vpn %u: its namespace is not ready: %s", vpnId, std::strerror(-prepared));
    }
    StoreChange change;
    Answer answer = Outcome(module_.configure(&unpacked->pointer), vpnId);
    LogOutcome(answer, "applied");
    if (answer.result >= 0 && change.Finish() < 0) {
        answer.text = "what was stored before is still stored, and comes back at the next start";
    }
    if (answer.result < 0 && change.Begun()) {
        answer.reason += "; the message is in force all the same, and what was stored before is still stored";
    }
    if (answer.result >= 0 || change.Begun()) {
        Settle(answer, *unpacked);
    }
    return answer;
}

Answer Requests::Check(std::span<const std::uint8_t> message) const
{
    if (module_.translate == nullptr) {
        return Refusal(-EOPNOTSUPP, "the module cannot check a message of this platform");
    }
    const auto unpacked = UnpackControllerMessage(config_.platform, message);
    if (!unpacked) {
        return MalformedMessage(config_.platform);
    }
    if (auto objection = Objection(config_.platform, *unpacked)) {
        return *objection;
    }
    const std::unique_ptr<VQ_DNSMASQ_CONF, RecordRelease> record(
        static_cast<VQ_DNSMASQ_CONF *>(VQ_AgentMemZeroAlloc(sizeof(VQ_DNSMASQ_CONF))));
    if (!record) {
        return Refusal(-ENOMEM, "");
    }
    Answer answer = Outcome(module_.translate(&unpacked->pointer, record.get()), unpacked->vpn);
    if (answer.result >= 0) {
        answer.summary = Summarise(*record);
    }
    return answer;
}

Answer Requests::Status(const Kavel__Request &request) const
{
    std::vector<std::uint32_t> vpnIds;
    if (request.has_vpn != 0) {
        if (!config_.Serves(request.vpn)) {
            return NotConfigured(request.vpn);
        }
        vpnIds.push_back(request.vpn);
        launches_.Await(request.vpn);
    } else {
        launches_.AwaitAll();
        vpnIds.push_back(0);
        for (const Vpn &vpn : config_.vpns) {
            vpnIds.push_back(vpn.id);
        }
    }
    Answer answer;
    answer.vpns = StatusOf(vpnIds);
    if (request.has_vpn == 0) {
        std::ranges::move(StatusOfStrays(), std::back_inserter(answer.vpns));
    }
    return answer;
}

std::optional<Answer> Requests::DirectoryObjection(const Kavel__Request &request) const
{
    if (request.has_vpn == 0) {
        return Refusal(-EINVAL, "no vpn is named");
    }
    if (request.vpn == 0) {
        return Refusal(-EINVAL, "vpn 0 is the box itself and has no directory of its own");
    }
    return config_.Serves(request.vpn) ? std::nullopt : std::optional(NotConfigured(request.vpn));
}

Answer Requests::InitDirectory(const Kavel__Request &request) const
{
    if (auto objection = DirectoryObjection(request)) {
        return *objection;
    }
    Answer answer = Outcome(module_.initDirectory(request.vpn), request.vpn);
    LogOutcome(answer, "directory made");
    return answer;
}

Answer Requests::ReleaseDirectory(const Kavel__Request &request) const
{
    if (auto objection = DirectoryObjection(request)) {
        return *objection;
    }
    launches_.Await(request.vpn);
    if (IsRunning(request.vpn)) {
        return RefusalOf(request.vpn, -EBUSY, "the instance of vpn " + std::to_string(request.vpn) + " is running");
    }
    Answer answer = Outcome(module_.releaseDirectory(request.vpn), request.vpn);
    LogOutcome(answer, "directory removed");
    return answer;
}

} // namespace kavel::agent
