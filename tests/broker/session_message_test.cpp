// What goes through a connection with a real broker.
#include "test_broker.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <set>
#include <vector>

namespace kavel::broker {
namespace {

using testing::ElementsAre;
using testing::Pair;
using testing::SizeIs;

class SessionMessageTest : public testing::Test {
  protected:
    SessionMessageTest()
    {
        EXPECT_TRUE(writer.Connect());
        EXPECT_TRUE(reader.Connect());
    }

    [[nodiscard]] Session::Options Reading(const std::string &clientId) const
    {
        Session::Options options = broker.Options(clientId);
        options.filters = {"kavel/box/+/+"};
        return options;
    }

    // Publishes it and waits for it at the other end.
    [[nodiscard]] Message Carried(const Message &message)
    {
        EXPECT_EQ(writer.PublishAndWait(message), "");
        EXPECT_TRUE(WaitFor(loop, [this] { return !reader.received.empty(); }));
        return reader.received.empty() ? Message() : reader.received.back();
    }

    TestDirectory directory;
    TestBroker broker{"allow_anonymous true\nmax_queued_messages 10000\nacl_file " +
                      directory.Write("acl", "topic readwrite kavel/#\ntopic read refused\n") + "\n"};
    EventLoop loop;
    TestSession writer{loop, broker.Options("writer")};
    TestSession reader{loop, Reading("reader")};
};

TEST_F(SessionMessageTest, CarriesEveryByte)
{
    std::string every;
    for (int i = 0; i < 1024; ++i) {
        every.push_back(static_cast<char>(i % 256));
    }
    const Message carried = Carried(MessageOf("kavel/box/desired/1", every));
    EXPECT_EQ(carried.topic, "kavel/box/desired/1");
    EXPECT_EQ(PayloadOf(carried), every);
}

TEST_F(SessionMessageTest, CarriesAnEmptyPayload)
{
    EXPECT_EQ(PayloadOf(Carried(MessageOf("kavel/box/desired/1", ""))), "");
}

TEST_F(SessionMessageTest, CarriesALargePayload)
{
    std::string large(2UL * 1024 * 1024, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * i / 7);
    }
    EXPECT_TRUE(PayloadOf(Carried(MessageOf("kavel/box/desired/1", large))) == large);
    EXPECT_TRUE(writer->IsConnected());
}

TEST_F(SessionMessageTest, CarriesUserProperties)
{
    Message message = MessageOf("kavel/box/desired/1", "x");
    message.properties = {{"revision", "9223372036854775807"}, {"platform", "cpe"}, {"", ""}, {"\u00e9", "\u20ac"}};
    EXPECT_EQ(Carried(message).properties, message.properties);
}

TEST_F(SessionMessageTest, TheFirstPropertyOfANameCounts)
{
    RunProgram({"mosquitto_pub",
                "-V",
                "5",
                "-h",
                "127.0.0.1",
                "-p",
                std::to_string(broker.Port()),
                "-q",
                "1",
                "-t",
                "kavel/box/desired/1",
                "-m",
                "x",
                "-D",
                "publish",
                "user-property",
                "revision",
                "1",
                "-D",
                "publish",
                "user-property",
                "revision",
                "2"});
    ASSERT_TRUE(reader.WaitForPayload("x"));
    EXPECT_THAT(reader.received.back().properties, ElementsAre(Pair("revision", "1")));
}

TEST_F(SessionMessageTest, ReadsABoundedNumberOfProperties)
{
    std::vector<std::string> command{
        "mosquitto_pub",       "-V", "5", "-h", "127.0.0.1", "-p", std::to_string(broker.Port()), "-t",
        "kavel/box/desired/1", "-m", "x"};
    for (int i = 10; i < 50; ++i) {
        command.insert(command.end(), {"-D", "publish", "user-property", std::to_string(i), "value"});
    }
    RunProgram(command);
    ASSERT_TRUE(reader.WaitForPayload("x"));
    const auto &properties = reader.received.back().properties;
    EXPECT_THAT(properties, SizeIs(32));
    EXPECT_EQ(properties.rbegin()->first, "41");
}

TEST_F(SessionMessageTest, EachOfManyPublicationsIsAcknowledgedOnce)
{
    constexpr std::size_t kMany = 2000;
    std::set<std::uint64_t> numbers;
    for (std::size_t i = 0; i < kMany; ++i) {
        const auto number = writer->Publish(MessageOf("kavel/box/reported/" + std::to_string(i), std::to_string(i)));
        ASSERT_TRUE(number);
        numbers.insert(*number);
    }
    EXPECT_THAT(numbers, SizeIs(kMany));
    ASSERT_TRUE(WaitFor(loop, [this] { return writer.published.size() == kMany && reader.received.size() == kMany; }));
    RunReady(loop);
    for (const auto &[number, problems] : writer.published) {
        EXPECT_THAT(problems, ElementsAre("")) << number;
        EXPECT_TRUE(numbers.contains(number));
    }
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < kMany; ++i) {
        expected.push_back(std::to_string(i));
    }
    EXPECT_EQ(PayloadsOf(reader.received), expected) << "in order";
}

