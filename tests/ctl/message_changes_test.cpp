#include "message_changes.h"

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <optional>
#include <string>

#include "errors.h"
#include "json_message.h"
#include "packed_replies.h"

namespace kavel::ctl {
namespace {

std::string CpeJson(const std::string &members, const std::string &operation = "reload", bool enable = true)
{
    return R"({"enable": )" + std::string(enable ? "true" : "false") + R"(, "operation": ")" + operation +
           R"(", "vpnid": 7)" + members + "}";
}

Comparison CompareJson(const std::optional<std::string> &before, const std::string &after)
{
    const EncodedMessage old = before ? Encoded(*before) : EncodedMessage();
    const EncodedMessage fresh = Encoded(after);
    return Compare(before ? std::optional(PackedConf{old.bytes, old.isForPop}) : std::nullopt,
                   {fresh.bytes, fresh.isForPop});
}

// The summary, a line feed, and the lines.
std::string Told(const std::optional<std::string> &before, const std::string &after)
{
    const Comparison comparison = CompareJson(before, after);
    return SummaryText(comparison) + "\n" + ChangeLines(comparison);
}

constexpr const char *kHost = R"(, "dnshosts": [{"domain": "nas.example", "ip": "192.168.7.10"}])";

TEST(MessageChanges, TheSameMessageChangesNothing)
{
    EXPECT_EQ(Told(CpeJson(kHost), CpeJson(kHost)), "no change\n");
    EXPECT_EQ(Told(CpeJson(kHost), CpeJson(kHost, "reboot")), "no change; restarts the instance\n");
}

TEST(MessageChanges, NeitherOrderNorRepetitionsAreAChange)
{
    const auto hosts = [](const std::string &list) { return CpeJson(R"(, "dnshosts": [)" + list + "]"); };
    const std::string a = R"({"domain": "a.example", "ip": "10.0.0.1"})";
    const std::string b = R"({"domain": "b.example", "ip": "10.0.0.2"})";
    EXPECT_EQ(Told(hosts(a + "," + b), hosts(b + "," + a + "," + b)), "no change\n");
}

TEST(MessageChanges, WhatHasNoEffectIsNoChange)
{
    const std::string forward = R"(, "dnsproxies": [{"domains": ["a.example"], "serverips": ["10.0.0.1")";
    EXPECT_EQ(Told(CpeJson(forward + "]}]"), CpeJson(forward + R"(, "0.0.0.0"], "serveripv6s": ["::1"]}])")),
              "no change\n");
    EXPECT_EQ(Told(CpeJson(""), CpeJson(R"(, "persistentflag": false)")), "no change\n");
}

TEST(MessageChanges, HostsAreReloaded)
{
    EXPECT_EQ(Told(CpeJson(kHost), CpeJson(R"(, "dnshosts": [{"domain": "nas.example", "ip": "192.168.7.9"},
                                              {"domain": "a.example", "ip": "192.168.7.8"}])")),
              "3 changes\n"
              "+ host a.example 192.168.7.8\n"
              "- host nas.example 192.168.7.10\n"
              "+ host nas.example 192.168.7.9\n");
}

TEST(MessageChanges, OneChangeIsSingular)
{
    EXPECT_EQ(Told(CpeJson(kHost), CpeJson("")), "1 change\n- host nas.example 192.168.7.10\n");
}

TEST(MessageChanges, UnboundServersAreReloadedAndBoundOnesAreNot)
{
    const std::string none = CpeJson("");
    EXPECT_EQ(Told(none, CpeJson(R"(, "dnsservers": [{"dnsserver": "10.0.0.53"}])")), "1 change\n+ server 10.0.0.53\n");
    EXPECT_EQ(Told(none, CpeJson(R"(, "dnsservers": [{"dnsserver": "10.0.0.53", "ifname": "wan0"}])")),
              "1 change; needs \"operation\": \"reboot\"\n+ server 10.0.0.53 wan0\n");
}

