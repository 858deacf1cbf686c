#include "link_config.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "input_error.h"

namespace kavel::link {
namespace {

const std::string kEndpoint = R"({"host": "broker.example", "port": 8884, "ca": "/c/ca", "certificate": "/c/b.pem", )"
                              R"("key": "/c/b.key"})";

std::string RefusalOf(const std::string &text)
{
    try {
        (void)ParseLinkConfig(text);
    } catch (const InputError &error) {
        return error.what();
    }
    return "accepted";
}

// Of a configuration whose broker is this.
std::string RefusalOfBroker(const std::string &broker)
{
    return RefusalOf(R"({"box": "b", "broker": )" + broker + "}");
}

TEST(LinkConfigTest, AllKeysAreRead)
{
    const LinkConfig config =
        ParseLinkConfig(R"({"box": "branch-1", "broker": )" + kEndpoint + R"(, "agent": "/a.sock", "log": "debug"})");
    EXPECT_EQ(config.box, "branch-1");
    EXPECT_EQ(config.broker.host, "broker.example");
    EXPECT_EQ(config.broker.port, 8884);
    EXPECT_EQ(config.broker.ca, "/c/ca");
    EXPECT_EQ(config.broker.certificate, "/c/b.pem");
    EXPECT_EQ(config.broker.key, "/c/b.key");
    EXPECT_EQ(config.agent, "/a.sock");
    EXPECT_EQ(config.log, LogLevel::kDebug);
}

TEST(LinkConfigTest, SomeKeysMayBeLeftOut)
{
    const LinkConfig config = ParseLinkConfig(R"({"box": "b", "broker": {"host": "::1", "ca": "/c", "certificate": )"
                                              R"("/b", "key": "/k"}})");
    EXPECT_EQ(config.broker.port, 8883);
    EXPECT_EQ(config.agent, "/run/kavel/agent.sock");
    EXPECT_EQ(config.log, LogLevel::kNotice);
}

TEST(LinkConfigTest, TheExampleIsRead)
{
    EXPECT_EQ(LoadLinkConfig(KAVEL_EXAMPLES "/fleet/link.json").box, "branch-1");
}

TEST(LinkConfigTest, AMistakeNamesItsKey)
{
    EXPECT_EQ(RefusalOf("[]"), "expected an object, not an array");
    EXPECT_EQ(RefusalOf(R"({"broker": )" + kEndpoint + "}"), "box: is missing");
    EXPECT_EQ(RefusalOf(R"({"box": "b"})"), "broker: is missing");
    EXPECT_EQ(RefusalOf(R"({"box": "a/b", "broker": )" + kEndpoint + "}"),
              R"(box: "a/b" is not a name of 1 to 64 letters, digits, '.', '_' and '-')");
    EXPECT_EQ(RefusalOf(R"({"box": "b", "broker": )" + kEndpoint + R"(, "agnet": "/x"})"), "agnet: unknown key");
    EXPECT_EQ(RefusalOf(R"({"box": "b", "broker": )" + kEndpoint + R"(, "log": "loud"})"),
              R"(log: expected "error", "warning", "notice" or "debug", not "loud")");
    EXPECT_EQ(RefusalOf(R"({"box": "b", "broker": )" + kEndpoint + R"(, "agent": "run"})"),
              R"(agent: expected an absolute path, not "run")");
    EXPECT_EQ(RefusalOf(R"({"box": "b", "broker": )" + kEndpoint + R"(, "agent": "/)" + std::string(107, 'x') + "\"}"),
              "agent: is longer than 107 bytes");
}

TEST(LinkConfigTest, AMistakeInTheBrokerNamesItsKey)
{
    EXPECT_EQ(RefusalOfBroker(R"({"host": "b", "certificate": "/b", "key": "/k"})"), "broker.ca: is missing");
    EXPECT_EQ(RefusalOfBroker(R"({"host": ""})"), R"(broker.host: expected a host name or an address, not "")");
    EXPECT_EQ(RefusalOfBroker(R"({"host": "a b"})"), R"(broker.host: expected a host name or an address, not "a b")");
    EXPECT_EQ(RefusalOfBroker(R"({"port": 65536})"), "broker.port: expected a number from 1 to 65535, not 65536");
    EXPECT_EQ(RefusalOfBroker(R"({"port": 0})"), "broker.port: expected a number from 1 to 4294967295, not 0");
    EXPECT_EQ(RefusalOfBroker(R"({"key": "box.key"})"), R"(broker.key: expected an absolute path, not "box.key")");
}

TEST(LinkConfigTest, AFileThatCannotBeReadIsNamedByItsError)
{
    try {
        (void)LoadLinkConfig("/nowhere/link.json");
        FAIL();
    } catch (const InputError &error) {
        EXPECT_STREQ(error.what(), "cannot be read: No such file or directory");
    }
}

} // namespace
} // namespace kavel::link
