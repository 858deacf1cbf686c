// The connection with a broker that refuses, fails or says nothing.
#include "scripted_broker.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace kavel::broker {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ScriptedSessionTest : public testing::Test {
  protected:
    [[nodiscard]] Session::Options Options() const
    {
        return {.endpoint = {.host = "127.0.0.1", .port = broker.Port(), .ca = {}, .certificate = {}, .key = {}},
                .clientId = "box",
                .filters = {"kavel/box/desired/+"},
                .will = std::nullopt};
    }

    // The line of the first failure.
    [[nodiscard]] std::string Failure()
    {
        session->Start();
        return WaitFor(loop, [this] { return !session.closed.empty(); }) ? session.closed.front() : "";
    }

    EventLoop loop;
    ScriptedBroker broker{loop};
    TestSession session{loop, Options()};
};

TEST_F(ScriptedSessionTest, NothingHappensBeforeTheStart)
{
    RunReady(loop);
    EXPECT_EQ(broker.connections, 0);
    EXPECT_FALSE(session->IsConnected());
    EXPECT_EQ(session->Publish(MessageOf("kavel/box/online", "")), std::nullopt);
}

TEST_F(ScriptedSessionTest, IsConnectedWhenTheSubscriptionIsAnswered)
{
    std::string subscribe;
    broker.onConnect = [this](std::string_view) { broker.Send(Connack(0)); };
    broker.onSubscribe = [&](std::string_view packet) { subscribe = packet; };
    session->Start();
    ASSERT_TRUE(WaitFor(loop, [&] { return !subscribe.empty(); }));
    RunReady(loop);
    EXPECT_FALSE(session->IsConnected());
    broker.Send(Suback(subscribe, {1}));
    ASSERT_TRUE(WaitFor(loop, [this] { return session->IsConnected(); }));
    EXPECT_EQ(session.connections, 1);
    EXPECT_THAT(session.closed, IsEmpty());
}

TEST_F(ScriptedSessionTest, StartsCleanWithoutAStoredSession)
{
    std::string connect;
    broker.onConnect = [&](std::string_view packet) { connect = packet; };
    session->Start();
    ASSERT_TRUE(WaitFor(loop, [&] { return !connect.empty(); }));
    EXPECT_EQ(connect.substr(0, 7), std::string("\0\4MQTT\5", 7));
    EXPECT_EQ(connect.at(7), '\2') << "the flags: clean start, no will, no user name";
    // The properties: the largest packet and the receive maximum, and no interval for which a session is kept.
    EXPECT_NE(connect.find(std::string("\x27\x02\0\0\0", 5)), std::string::npos);
    EXPECT_NE(connect.find(std::string("\x21\0\x08", 3)), std::string::npos);
    EXPECT_EQ(connect.at(10), '\x08');
}

TEST_F(ScriptedSessionTest, AMessageBeforeTheAnswerToItsSubscriptionCountsAsTheAnswer)
{
    std::vector<std::string> events;
    session.onEvent = [&](std::string_view event) { events.emplace_back(event); };
    broker.Accept();
    broker.onSubscribe = [this](std::string_view packet) {
        broker.Send(Publish("kavel/box/desired/1", "one") + Suback(packet, {1}));
    };
    ASSERT_TRUE(session.Connect());
    ASSERT_TRUE(session.WaitForPayload("one"));
    RunReady(loop);
    EXPECT_THAT(events, ElementsAre("connected", "received"));
}

TEST_F(ScriptedSessionTest, TellsWhyTheBrokerRefusesTheConnection)
{
    broker.onConnect = [this](std::string_view) { broker.Send(Connack(135)); };
    EXPECT_EQ(Failure(), "the broker refuses the connection: Not authorized");
    EXPECT_EQ(session.connections, 0);
}

TEST_F(ScriptedSessionTest, TellsWhyTheBrokerRefusesASubscription)
{
    broker.Accept();
    broker.onSubscribe = [this](std::string_view packet) { broker.Send(Suback(packet, {135})); };
    EXPECT_EQ(Failure(), "the broker refuses the subscription to kavel/box/desired/+: Not authorized");
    EXPECT_EQ(session.connections, 0);
}