TEST(MessageChanges, MailExchangersAndForwardsNeedARestart)
{
    const std::string mx =
        R"(, "dnsmxhost": [{"targetdomain": "mail.example", "sourcedomain": "b.example", "preference": 10}])";
    EXPECT_EQ(Told(CpeJson(mx), CpeJson("")),
              "1 change; needs \"operation\": \"reboot\"\n- mx b.example mail.example 10\n");
    const std::string forward =
        R"(, "dnsproxies": [{"domains": ["a.example", "b.example"], "serverips": ["10.0.0.1"]}])";
    EXPECT_EQ(Told(CpeJson(""), CpeJson(forward)), "2 changes; needs \"operation\": \"reboot\"\n"
                                                   "+ forward a.example 10.0.0.1\n+ forward b.example 10.0.0.1\n");
    EXPECT_EQ(Told(CpeJson(""), CpeJson(mx, "reboot")),
              "1 change; restarts the instance\n+ mx b.example mail.example 10\n");
}

TEST(MessageChanges, ARestartThatIsNotNeededIsTold)
{
    EXPECT_EQ(Told(CpeJson(""), CpeJson(kHost, "reboot")),
              "1 change; restarts the instance, \"operation\": \"reload\" is enough\n"
              "+ host nas.example 192.168.7.10\n");
}

TEST(MessageChanges, WhereNothingIsInForceEverythingIsAdded)
{
    EXPECT_EQ(Told(std::nullopt, CpeJson(kHost)), "nothing is in force; 3 changes; needs \"operation\": \"reboot\"\n"
                                                  "+ enable true\n+ persistentflag false\n"
                                                  "+ host nas.example 192.168.7.10\n");
}

TEST(MessageChanges, SwitchingOnNeedsAStartAndSwitchingOffEndsTheInstance)
{
    EXPECT_EQ(Told(CpeJson("", "reload", false), CpeJson("")),
              "2 changes; needs \"operation\": \"reboot\"\n- enable false\n+ enable true\n");
    EXPECT_EQ(Told(CpeJson(""), CpeJson("", "reboot", false)),
              "2 changes; ends the instance\n- enable true\n+ enable false\n");
    EXPECT_EQ(Told(CpeJson("", "reload", false), CpeJson(kHost, "reload", false)),
              "1 change\n+ host nas.example 192.168.7.10\n");
}

TEST(MessageChanges, PersistenceIsAChange)
{
    EXPECT_EQ(Told(CpeJson(""), CpeJson(R"(, "persistentflag": true)")),
              "2 changes\n- persistentflag false\n+ persistentflag true\n");
}

TEST(MessageChanges, OfAPop)
{
    const std::string before = R"({"enable": true, "localip": "10.88.0.1", "dns": ["10.0.0.1"]})";
    EXPECT_EQ(Told(before, R"({"enable": true, "localip": "10.88.0.2", "dns": ["10.0.0.2"]})"),
              "4 changes; restarts the instance\n- localip 10.88.0.1\n+ localip 10.88.0.2\n"
              "- server 10.0.0.1\n+ server 10.0.0.2\n");
    EXPECT_EQ(Told(before, before), "no change; restarts the instance\n");
}

TEST(MessageChanges, NothingOfAMessageReachesTheTerminalUnchanged)
{
    EXPECT_EQ(Told(CpeJson(""), CpeJson(R"(, "dnshosts": [{"domain": "a\u001b[31m", "ip": "10.0.0.1"}])")),
              "1 change\n+ host a?[31m 10.0.0.1\n");
}

TEST(MessageChanges, AsJson)
{
    const JsonPtr json = ComparisonJson(CompareJson(CpeJson(kHost), CpeJson("", "reboot")));
    EXPECT_STREQ(
        json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN),
        R"({"in_force":true,"changes":[{"change":"removed","field":"host","value":"nas.example 192.168.7.10"}],)"
        R"("ends_instance":false,"restarts":true,"needs_restart":false})");
}

} // namespace
} // namespace kavel::ctl
