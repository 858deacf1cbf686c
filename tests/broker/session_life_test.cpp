// The beginning and the end of connections with a real broker.
#include "scripted_broker.h"
#include "test_broker.h"
#include "test_session.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kHostOfTwoFamilies = "both.example";

int RealGetaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found)
{
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    return real(node, service, hints, found);
}

} // namespace

// What libmosquitto calls: a host with an address of IPv6 first, where nothing listens, and then one of IPv4.
extern "C" int getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found)
{
    if (node == nullptr || node != kHostOfTwoFamilies) {
        return RealGetaddrinfo(node, service, hints, found);
    }
    addrinfo *second = nullptr;
    if (const int error = RealGetaddrinfo("::1", service, hints, found); error != 0) {
        return error;
    }
    if (const int error = RealGetaddrinfo("127.0.0.1", service, hints, &second); error != 0) {
        ::freeaddrinfo(*found);
        return error;
    }
    addrinfo *last = *found;
    while (last->ai_next != nullptr) {
        last = last->ai_next;
    }
    last->ai_next = second;
    return 0;
}

namespace kavel::broker {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SessionLifeTest : public testing::Test {
  protected:
    [[nodiscard]] Session::Options Watching(const std::string &filter) const
    {
        Session::Options options = broker.Options("watcher");
        options.filters = {filter};
        return options;
    }

    [[nodiscard]] Session::Options WithWill() const
    {
        Session::Options options = broker.Options("box");
        options.will = MessageOf("kavel/box/online", "gone");
        options.will->properties = {{"name", "value"}};
        return options;
    }