TEST_F(ScriptedSessionTest, ARefusedSubscriptionDuringTheConnectionClosesIt)
{
    broker.Accept();
    ASSERT_TRUE(session.Connect());
    broker.onSubscribe = [this](std::string_view packet) { broker.Send(Suback(packet, {143})); };
    session->Subscribe({"kavel/other/online"});
    ASSERT_TRUE(WaitFor(loop, [this] { return !session.closed.empty(); }));
    EXPECT_THAT(session.closed,
                ElementsAre("the broker refuses the subscription to kavel/other/online: Topic Filter invalid"));
    EXPECT_FALSE(session->IsConnected());
}

TEST_F(ScriptedSessionTest, TellsWhyTheBrokerEndsTheConnection)
{
    broker.Accept();
    ASSERT_TRUE(session.Connect());
    broker.Send(Disconnect(142));
    ASSERT_TRUE(WaitFor(loop, [this] { return !session.closed.empty(); }));
    EXPECT_THAT(session.closed, ElementsAre("the broker closed the connection: Session taken over"));
}

TEST_F(ScriptedSessionTest, ConnectsAgainAfterTheConnectionIsLost)
{
    broker.Accept();
    ASSERT_TRUE(session.Connect());
    broker.Close();
    ASSERT_TRUE(WaitFor(loop, [this] { return session.connections == 2; }));
    EXPECT_THAT(session.closed, ElementsAre("the connection was closed"));
    EXPECT_EQ(broker.connections, 2);
}

TEST_F(ScriptedSessionTest, WhatIsNotAcknowledgedIsForgottenWithTheConnection)
{
    broker.Accept();
    broker.onPublish = [](std::string_view) {};
    ASSERT_TRUE(session.Connect());
    const auto lost = session->Publish(MessageOf("kavel/box/online", "lost"));
    ASSERT_TRUE(WaitFor(loop, [this] { return broker.kinds.back() == '\x33'; })) << "QoS 1, retained";
    broker.Close();
    ASSERT_TRUE(WaitFor(loop, [this] { return session.connections == 2; }));
    broker.kinds.clear();
    broker.Accept();
    EXPECT_EQ(session.PublishAndWait(MessageOf("kavel/box/online", "new")), "");
    EXPECT_EQ(broker.kinds, "\x33");
    EXPECT_FALSE(session.published.contains(lost.value()));
}

TEST_F(ScriptedSessionTest, TellsWhyTheBrokerRefusesAPublication)
{
    broker.Accept();
    broker.onPublish = [this](std::string_view packet) { broker.Send(Puback(packet, 151)); };
    ASSERT_TRUE(session.Connect());
    EXPECT_EQ(session.PublishAndWait(MessageOf("kavel/box/online", "x")), "Quota exceeded");
    EXPECT_TRUE(session->IsConnected());
}

TEST_F(ScriptedSessionTest, AFailureDuringAFunctionIsToldByTheLoop)
{
    broker.Accept();
    ASSERT_TRUE(session.Connect());
    broker.Close();
    const Message large = MessageOf("kavel/box/online", std::string(100000, 'x'));
    for (int i = 0; i < 10 && session->Publish(large); ++i) {
        EXPECT_THAT(session.closed, IsEmpty());
    }
    EXPECT_EQ(session->Publish(large), std::nullopt);
    EXPECT_THAT(session.closed, IsEmpty());
    ASSERT_TRUE(WaitFor(loop, [this] { return !session.closed.empty(); }));
    EXPECT_THAT(session.closed, SizeIs(1));
}

TEST_F(ScriptedSessionTest, GarbageEndsTheConnection)
{
    broker.onConnect = [this](std::string_view) {
        broker.Send("HTTP/1.1 400 Bad Request\r\n\r\n" + std::string(100, ' '));
    };
    EXPECT_NE(Failure(), "");
    EXPECT_EQ(session.connections, 0);
}

TEST_F(ScriptedSessionTest, StopsAtOnceWithoutAConnection)
{
    EXPECT_TRUE(session.Disconnect()) << "not started";
    session->Start();
    EXPECT_TRUE(session.Disconnect()) << "before the first attempt";
    session->Start();
    ASSERT_TRUE(WaitFor(loop, [this] { return broker.kinds == "\x10"; }));
    EXPECT_TRUE(session.Disconnect()) << "during an attempt";
    broker.onConnect = [this](std::string_view) { broker.Send(Connack(136)); };
    session->Start();
    ASSERT_TRUE(WaitFor(loop, [this] { return !session.closed.empty(); }));
    EXPECT_TRUE(session.Disconnect()) << "while it waits for the next attempt";
    EXPECT_THAT(session.closed, SizeIs(1));
}

