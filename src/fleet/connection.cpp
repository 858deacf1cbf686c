#include "connection.h"

#include <array>
#include <charconv>
#include <csignal>
#include <random>
#include <utility>

#include "fleet_errors.h"
#include "number.h"

namespace kavel::fleet {

namespace {

constexpr std::array kEndingSignals = {SIGINT, SIGTERM};
// Without a message for so long, a second mark asks whether the first was dropped.
constexpr std::chrono::seconds kProbeAfter{2};
constexpr std::uint16_t kReceiveMaximum = 1024;

std::string RandomText()
{
    constexpr int kHexadecimal = 16;
    std::random_device random;
    const std::uint64_t number = std::uint64_t{random()} << 32U | random();
    std::array<char, kHexadecimal> digits{};
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number, kHexadecimal);
    return {digits.data(), end};
}

// A blocked signal is queued even if it is ignored, as by a shell for a command in the background.
bool IsSignalIgnored(int signal)
{
    struct sigaction action = {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

std::string AddressOf(const broker::Endpoint &endpoint)
{
    return endpoint.host + ":" + std::to_string(endpoint.port);
}

} // namespace

Connection::SignalBlock::SignalBlock()
{
    ::sigemptyset(&blocked_);
    for (const int signal : kEndingSignals) {
        if (!IsSignalIgnored(signal)) {
            ::sigaddset(&blocked_, signal);
        }
    }
    ::pthread_sigmask(SIG_BLOCK, &blocked_, &before_);
}

Connection::SignalBlock::~SignalBlock()
{
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

Connection::Connection(const Console &console, const Settings &settings, Patience patience)
    : console_(console), settings_(settings), patience_(patience),
      clientId_("vqfleet-" + settings.name + "-" + RandomText()), markTopic_("kavel-fleet/" + settings.name + "/mark"),
      session_(loop_, SessionOptions(), SessionEvents()), lastSign_(Clock::now()),
      silence_(loop_.AddTimer([this] { OnSilence(); })), probe_(loop_.AddTimer([this] { OnProbe(); }))
{
    WatchSignals();
}

Connection::~Connection() = default;

broker::Session::Options Connection::SessionOptions() const
{
    return {.endpoint = settings_.endpoint,
            .clientId = clientId_,
            .filters = {markTopic_},
            .will = std::nullopt,
            .receiveMaximum = kReceiveMaximum};
}

broker::Session::Events Connection::SessionEvents()
{
    return {.connected = [this] { OnConnected(); },
            .closed = [this](const std::string &why) { OnClosed(why); },
            .received = [this](const broker::Message &message) { OnReceived(message); },
            .published = [this](std::uint64_t publication,
                                const std::string &problem) { OnPublished(publication, problem); }};
}

void Connection::WatchSignals()
{
    for (const int signal : kEndingSignals) {
        if (::sigismember(&signals_.Blocked(), signal) == 1) {
            signalSources_.push_back(loop_.AddSignal(signal, [signal] { throw Interrupted(signal); }));
        }
    }
}

void Connection::Run(Events events, const std::function<bool()> &isDone)
{
    events_ = std::move(events);
    lastSign_ = Clock::now();
    silence_.ArmTimer(lastSign_ + patience_.limit);
    session_.Start();
    (void)loop_.RunUntil(isDone);
    SayGoodbye();
}

void Connection::SayGoodbye()
{
    bool isGone = false;
    events_ = {};
    silence_.Disable();
    probe_.Disable();
    session_.Stop([&isGone] { isGone = true; });
    (void)loop_.RunUntil([&isGone] { return isGone; });
}

void Connection::OnConnected()
{
    if (!std::exchange(lastProblem_, {}).empty()) {
        Tell(console_, AddressOf(settings_.endpoint) + ": connected again");
    }
    wasConnected_ = true;
    lastSign_ = Clock::now();
    if (events_.connected) {
        events_.connected();
    }
}

void Connection::OnClosed(const std::string &why)
{
    const std::string text = AddressOf(settings_.endpoint) + ": " + why;
    if (!wasConnected_ && !patience_.alsoAtStart) {
        throw BrokerError(text);
    }
    if (lastProblem_ != why) {
        lastSign_ = lastProblem_.empty() && wasConnected_ ? Clock::now() : lastSign_;
        lastProblem_ = why;
        Tell(console_, text + "; trying again for " + std::to_string(patience_.limit.count()) + " s at most");
        silence_.ArmTimer(lastSign_ + patience_.limit);
    }
    unacknowledged_ = 0;
    firstMark_ = 0;
    markPublications_.clear();
    if (events_.closed) {
        events_.closed();
    }
}

void Connection::OnReceived(const broker::Message &message)
{
    lastSign_ = Clock::now();
    if (message.topic == markTopic_) {
        OnMark(message);
    } else if (events_.received) {
        events_.received(message);
    }
}

// Other commands with the same certificate have their marks in the same topic.
void Connection::OnMark(const broker::Message &message)
{
    const std::string_view text(reinterpret_cast<const char *>(message.payload.data()), message.payload.size());
    const std::string prefix = clientId_ + " ";
    const auto mark = text.starts_with(prefix) ? WholeNumber<std::uint64_t>(text.substr(prefix.size())) : std::nullopt;
    if (!mark || firstMark_ == 0 || *mark < firstMark_) {
        return;
    }
    if (*mark > firstMark_) {
        throw BrokerError(AddressOf(settings_.endpoint) +
                          ": the broker has dropped messages, because its queue for a client is too short "
                          "(mosquitto: max_queued_messages)");
    }
    firstMark_ = 0;
    probe_.Disable();
    if (events_.arrived) {
        events_.arrived();
    }
}

void Connection::OnPublished(std::uint64_t publication, const std::string &problem)
{
    unacknowledged_ -= unacknowledged_ > 0 ? 1 : 0;
    if (markPublications_.erase(publication) == 0) {
        lastSign_ = Clock::now();
        if (events_.published) {
            events_.published(publication, problem);
        }
    } else if (!problem.empty()) {
        throw BrokerError(AddressOf(settings_.endpoint) + ": " + markTopic_ + ": refused by the broker: " + problem);
    }
}

bool Connection::IsWaiting() const
{
    return !session_.IsConnected() || unacknowledged_ > 0 || firstMark_ != 0;
}

std::string Connection::SilenceText() const
{
    const std::string text = AddressOf(settings_.endpoint) + ": ";
    if (!session_.IsConnected()) {
        return text + (lastProblem_.empty() ? "no answer" : lastProblem_);
    }
    return text + (firstMark_ != 0 && unacknowledged_ == 0
                       ? markTopic_ + ": what is published there does not come back; may this client read it?"
                       : "the broker does not answer");
}

void Connection::OnSilence()
{
    const Clock::time_point now = Clock::now();
    if (IsWaiting() && now - lastSign_ >= patience_.limit) {
        throw BrokerError(SilenceText());
    }
    silence_.ArmTimer(IsWaiting() ? lastSign_ + patience_.limit : now + patience_.limit);
}

void Connection::SendMark()
{
    if (session_.IsConnected()) {
        firstMark_ = lastMark_ + 1;
        PublishMark();
        probe_.ArmTimer(Clock::now() + kProbeAfter);
    }
}

void Connection::PublishMark()
{
    const std::string text = clientId_ + " " + std::to_string(++lastMark_);
    const auto publication = Publish({.topic = markTopic_, .payload = {text.begin(), text.end()}});
    if (publication) {
        markPublications_.insert(*publication);
    }
}

void Connection::OnProbe()
{
    const Clock::time_point now = Clock::now();
    if (firstMark_ == 0) {
        return;
    }
    const bool isIdle = now - lastSign_ >= kProbeAfter;
    if (isIdle) {
        PublishMark();
    }
    probe_.ArmTimer((isIdle ? now : lastSign_) + kProbeAfter);
}

void Connection::Subscribe(const std::vector<std::string> &filters)
{
    session_.Subscribe(filters);
}

void Connection::Unsubscribe(const std::vector<std::string> &filters)
{
    session_.Unsubscribe(filters);
}

std::optional<std::uint64_t> Connection::Publish(const broker::Message &message)
{
    const auto publication = session_.Publish(message);
    if (publication) {
        lastSign_ = IsWaiting() ? lastSign_ : Clock::now();
        ++unacknowledged_;
    }
    return publication;
}

} // namespace kavel::fleet