    EventLoop loop;
    TestBroker broker;
};

TEST_F(SessionLifeTest, ASubscriptionGetsTheRetainedMessages)
{
    TestSession controller(loop, broker.Options("controller"));
    ASSERT_TRUE(controller.Connect());
    EXPECT_EQ(controller.PublishAndWait(MessageOf("kavel/box/desired/1", "old")), "");
    EXPECT_EQ(controller.PublishAndWait(MessageOf("kavel/box/desired/1", "new")), "");
    EXPECT_EQ(controller.PublishAndWait(MessageOf("kavel/box/desired/2", "two")), "");
    EXPECT_EQ(controller.PublishAndWait(MessageOf("kavel/other/desired/1", "other")), "");

    TestSession box(loop, Watching("kavel/box/desired/+"));
    ASSERT_TRUE(box.Connect());
    ASSERT_TRUE(WaitFor(loop, [&] { return box.received.size() == 2; }));
    EXPECT_THAT(PayloadsOf(box.received), testing::UnorderedElementsAre("new", "two"));
    EXPECT_TRUE(std::ranges::all_of(box.received, &Message::isRetained));

    EXPECT_EQ(controller.PublishAndWait(MessageOf("kavel/box/desired/1", "live")), "");
    ASSERT_TRUE(box.WaitForPayload("live"));
    EXPECT_FALSE(box.received.back().isRetained);
}

TEST_F(SessionLifeTest, SubscribesDuringAConnection)
{
    TestSession controller(loop, broker.Options("controller"));
    ASSERT_TRUE(controller.Connect());
    EXPECT_EQ(controller.PublishAndWait(MessageOf("kavel/box/online", "stored")), "");
    controller->Subscribe({"kavel/box/online"});
    ASSERT_TRUE(controller.WaitForPayload("stored"));
    controller->Unsubscribe({"kavel/box/online"});
    EXPECT_EQ(controller.PublishAndWait(MessageOf("kavel/box/online", "not heard")), "");
    controller->Subscribe({"kavel/mark/online"});
    EXPECT_EQ(controller.PublishAndWait(MessageOf("kavel/mark/online", "mark")), "");
    ASSERT_TRUE(controller.WaitForPayload("mark"));
    EXPECT_THAT(PayloadsOf(controller.received), ElementsAre("stored", "mark"));
}

TEST_F(SessionLifeTest, TheBrokerPublishesTheWillOfALostConnection)
{
    TestSession watcher(loop, Watching("kavel/+/online"));
    ASSERT_TRUE(watcher.Connect());
    TestSession box(loop, WithWill());
    ASSERT_TRUE(box.Connect());
    box.session.reset();
    ASSERT_TRUE(watcher.WaitForPayload("gone"));
    EXPECT_EQ(watcher.received.back().topic, "kavel/box/online");
    EXPECT_EQ(watcher.received.back().properties.at("name"), "value");

    TestSession late(loop, broker.Options("late"));
    ASSERT_TRUE(late.Connect());
    late->Subscribe({"kavel/+/online"});
    ASSERT_TRUE(late.WaitForPayload("gone"));
    EXPECT_TRUE(late.received.back().isRetained);
}

TEST_F(SessionLifeTest, StopDoesNotPublishTheWill)
{
    TestSession watcher(loop, Watching("kavel/+/online"));
    ASSERT_TRUE(watcher.Connect());
    TestSession box(loop, WithWill());
    ASSERT_TRUE(box.Connect());
    (void)box->Publish(MessageOf("kavel/box/online", "going"));
    ASSERT_TRUE(box.Disconnect());
    for (const char *mark : {"mark 1", "mark 2"}) {
        EXPECT_EQ(watcher.PublishAndWait(MessageOf("kavel/mark/online", mark)), "");
        ASSERT_TRUE(watcher.WaitForPayload(mark));
    }
    EXPECT_THAT(PayloadsOf(watcher.received), ElementsAre("going", "mark 1", "mark 2"));
}

TEST_F(SessionLifeTest, ConnectsAgainAndSubscribesAgainAfterTheBrokerRestarted)
{
    TestSession box(loop, Watching("kavel/box/desired/+"));
    ASSERT_TRUE(box.Connect());
    broker.Kill();
    ASSERT_TRUE(WaitFor(loop, [&] { return !box.closed.empty(); }));
    EXPECT_FALSE(box->IsConnected());
    EXPECT_EQ(box->Publish(MessageOf("kavel/box/online", "")), std::nullopt);
    ASSERT_TRUE(WaitFor(loop, [&] { return box.closed.size() == 2; }));
    EXPECT_EQ(box.closed.back(), "cannot connect: Connection refused");
    broker.Restart();
    ASSERT_TRUE(WaitFor(loop, [&] { return box.connections == 2; }));
    EXPECT_EQ(box.PublishAndWait(MessageOf("kavel/box/desired/1", "after")), "");
    ASSERT_TRUE(box.WaitForPayload("after"));
}

TEST_F(SessionLifeTest, ASecondClientWithTheNameTakesTheConnection)
{
    TestSession first(loop, broker.Options("box"));
    ASSERT_TRUE(first.Connect());
    TestSession second(loop, broker.Options("box"));
    ASSERT_TRUE(second.Connect());
    ASSERT_TRUE(WaitFor(loop, [&] { return !first.closed.empty(); }));
    EXPECT_TRUE(second.closed.empty());
    ASSERT_TRUE(WaitFor(loop, [&] { return first.connections == 2 && !second.closed.empty(); }));
}

TEST_F(SessionLifeTest, TheKeepAliveHoldsAnIdleConnection)
{
    Session::Options options = broker.Options("box");
    options.keepAliveSeconds = 5;
    TestSession box(loop, options);
    ASSERT_TRUE(box.Connect());
    // The broker closes a connection that was silent for one and a half times as long.
    bool isOver = false;
    EventSource timer = loop.AddTimer([&] { isOver = true; });
    timer.ArmTimer(EventLoop::Clock::now() + std::chrono::seconds(12));
    ASSERT_TRUE(WaitFor(loop, [&] { return isOver; }));
    EXPECT_THAT(box.closed, IsEmpty());
    EXPECT_TRUE(box->IsConnected());
}

TEST_F(SessionLifeTest, LeavesABrokerThatSaysNothing)
{
    ScriptedBroker silent(loop);
    Session::Options options = broker.Options("box");
    options.endpoint.port = silent.Port();
    TestSession box(loop, options);
    box->Start();
    ASSERT_TRUE(WaitFor(loop, [&] { return !box.closed.empty(); }));
    EXPECT_EQ(box.closed.front(), "the broker has not answered in time");
    ASSERT_TRUE(WaitFor(loop, [&] { return silent.connections == 2; }));
}

TEST_F(SessionLifeTest, TriesTheOtherFamilyOfAddresses)
{
    Session::Options options = broker.Options("box");
    options.endpoint.host = kHostOfTwoFamilies;
    TestSession box(loop, options);
    ASSERT_TRUE(box.Connect());
    EXPECT_EQ(box.connections, 1);
}

TEST_F(SessionLifeTest, TellsThatTheHostIsNotKnown)
{
    Session::Options options = broker.Options("box");
    options.endpoint.host = "not a name";
    TestSession box(loop, options);
    box->Start();
    ASSERT_TRUE(WaitFor(loop, [&] { return !box.closed.empty(); }));
    EXPECT_THAT(box.closed.front(), testing::StartsWith("cannot resolve not a name: "));
}

// The attempts take turns with the kinds of addresses.
TEST_F(SessionLifeTest, GoesOnWhileTheHostIsNotKnown)
{
    Session::Options options = broker.Options("box");
    options.endpoint.host = "not a name";
    TestSession box(loop, options);
    box->Start();
    ASSERT_TRUE(WaitFor(loop, [&] { return box.closed.size() == 3; }));
    EXPECT_THAT(box.closed, testing::Each(testing::StartsWith("cannot resolve not a name: ")));
}

TEST_F(SessionLifeTest, ManySessionsShareALoop)
{
    std::vector<std::unique_ptr<TestSession>> boxes;
    for (int i = 0; i < 100; ++i) {
        Session::Options options = broker.Options("box-" + std::to_string(i));
        options.filters = {"kavel/all/online"};
        boxes.push_back(std::make_unique<TestSession>(loop, options));
        (*boxes.back())->Start();
    }
    const auto all = [&](const auto &condition) {
        return WaitFor(loop, [&] { return std::ranges::all_of(boxes, condition); });
    };
    ASSERT_TRUE(all([](const auto &box) { return (*box)->IsConnected(); }));
    EXPECT_EQ(boxes.front()->PublishAndWait(MessageOf("kavel/all/online", "all")), "");
    ASSERT_TRUE(all([](const auto &box) { return box->received.size() == 1; }));
    broker.Restart();
    ASSERT_TRUE(all([](const auto &box) { return box->connections == 2; }));
}

} // namespace
} // namespace kavel::broker