TEST_F(ScriptedSessionTest, StopSaysGoodbyeAndTheSessionCanStartAgain)
{
    broker.Accept();
    ASSERT_TRUE(session.Connect());
    broker.kinds.clear();
    ASSERT_TRUE(session.Disconnect());
    RunReady(loop);
    EXPECT_EQ(broker.kinds, "\xE0");
    EXPECT_FALSE(session->IsConnected());
    EXPECT_THAT(session.closed, IsEmpty());
    EXPECT_TRUE(session.Connect());
    EXPECT_EQ(session.connections, 2);
}

TEST_F(ScriptedSessionTest, StopEndsAlthoughTheBrokerReadsNothing)
{
    broker.Accept();
    broker.onPublish = [](std::string_view) {};
    ASSERT_TRUE(session.Connect());
    // More than the two sockets hold: the broker stops to read with the first of them.
    broker.onPublish = [this](std::string_view) { broker.Accept(); };
    for (int i = 0; i < 200; ++i) {
        (void)session->Publish(MessageOf("kavel/box/online", std::string(100000, 'x')));
    }
    EXPECT_TRUE(session.Disconnect());
    EXPECT_THAT(session.published, IsEmpty());
}

TEST_F(ScriptedSessionTest, AnExceptionOfAnEventLeavesTheLoop)
{
    broker.Accept();
    session.onEvent = [](std::string_view event) { throw std::runtime_error(std::string(event)); };
    session->Start();
    EXPECT_THROW((void)WaitFor(loop, [] { return false; }), std::runtime_error);
}

// What a test destroys in, and how the session gets there.
class DestroyingTest : public ScriptedSessionTest, public testing::WithParamInterface<const char *> {};

TEST_P(DestroyingTest, AnEventMayDestroyTheSession)
{
    const std::string_view when = GetParam();
    broker.Accept();
    broker.onSubscribe = [this](std::string_view packet) {
        broker.Send(Suback(packet, {1}) + Publish("kavel/box/desired/1", "one") +
                    Publish("kavel/box/desired/1", "two"));
    };
    if (when == "closed") {
        broker.onConnect = [this](std::string_view) { broker.Send(Connack(135)); };
    }
    int later = 0;
    session.onEvent = [&](std::string_view event) {
        if (session.session == nullptr) {
            ++later;
        } else if (event == when) {
            session.session.reset();
        } else if (event == "connected") {
            (void)session->Publish(MessageOf("kavel/box/online", "x"));
        }
    };
    session->Start();
    ASSERT_TRUE(WaitFor(loop, [this] { return session.session == nullptr; }));
    RunReady(loop);
    EXPECT_EQ(later, 0) << "events after the session was destroyed";
}

INSTANTIATE_TEST_SUITE_P(Events, DestroyingTest, testing::Values("connected", "received", "published", "closed"));

TEST_F(ScriptedSessionTest, TheEndOfStopMayDestroyTheSession)
{
    broker.Accept();
    ASSERT_TRUE(session.Connect());
    session->Stop([this] { session.session.reset(); });
    ASSERT_TRUE(WaitFor(loop, [this] { return session.session == nullptr; }));
    RunReady(loop);
    EXPECT_THAT(session.closed, IsEmpty());
}

TEST_F(ScriptedSessionTest, AnEventMayStopTheSession)
{
    broker.Accept();
    broker.onSubscribe = [this](std::string_view packet) {
        broker.Send(Suback(packet, {1}) + Publish("kavel/box/desired/1", "one") +
                    Publish("kavel/box/desired/1", "two"));
    };
    bool isDone = false;
    session.onEvent = [&](std::string_view event) {
        if (event == "received") {
            session->Stop([&] { isDone = true; });
        }
    };
    session->Start();
    ASSERT_TRUE(WaitFor(loop, [&] { return isDone; }));
    EXPECT_EQ(PayloadsOf(session.received), std::vector<std::string>{"one"});
    EXPECT_THAT(session.closed, IsEmpty());
}

} // namespace
} // namespace kavel::broker