TEST_F(SessionMessageTest, EventsMayPublish)
{
    int left = 50;
    reader.onEvent = [&](std::string_view event) {
        if (event == "received" && --left > 0) {
            EXPECT_TRUE(reader->Publish(MessageOf("kavel/box/reported/1", std::to_string(left))));
        }
    };
    EXPECT_EQ(writer.PublishAndWait(MessageOf("kavel/box/desired/1", "first")), "");
    ASSERT_TRUE(WaitFor(loop, [&] { return left == 0 && reader.published.size() == 49; }));
}

TEST_F(SessionMessageTest, ARefusedPublicationHasAProblemAndTheConnectionStays)
{
    EXPECT_EQ(writer.PublishAndWait(MessageOf("refused", "x")), "Not authorized");
    EXPECT_EQ(writer.PublishAndWait(MessageOf("kavel/box/desired/1", "x")), "");
}

TEST_F(SessionMessageTest, AMessageThatCannotBeSentHasAProblem)
{
    for (const char *topic : {"", "kavel/+/desired/1", "kavel/#", "kavel/\xFF"}) {
        EXPECT_NE(writer.PublishAndWait(MessageOf(topic, "x")), "") << topic;
    }
    Message message = MessageOf("kavel/box/desired/1", "x");
    message.properties = {{"name", "\xFF"}};
    EXPECT_NE(writer.PublishAndWait(message), "");
    message.properties = {{std::string(65536, 'x'), "value"}};
    EXPECT_NE(writer.PublishAndWait(message), "");
    EXPECT_EQ(writer.PublishAndWait(MessageOf("kavel/box/desired/1", "good")), "");
    EXPECT_TRUE(writer.closed.empty());
}

TEST_F(SessionMessageTest, TheBrokerSendsNoPacketOverTheLimit)
{
    EXPECT_EQ(writer.PublishAndWait(MessageOf("kavel/box/desired/1", std::string(100'000, 'x'))), "");
    EXPECT_EQ(writer.PublishAndWait(MessageOf("kavel/box/desired/2", "small")), "");
    Session::Options options = Reading("narrow");
    options.packetMax = 50'000;
    TestSession narrow(loop, options);
    ASSERT_TRUE(narrow.Connect());
    ASSERT_TRUE(narrow.WaitForPayload("small"));
    EXPECT_EQ(writer.PublishAndWait(MessageOf("kavel/box/desired/3", "last")), "");
    ASSERT_TRUE(narrow.WaitForPayload("last"));
    EXPECT_THAT(PayloadsOf(narrow.received), ElementsAre("small", "last"));
    EXPECT_TRUE(narrow.closed.empty());
}

} // namespace
} // namespace kavel::broker
