#include "link.h"

#include <algorithm>
#include <utility>

#include "agent_answers.h"
#include "log.h"
#include "presence.h"
#include "topics.h"

namespace kavel::link {

namespace {

// As many messages as the broker may send at once.
constexpr std::size_t kAskedAgainMax = 8;

std::string OutcomeOf(const broker::Report &report)
{
    const std::string outcome{broker::NameOf(*report.result)};
    return report.reason.empty() ? outcome : outcome + ": " + report.reason;
}

} // namespace

Link::Link(Options options, AgentPort &agent, BrokerPort &broker)
    : options_(std::move(options)), agent_(agent), broker_(broker), reports_(broker)
{
}

// The broker sends all retained messages now, also those that were missed.
void Link::BrokerConnected()
{
    isBrokerConnected_ = true;
    connectedSince_ = options_.unixTime();
    for (auto &[vpnId, vpn] : vpns_) {
        vpn.isMissed = false;
    }
    brokerLog_.Write(options_.now(), LogLevel::kNotice, "the broker is connected");
    TellPresence();
    reports_.Connected();
}

void Link::BrokerClosed(const std::string &why)
{
    isBrokerConnected_ = false;
    brokerLog_.Write(options_.now(), LogLevel::kWarning, "the broker: " + why);
    reports_.Closed();
    EndLeaving();
}

void Link::Received(broker::Message message)
{
    if (isLeaving_) {
        return;
    }
    auto incoming = ReadDesired(options_.box, std::move(message));
    if (const Unusable *unusable = std::get_if<Unusable>(&incoming)) {
        Drop(*unusable);
    } else {
        Take(std::get<Desired>(std::move(incoming)));
        Work();
    }
}

void Link::Published(std::uint64_t publication, const std::string &problem)
{
    reports_.Published(publication, problem);
    EndLeaving();
}

Link::Vpn *Link::FindOrAdd(std::uint32_t vpnId)
{
    const auto found = vpns_.find(vpnId);
    if (found != vpns_.end()) {
        return &found->second;
    }
    return vpns_.size() < kVpnsMax ? &vpns_[vpnId] : nullptr;
}

void Link::Drop(const Unusable &unusable)
{
    const std::string subject = unusable.vpn ? "vpn " + std::to_string(*unusable.vpn) + ": " : std::string();
    drops_.Write(options_.now(), subject + "a message is dropped: " + unusable.problem);
    Vpn *vpn = unusable.vpn ? FindOrAdd(*unusable.vpn) : nullptr;
    if (vpn != nullptr) {
        vpn->report.problem = unusable.problem;
        Tell(*unusable.vpn, *vpn);
    }
}

void Link::Take(Desired message)
{
    const std::uint32_t vpnId = message.vpn;
    const broker::Revision revision = message.revision;
    Vpn *vpn = FindOrAdd(vpnId);
    if (vpn == nullptr) {
        return Drop({std::nullopt, "vpn " + std::to_string(vpnId) + ": there are messages for more than " +
                                       std::to_string(kVpnsMax) + " VPNs"});
    }
    vpn->report.problem.clear();
    if (revision <= vpn->newest) {
        Log(LogLevel::kDebug, "vpn %u: revision %s is not newer than %s", vpnId, std::to_string(revision).c_str(),
            std::to_string(vpn->newest).c_str());
        return Tell(vpnId, *vpn);
    }
    if (waiting_.Put(std::move(message))) {
        vpn->newest = revision;
        return Tell(vpnId, *vpn);
    }
    vpn->newest = std::max(vpn->answered, revision - 1);
    vpn->isMissed = true;
    Drop({vpnId, "revision " + std::to_string(revision) + ": the messages that wait have more than " +
                     std::to_string(WaitingMessages::kBytesMax) + " bytes; it is asked for again"});
}

void Link::AgentConnected()
{
    isAgentConnected_ = true;
    isFirstStatus_ = true;
    statusAt_ = options_.now();
    Work();
}

void Link::AgentClosed(const std::string &why)
{
    isAgentConnected_ = false;
    isAgentAnswering_ = false;
    isStatusUnderWay_ = false;
    agentLog_.Write(options_.now(), LogLevel::kWarning, "the agent: " + why);
    if (auto message = std::exchange(applying_, std::nullopt)) {
        waiting_.PutBack(*std::move(message), options_.now());
    }
    TellPresence();
}

void Link::Answered(const Kavel__Reply &reply)
{
    if (!std::exchange(isAgentAnswering_, true)) {
        agentLog_.Write(options_.now(), LogLevel::kNotice, "the agent answers");
        TellPresence();
    }
    if (auto message = std::exchange(applying_, std::nullopt)) {
        TakeApplied(*std::move(message), reply);
    } else if (std::exchange(isStatusUnderWay_, false)) {
        TakeStatuses(reply);
    }
    Work();
}

std::optional<Link::Time> Link::NextTime() const
{
    if (!isAgentConnected_ || isLeaving_ || isStatusUnderWay_ || applying_) {
        return std::nullopt;
    }
    return std::min(statusAt_, waiting_.NextTime().value_or(Time::max()));
}

void Link::Work()
{
    if (!isAgentConnected_ || isLeaving_ || isStatusUnderWay_ || applying_) {
        return;
    }
    const Time now = options_.now();
    if (now >= statusAt_) {
        AskStatus();
    } else if (auto message = waiting_.TakeNext(now)) {
        Apply(*std::move(message));
    }
}

void Link::AskStatus()
{
    Kavel__Request request = KAVEL__REQUEST__INIT;
    request.verb = KAVEL__REQUEST__VERB__STATUS;
    isStatusUnderWay_ = true;
    agent_.Send(request);
}

void Link::Apply(Desired message)
{
    std::string revision = std::to_string(message.revision);
    Kavel__Request request = KAVEL__REQUEST__INIT;
    request.verb = KAVEL__REQUEST__VERB__APPLY;
    request.has_message = 1;
    request.message = {message.payload.size(), message.payload.data()};
    request.has_vpn = 1;
    request.vpn = message.vpn;
    request.revision = revision.data();
    request.has_only_newer = request.only_newer = 1;
    request.has_pop = message.isForPop ? 1 : 0;
    request.pop = message.isForPop.value_or(false) ? 1 : 0;
    agent_.Send(request);
    applying_ = std::move(message);
}

void Link::TakeApplied(Desired message, const Kavel__Reply &reply)
{
    if (reply.has_retry != 0 && reply.retry != 0) {
        Log(LogLevel::kNotice, "vpn %u: revision %s is tried again later: %s", message.vpn,
            std::to_string(message.revision).c_str(), reply.text != nullptr ? reply.text : "");
        return waiting_.PutBack(std::move(message), options_.now());
    }
    waiting_.Answered(message.vpn);
    Vpn &vpn = vpns_[message.vpn];
    vpn.answered = message.revision;
    vpn.isUnknown = reply.has_unknown_vpn != 0 && reply.unknown_vpn != 0;
    TakeAnswer(vpn.report, reply, message.revision, options_.unixTime());
    const bool isOwn = vpn.report.revision == message.revision;
    Log(LogLevel::kNotice, "vpn %u: revision %s is %s", message.vpn, std::to_string(message.revision).c_str(),
        isOwn ? OutcomeOf(vpn.report).c_str() : "not newer than the last one");
    Tell(message.vpn, vpn);
}

void Link::TakeStatuses(const Kavel__Reply &reply)
{
    statusAt_ = options_.now() + kStatusInterval;
    if (reply.result < 0) {
        const std::string why = reply.text != nullptr ? reply.text : "it gives no reason";
        agentLog_.Write(options_.now(), LogLevel::kWarning, "the agent does not say its status: " + why);
        return;
    }
    reports_.TryRefusedAgain();
    // While the agent starts, what will be in force is not yet.
    if (reply.start == nullptr) {
        for (std::size_t i = 0; i < reply.n_vpns; ++i) {
            TakeStatusOf(*reply.vpns[i]);
        }
        isFirstStatus_ = false;
    }
    AskForMissed();
}

// A report that a link before this one has published, or could not publish, is made again.
void Link::TakeStatusOf(const Kavel__VpnStatus &status)
{
    const bool isToBeTold = vpns_.contains(status.vpn) || LastHandled(status) != 0;
    Vpn *vpn = isToBeTold ? FindOrAdd(status.vpn) : nullptr;
    if (vpn == nullptr) {
        return;
    }
    // The agent does not know of what it has answered: what it had stored is lost, or the VPN is configured only now.
    const bool isLost = isFirstStatus_ ? LastHandled(status) < vpn->answered : vpn->isUnknown && IsConfigured(status);
    if (isLost && vpn->newest == vpn->answered) {
        vpn->newest = vpn->answered = 0;
        vpn->isUnknown = false;
        vpn->isMissed = true;
    }
    TakeStatus(vpn->report, status);
    Tell(status.vpn, *vpn);
}

void Link::AskForMissed()
{
    if (!isBrokerConnected_ || !waiting_.IsEmpty()) {
        return;
    }
    std::size_t asked = 0;
    for (auto &[vpnId, vpn] : vpns_) {
        if (asked < kAskedAgainMax && std::exchange(vpn.isMissed, false)) {
            ++asked;
            broker_.AskAgain(broker::TopicText({broker::TopicKind::kDesired, options_.box, vpnId}));
        }
    }
}

void Link::Tell(std::uint32_t vpnId, const Vpn &vpn)
{
    if (!isLeaving_ && (vpn.report.revision || !vpn.report.problem.empty())) {
        reports_.Put(broker::TopicText({broker::TopicKind::kReported, options_.box, vpnId}),
                     broker::ReportText(vpn.report));
    }
}

void Link::TellPresence()
{
    if (isBrokerConnected_ && !isLeaving_) {
        reports_.Put(broker::TopicText({broker::TopicKind::kOnline, options_.box, 0}),
                     broker::PresenceText({true, isAgentAnswering_, options_.version, connectedSince_}));
    }
}

void Link::Leave(std::function<void()> onDone)
{
    isLeaving_ = true;
    onLeft_ = std::move(onDone);
    reports_.Put(broker::TopicText({broker::TopicKind::kOnline, options_.box, 0}),
                 broker::PresenceText(broker::Presence()));
    EndLeaving();
}

void Link::EndLeaving()
{
    const bool isOver =
        !isBrokerConnected_ || reports_.IsPublished(broker::TopicText({broker::TopicKind::kOnline, options_.box, 0}));
    if (isLeaving_ && isOver && onLeft_) {
        std::exchange(onLeft_, nullptr)();
    }
}

std::string Link::StateText() const
{
    std::string text = isBrokerConnected_ ? "the broker is connected, " : "the broker is not connected, ";
    text += isAgentAnswering_ ? "the agent answers" : "the agent does not answer";
    const std::size_t count = waiting_.Count();
    return count == 0 ? text : text + ", " + std::to_string(count) + (count == 1 ? " message waits" : " messages wait");
}

} // namespace kavel::link
