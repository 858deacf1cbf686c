#include "test_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

namespace kavel::broker {

namespace {

constexpr std::chrono::seconds kHang{40};

} // namespace

bool WaitFor(EventLoop &loop, const std::function<bool()> &condition)
{
    bool isLate = false;
    EventSource timer = loop.AddTimer([&] { isLate = true; });
    timer.ArmTimer(EventLoop::Clock::now() + kHang);
    (void)loop.RunUntil([&] { return isLate || condition(); });
    EXPECT_FALSE(isLate) << "the condition has not come true";
    return !isLate;
}

void RunReady(EventLoop &loop)
{
    for (int turn = 0; turn < 3; ++turn) {
        bool isDone = false;
        EventSource last = loop.AddDeferred([&] { isDone = true; });
        last.Enable();
        (void)loop.RunUntil([&] { return isDone; });
    }
}

TestSession::TestSession(EventLoop &loop, Session::Options options) : loop_(loop)
{
    Session::Events events;
    events.connected = [this] {
        ++connections;
        onEvent("connected");
    };
    events.closed = [this](const std::string &why) {
        closed.push_back(why);
        onEvent("closed");
    };
    events.received = [this](Message message) {
        received.push_back(std::move(message));
        onEvent("received");
    };
    events.published = [this](std::uint64_t publication, const std::string &problem) {
        published[publication].push_back(problem);
        onEvent("published");
    };
    session = std::make_unique<Session>(loop, std::move(options), std::move(events));
}

bool TestSession::Connect()
{
    session->Start();
    return WaitFor(loop_, [this] { return session->IsConnected(); });
}

std::string TestSession::PublishAndWait(const Message &message)
{
    const auto publication = session->Publish(message);
    if (!publication) {
        return "there is no connection";
    }
    return WaitFor(loop_, [&] { return published.contains(*publication); }) ? published[*publication].front()
                                                                            : "there is no answer";
}

bool TestSession::Disconnect()
{
    bool isDone = false;
    session->Stop([&] { isDone = true; });
    return WaitFor(loop_, [&] { return isDone; });
}

bool TestSession::WaitForPayload(std::string_view payload)
{
    return WaitFor(loop_, [&] {
        return std::ranges::any_of(received, [&](const Message &message) { return PayloadOf(message) == payload; });
    });
}

Message MessageOf(const std::string &topic, std::string_view payload)
{
    return {.topic = topic, .payload = {payload.begin(), payload.end()}};
}

std::string PayloadOf(const Message &message)
{
    return {message.payload.begin(), message.payload.end()};
}

std::vector<std::string> PayloadsOf(const std::vector<Message> &messages)
{
    std::vector<std::string> payloads;
    std::ranges::transform(messages, std::back_inserter(payloads), PayloadOf);
    return payloads;
}

} // namespace kavel::broker
