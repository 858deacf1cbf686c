// Packed messages as JSON: what is written is read back to the same bytes.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "errors.h"
#include "files.h"
#include "json_message.h"
#include "json_output.h"
#include "packed_replies.h"

namespace kavel::ctl {
namespace {

PackedConf ConfOf(const EncodedMessage &message)
{
    return {message.bytes, message.isForPop};
}

// The JSON of a message's bytes.
std::string WrittenAgain(const EncodedMessage &message)
{
    return JsonDocument(MessageJson(ConfOf(message)).get());
}

void ExpectSameBytes(const std::string &json)
{
    const EncodedMessage message = Encoded(json);
    const std::string written = WrittenAgain(message);
    const EncodedMessage again = Encoded(written);
    EXPECT_EQ(again.bytes, message.bytes) << written;
    EXPECT_EQ(again.isForPop, message.isForPop) << written;
}

TEST(MessageJson, EveryExampleIsEncodedToTheSameBytes)
{
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(KAVEL_EXAMPLES)) {
        if (!entry.is_regular_file() || entry.path().filename().string().starts_with("agent-")) {
            continue; // a folder, or a configuration of the agent
        }
        SCOPED_TRACE(entry.path());
        ExpectSameBytes(ReadInput(entry.path()));
        ++count;
    }
    EXPECT_GE(count, 5);
}

TEST(MessageJson, EveryFieldIsWritten)
{
    ExpectSameBytes(R"({"enable": false, "operation": 7, "vpnid": 4294967295, "persistentflag": false,
        "historypersistent": true,
        "dnshosts": [{"domain": "", "ip": "255.255.255.255", "ipv6": "2001:db8::1"},
                     {"domain": "\u00e9 \"quoted\"\t", "ip": "0.0.0.0"}],
        "dnsservers": [{"dnsserver": "10.0.0.1", "ifname": ""}, {"dnsserver": "10.0.0.2", "ifname": "wan0"}],
        "dnsmxhost": [{"targetdomain": "a", "sourcedomain": "b", "preference": 4294967295}],
        "dnsproxies": [{"domains": [], "serverips": []},
                       {"domains": ["a", "b"], "serverips": ["10.0.0.1", "0.0.0.0"], "serveripv6s": ["::1"]}]})");
    ExpectSameBytes(R"({"enable": true, "localip": "10.88.0.1", "dns": ["10.0.0.1", "10.0.0.2"],
        "persistentflag": true, "historypersistent": false, "dnsipv6": ["2001:db8::53"], "localipv6": "::1"})");
}

// A random message, as JSON, with what a CPE's message can have.
class RandomMessage {
  public:
    explicit RandomMessage(std::uint32_t seed) : random_(seed) {}

    std::string Json()
    {
        return R"({"enable": )" + Bool() + R"(, "operation": )" +
               (Chance() ? R"("reload")" : std::to_string(Below(9))) +
               Perhaps("vpnid", std::to_string(Below(4294967295U))) + Perhaps("persistentflag", Bool()) +
               Perhaps("dnshosts", List([this] {
                           return R"({"domain": )" + Text() + R"(, "ip": )" + Ip() + Perhaps("ipv6", R"("fe80::7")") +
                                  "}";
                       })) +
               Perhaps("dnsservers",
                       List([this] { return R"({"dnsserver": )" + Ip() + Perhaps("ifname", Text()) + "}"; })) +
               Perhaps("dnsproxies", List([this] {
                           return R"({"domains": )" + List([this] { return Text(); }) + R"(, "serverips": )" +
                                  List([this] { return Ip(); }) + "}";
                       })) +
               "}";
    }

  private:
    std::uint32_t Below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
    bool Chance() { return Below(2) == 0; }
    std::string Bool() { return Chance() ? "true" : "false"; }
    std::string Perhaps(const std::string &key, const std::string &value)
    {
        return Chance() ? ", \"" + key + "\": " + value : "";
    }
    std::string Ip() { return "\"" + std::to_string(Below(256)) + ".0." + std::to_string(Below(256)) + ".1\""; }
    std::string Text()
    {
        std::string text = "\"";
        for (std::uint32_t left = Below(6); left > 0; --left) {
            static const std::vector<std::string> kCharacters{"a", ".", "\\u0001", "\\\"", "\u20ac", "/", "\\u202e"};
            text += kCharacters[Below(static_cast<std::uint32_t>(kCharacters.size()))];
        }
        return text + "\"";
    }
    template <typename Element>
    std::string List(Element element)
    {
        std::string list = "[";
        for (std::uint32_t left = Below(5); left > 0; --left) {
            list += (list.size() > 1 ? ", " : "") + element();
        }
        return list + "]";
    }

    std::mt19937 random_;
};

TEST(MessageJson, RandomMessagesAreEncodedToTheSameBytes)
{
    constexpr std::uint32_t kMessages = 300;
    for (std::uint32_t seed = 0; seed < kMessages; ++seed) {
        SCOPED_TRACE(seed);
        ExpectSameBytes(RandomMessage(seed).Json());
    }
}

TEST(MessageJson, AnOperationIsWrittenByNameIfItHasOne)
{
    const auto operation = [](const char *value) {
        const JsonPtr json =
            MessageJson(ConfOf(Encoded(std::string(R"({"enable": true, "operation": )") + value + "}")));
        return std::string(json_object_to_json_string(json_object_object_get(json.get(), "operation")));
    };
    EXPECT_EQ(operation("0"), "\"reload\"");
    EXPECT_EQ(operation("1"), "\"reboot\"");
    EXPECT_EQ(operation("2"), "2");
}

TEST(MessageJson, WhatJsonCannotRepresentIsLeftOut)
{
    DnsHostItem host = DNS_HOST_ITEM__INIT;
    std::vector<std::uint8_t> tooShort{1, 2, 3};
    host.has_ipv6 = 1;
    host.ipv6 = {tooShort.size(), tooShort.data()};
    DnsHostItem *hosts = &host;
    DnsmasqConf conf = DNSMASQ_CONF__INIT;
    conf.n_dnshosts = 1;
    conf.dnshosts = &hosts;
    std::vector<std::uint8_t> bytes(dnsmasq_conf__get_packed_size(&conf));
    dnsmasq_conf__pack(&conf, bytes.data());
    const JsonPtr json = MessageJson({bytes, false});
    EXPECT_STREQ(json_object_to_json_string_ext(json_object_object_get(json.get(), "dnshosts"), JSON_C_TO_STRING_PLAIN),
                 R"([{"ip":"0.0.0.0"}])");
}

TEST(MessageJson, OtherBytesAreRefused)
{
    const std::vector<std::uint8_t> bytes{0xFF, 0xFF};
    EXPECT_THROW((void)MessageJson({bytes, false}), AgentError);
    EXPECT_THROW((void)MessageJson({bytes, true}), AgentError);
}

} // namespace
} // namespace kavel::ctl
