#include "socket/requests.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "failure.h"
#include "log.h"
#include "socket/export_requests.h"
#include "socket/request_answers.h"
#include "socket/store_requests.h"

namespace kavel::agent {
namespace {

// As many as there can be clients. Clients that have disconnected do not cancel theirs.
constexpr std::size_t kQueriesMax = 64;

// The generated enumeration has no negative values, but a client can send them.
std::int32_t VerbOf(const Kavel__Request &request)
{
    std::int32_t verb = 0;
    static_assert(sizeof verb == sizeof request.verb);
    std::memcpy(&verb, &request.verb, sizeof verb);
    return verb;
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
                   PendingLaunches &launches, Supervisor &supervisor, AgentFacts facts)
    : loop_(loop), host_(host), instances_(instances), module_(module), launches_(launches), supervisor_(supervisor),
      facts_(std::move(facts)), drain_(loop.AddDeferred([this] { DrainQueues(); })), logOverride_(loop, host.config.log)
{
    supervisor.OnFree([this](std::uint32_t vpnId) { BeginDraining(vpnId); });
    supervisor.OnUnconfirmed([this](std::uint32_t vpnId) { return BeginUndo(vpnId); });
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
    if (!IsAllowed(verb, received.frame.access)) {
        received.respond(Refusal(-EACCES, RefusalText(received.frame.access)));
        return;
    }
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
    case KAVEL__REQUEST__VERB__WHY:
        BeginWhy(request, received.respond);
        return;
    case KAVEL__REQUEST__VERB__METRICS:
        BeginMetrics(received.respond);
        return;
    case KAVEL__REQUEST__VERB__QUERY:
        BeginClientQuery(request, received.respond);
        return;
    case KAVEL__REQUEST__VERB__REPAIR:
        BeginRepair(request, received.respond);
        return;
    case KAVEL__REQUEST__VERB__STOP:
        HandleStop(request, std::move(received), wasQueued);
        return;
    case KAVEL__REQUEST__VERB__FLUSH:
        HandleFlush(request, std::move(received), wasQueued);
        return;
    case KAVEL__REQUEST__VERB__LOG_LEVEL:
        received.respond(HandleLogLevel(request, received.frame.sender));
        return;
    case KAVEL__REQUEST__VERB__CHECK:
        received.respond(Check(MessageOf(request)));
        return;
    case KAVEL__REQUEST__VERB__STORE_LIST:
        received.respond(ListStore(host_.store));
        return;
    case KAVEL__REQUEST__VERB__STORE_SHOW:
        received.respond(ShowStored(host_, request));
        return;
    case KAVEL__REQUEST__VERB__CONFIRM:
        HandleConfirm(request, std::move(received), wasQueued);
        return;
    case KAVEL__REQUEST__VERB__STORE_EXPORT:
        received.respond(ExportStored(host_, module_, request));
        return;
    case KAVEL__REQUEST__VERB__HISTORY:
        received.respond(ListHistory(host_, request));
        return;
    case KAVEL__REQUEST__VERB__IN_FORCE:
        received.respond(InForceAnswer(request));
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
    const bool mustWait = !wasQueued && (supervisor_.IsBusy(vpnId) || !queues_.IsEmpty(vpnId));
    if (!mustWait) {
        work(received.respond);
        return;
    }
    if (auto objection = queues_.Objection(vpnId, received.frame.bytes.size())) {
        Answer answer = RefusalForNow(-EBUSY, *std::move(objection));
        answer.vpn = vpnId;
        LogOutcome(answer, "");
        received.respond(answer);
        return;
    }
    queues_.Add(vpnId, std::move(received));
}

void Requests::BeginDraining(std::uint32_t vpnId)
{
    if (!queues_.IsEmpty(vpnId)) {
        drainable_.insert(vpnId);
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
    if (queues_.IsEmpty(vpnId) || supervisor_.IsBusy(vpnId)) {
        drainable_.erase(vpnId);
    }
    if (!drainable_.empty()) {
        drain_.Enable();
    }
}

template <typename Query>
void Requests::RefuseAll(std::list<PendingQuery<Query>> &queries)
{
    for (const PendingQuery<Query> &query : queries) {
        query.respond(RefusalForNow(-ECANCELED, "the agent is stopping"));
    }
    queries.clear();
}

void Requests::Stop()
{
    drainable_.clear();
    drain_.Disable();
    for (const ReceivedRequest &waiting : queues_.TakeAll()) {
        waiting.respond(RefusalForNow(-ECANCELED, "the agent is stopping; nothing was applied"));
    }
    RefuseAll(statuses_);
    RefuseAll(whys_);
    RefuseAll(metrics_);
    RefuseAll(clientQueries_);
    launches_.CancelAll();
}

std::vector<std::uint32_t> Requests::ServedVpns() const
{
    std::vector<std::uint32_t> vpnIds{0};
    for (const Vpn &vpn : host_.config.vpns) {
        vpnIds.push_back(vpn.id);
    }
    return vpnIds;
}

void Requests::BeginRepair(const Kavel__Request &request, const Respond &respond)
{
    if (request.has_vpn != 0 && !host_.config.Serves(request.vpn)) {
        respond(NotConfigured(request.vpn));
        return;
    }
    const bool isAll = request.has_vpn == 0;
    supervisor_.RepairNow(isAll ? ServedVpns() : std::vector{request.vpn},
                          [respond](const Supervisor::RepairReport &report) {
                              Answer answer;
                              answer.notes = report.notes;
                              for (const std::string &problem : report.problems) {
                                  answer.text = answer.text ? *answer.text + "; " + problem : problem;
                              }
                              respond(answer);
                          });
}

void Requests::HandleStop(const Kavel__Request &request, ReceivedRequest received, bool wasQueued)
{
    if (request.has_vpn == 0 || !host_.config.Serves(request.vpn)) {
        received.respond(request.has_vpn == 0 ? Refusal(-EINVAL, "no vpn is named") : NotConfigured(request.vpn));
        return;
    }
    RunInOrder(request.vpn, std::move(received), wasQueued, [&](const Respond &respond) {
        Answer answer;
        answer.vpn = request.vpn;
        answer.text = supervisor_.TakeDown(request.vpn);
        respond(answer);
    });
}

// The scope of a request about a VPN, or about all of them. A refusal when there is none.
std::variant<StatusScope, Answer> Requests::ScopeOf(const Kavel__Request &request) const
{
    if (request.has_vpn != 0 && !host_.config.Serves(request.vpn)) {
        return NotConfigured(request.vpn);
    }
    if (pendingQueries_ >= kQueriesMax) {
        return RefusalForNow(-EBUSY, "the agent handles " + std::to_string(kQueriesMax) + " status requests already");
    }
    const bool isAll = request.has_vpn == 0;
    return StatusScope{isAll ? ServedVpns() : std::vector{request.vpn}, isAll};
}

template <typename Query, typename Fill>
void Requests::BeginQuery(std::list<PendingQuery<Query>> &queries, const Kavel__Request &request,
                          const Respond &respond, Fill fill)
{
    auto scope = ScopeOf(request);
    if (const Answer *refusal = std::get_if<Answer>(&scope)) {
        respond(*refusal);
        return;
    }
    const auto query = queries.insert(queries.end(), PendingQuery<Query>{respond, std::nullopt});
    ++pendingQueries_;
    query->query.emplace(loop_, host_, instances_, supervisor_, std::get<StatusScope>(std::move(scope)),
                         [this, &queries, query, fill](std::vector<VpnStatus> statuses) {
                             Answer answer;
                             fill(answer, std::move(statuses));
                             answer.start = supervisor_.Progress();
                             query->respond(answer);
                             --pendingQueries_;
                             queries.erase(query);
                         });
}

// While the agent is starting, what is stored may not be in force yet.
Answer Requests::InForceAnswer(const Kavel__Request &request)
{
    if (request.has_vpn == 0 || !host_.config.Serves(request.vpn)) {
        return request.has_vpn == 0 ? Refusal(-EINVAL, "no vpn is named") : NotConfigured(request.vpn);
    }
    if (const auto progress = supervisor_.Progress(); progress && supervisor_.IsBusy(request.vpn)) {
        Answer starting = RefusalForNow(-EAGAIN, "the agent is starting");
        starting.vpn = request.vpn;
        starting.start = progress;
        return starting;
    }
    return ShowInForce(host_, module_, instances_, request);
}

void Requests::BeginStatus(const Kavel__Request &request, const Respond &respond)
{
    BeginQuery(statuses_, request, respond, [this](Answer &answer, std::vector<VpnStatus> statuses) {
        answer.vpns = std::move(statuses);
        answer.agent = StatusOfAgent(facts_);
    });
}

void Requests::BeginWhy(const Kavel__Request &request, const Respond &respond)
{
    BeginQuery(whys_, request, respond,
               [](Answer &answer, std::vector<VpnStatus> statuses) { answer.findingsOf = std::move(statuses); });
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
