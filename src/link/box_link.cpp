#include "box_link.h"

#include <chrono>
#include <ctime>
#include <utility>

#include "presence.h"
#include "topics.h"

namespace kavel::link {

namespace {

// Until the broker has acknowledged that the box is not online any more.
constexpr std::chrono::seconds kLeaveMax{2};

broker::Session::Options SessionOptions(const BoxLink::Options &options)
{
    const std::string offline = broker::PresenceText(broker::Presence());
    broker::Session::Options session;
    session.endpoint = options.broker;
    session.clientId = options.box;
    session.filters = {broker::TopicFilter(broker::TopicKind::kDesired, options.box)};
    session.will = broker::Message{.topic = broker::TopicText({broker::TopicKind::kOnline, options.box, 0}),
                                   .payload = {offline.begin(), offline.end()}};
    return session;
}

Link::Options LinkOptions(const BoxLink::Options &options)
{
    return {options.box, options.version, [] { return EventLoop::Clock::now(); }, [] { return std::time(nullptr); }};
}

} // namespace

// Only a subscription makes the broker send what it retains. The subscription to all VPNs stays.
void BoxLink::SessionPort::AskAgain(const std::string &topic)
{
    session_.Subscribe({topic});
    session_.Unsubscribe({topic});
}

BoxLink::BoxLink(EventLoop &loop, const Options &options, std::unique_ptr<AgentPort> agent,
                 std::function<void(const std::string &state)> onState)
    : agent_(std::move(agent)), onState_(std::move(onState)), session_(loop, SessionOptions(options), SessionEvents()),
      link_(LinkOptions(options), *agent_, port_), timer_(loop.AddTimer([this] {
          link_.OnTime();
          AfterEvent();
      })),
      stopTimer_(loop.AddTimer([this] { StopSession(); }))
{
}

template <typename... Argument>
std::function<void(Argument...)> BoxLink::Event(void (Link::*handle)(Argument...))
{
    return [this, handle](Argument... arguments) {
        (link_.*handle)(std::forward<Argument>(arguments)...);
        AfterEvent();
    };
}

broker::Session::Events BoxLink::SessionEvents()
{
    return {.connected = Event(&Link::BrokerConnected),
            .closed = Event(&Link::BrokerClosed),
            .received = Event(&Link::Received),
            .published = Event(&Link::Published)};
}

void BoxLink::Start()
{
    agent_->Start({.connected = Event(&Link::AgentConnected),
                   .closed = Event(&Link::AgentClosed),
                   .answered = Event(&Link::Answered)});
    session_.Start();
    AfterEvent();
}

void BoxLink::AfterEvent()
{
    if (const auto time = link_.NextTime()) {
        timer_.ArmTimer(*time);
    } else {
        timer_.Disable();
    }
    if (std::string state = link_.StateText(); state != state_) {
        state_ = std::move(state);
        if (onState_) {
            onState_(state_);
        }
    }
}

void BoxLink::Stop(std::function<void()> onDone)
{
    onStopped_ = std::move(onDone);
    stopTimer_.ArmTimer(EventLoop::Clock::now() + kLeaveMax);
    link_.Leave([this] { StopSession(); });
    AfterEvent();
}

void BoxLink::StopSession()
{
    if (!std::exchange(isStoppingSession_, true)) {
        stopTimer_.Disable();
        session_.Stop([this] { onStopped_(); });
    }
}

} // namespace kavel::link
