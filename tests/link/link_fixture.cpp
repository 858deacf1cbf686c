#include "link_fixture.h"

#include <algorithm>
#include <utility>

namespace kavel::link {

void FakeAgent::Send(const Kavel__Request &request)
{
    SentRequest sent;
    sent.verb = request.verb;
    sent.message.assign(request.message.data, request.message.data + request.message.len);
    sent.vpn = request.has_vpn != 0 ? std::optional(request.vpn) : std::nullopt;
    sent.revision = request.revision != nullptr ? request.revision : "";
    sent.isOnlyNewer = request.has_only_newer != 0 && request.only_newer != 0;
    sent.isForPop = request.has_pop != 0 ? std::optional(request.pop != 0) : std::nullopt;
    EXPECT_TRUE(requests.empty()) << "a request is under way";
    requests.push_back(std::move(sent));
}

std::optional<std::uint64_t> FakeBroker::Publish(const broker::Message &message)
{
    if (!isConnected) {
        return std::nullopt;
    }
    publications.push_back({++last_, message.topic, {message.payload.begin(), message.payload.end()}});
    return last_;
}

namespace {

// A status as a message, with what it points at.
class StatusMessage {
  public:
    explicit StatusMessage(FakeStatus status) : status_(std::move(status))
    {
        kavel__vpn_status__init(&message);
        message.vpn = status_.vpn;
        message.namespace_ = status_.netns.data();
        message.meant = status_.isMeant ? 1 : 0;
        message.alive = message.is_dnsmasq = status_.isRunning ? 1 : 0;
        message.has_starting = message.starting = status_.isStarting ? 1 : 0;
        message.revision = status_.revision.empty() ? nullptr : status_.revision.data();
        SetLast();
        kavel__finding__init(&finding_);
        finding_.text = status_.problem.data();
        message.problems = findings_.data();
        message.n_problems = status_.problem.empty() ? 0 : 1;
    }

    Kavel__VpnStatus message{};

  private:
    void SetLast()
    {
        kavel__history_entry__init(&entry_);
        entry_.time = kUnixTime - 100;
        entry_.revision = status_.lastRevision.data();
        entry_.result = status_.lastResult;
        entry_.outcome = status_.lastOutcome.data();
        message.last_numbered = status_.lastRevision.empty() ? nullptr : &entry_;
    }

    FakeStatus status_;
    Kavel__HistoryEntry entry_{};
    Kavel__Finding finding_{};
    std::array<Kavel__Finding *, 1> findings_{&finding_};
};

std::string ReportTopic(std::uint32_t vpn)
{
    return "kavel/branch-1/reported/" + std::to_string(vpn);
}

} // namespace

void WithStatusReply(const std::vector<FakeStatus> &statuses, bool isStarting,
                     const std::function<void(const Kavel__Reply &reply)> &use)
{
    std::deque<StatusMessage> messages;
    std::vector<Kavel__VpnStatus *> pointers;
    for (const FakeStatus &status : statuses) {
        pointers.push_back(&messages.emplace_back(status).message);
    }
    Kavel__Start start = KAVEL__START__INIT;
    Kavel__Reply reply = KAVEL__REPLY__INIT;
    reply.vpns = pointers.data();
    reply.n_vpns = pointers.size();
    reply.start = isStarting ? &start : nullptr;
    use(reply);
}

void LinkTest::ConnectAll(const std::vector<FakeStatus> &statuses)
{
    ConnectBroker();
    link_.AgentConnected();
    AnswerStatus(statuses);
}

void LinkTest::ConnectBroker()
{
    broker_.isConnected = true;
    link_.BrokerConnected();
}

void LinkTest::CloseBroker()
{
    broker_.isConnected = false;
    broker_.publications.clear();
    texts_.clear();
    link_.BrokerClosed("the connection was closed");
}

void LinkTest::Receive(std::uint32_t vpn, const std::string &revision, const std::string &payload)
{
    ReceiveMessage({"kavel/branch-1/desired/" + std::to_string(vpn),
                    {payload.begin(), payload.end()},
                    true,
                    {{"revision", revision}, {"platform", "cpe"}}});
}

SentRequest LinkTest::Request()
{
    EXPECT_TRUE(HasRequest()) << "the agent has no request";
    return HasRequest() ? agent_.requests.front() : SentRequest();
}

void LinkTest::Answer(std::int32_t result, const Fill &fill)
{
    ASSERT_TRUE(HasRequest()) << "the agent has no request";
    agent_.requests.pop_front();
    Kavel__Reply reply = KAVEL__REPLY__INIT;
    reply.result = result;
    if (fill) {
        fill(reply);
    }
    link_.Answered(reply);
}

void LinkTest::AnswerApplied()
{
    std::string revision = Request().revision;
    Answer(0, [&](Kavel__Reply &reply) {
        reply.has_enabled = reply.enabled = 1;
        reply.has_running = reply.running = 1;
        reply.in_force_revision = revision.data();
    });
}

void LinkTest::AnswerRefused(const std::string &reason)
{
    std::string text = reason;
    Answer(-EINVAL, [&](Kavel__Reply &reply) { reply.text = text.data(); });
}

void LinkTest::AnswerStatus(const std::vector<FakeStatus> &statuses, bool isStarting)
{
    EXPECT_EQ(Request().verb, KAVEL__REQUEST__VERB__STATUS);
    agent_.requests.pop_front();
    WithStatusReply(statuses, isStarting, [this](const Kavel__Reply &reply) { link_.Answered(reply); });
}

void LinkTest::WaitForStatus()
{
    Pass(Link::kStatusInterval);
    EXPECT_EQ(Request().verb, KAVEL__REQUEST__VERB__STATUS);
}

void LinkTest::Pass(std::chrono::milliseconds time)
{
    now_ += time;
    const auto next = link_.NextTime();
    if (next && *next <= now_) {
        link_.OnTime();
    }
}

void LinkTest::Acknowledge(const std::string &problem)
{
    for (const Publication &publication : std::exchange(broker_.publications, {})) {
        if (problem.empty()) {
            texts_[publication.topic] = publication.text;
        }
        link_.Published(publication.number, problem);
    }
}

std::string LinkTest::LastText(const std::string &topic)
{
    while (!broker_.publications.empty()) {
        Acknowledge();
    }
    return texts_[topic];
}

std::optional<broker::Report> LinkTest::LastReport(std::uint32_t vpn)
{
    const std::string text = LastText(ReportTopic(vpn));
    return text.empty() ? std::nullopt : std::optional(broker::ParseReport(text));
}

} // namespace kavel::link
