#include "json_output.h"
#include "output.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace kavel::ctl {
namespace {

std::string Refusal(std::int32_t result, const char *text, const char *reason)
{
    std::string ownText = text != nullptr ? text : "";
    std::string ownReason = reason != nullptr ? reason : "";
    Kavel__Reply reply{};
    kavel__reply__init(&reply);
    reply.result = result;
    reply.text = text != nullptr ? ownText.data() : nullptr;
    reply.reason = reason != nullptr ? ownReason.data() : nullptr;
    return RefusalText(reply);
}

TEST(RefusalText, PrefersTheModulesReason)
{
    EXPECT_EQ(Refusal(-22, "Invalid argument", "dnsmasq dns host[3].domain is invalid"),
              "(-22 Invalid argument): dnsmasq dns host[3].domain is invalid");
}

TEST(RefusalText, UsesTheAgentsTextWithoutAReason)
{
    EXPECT_EQ(Refusal(-2, "vpn 99 is not configured", nullptr),
              "(-2 No such file or directory): vpn 99 is not configured");
}

TEST(RefusalText, DoesNotRepeatTheErrorText)
{
    EXPECT_EQ(Refusal(-12, "Cannot allocate memory", nullptr), "(-12 Cannot allocate memory)");
    EXPECT_EQ(Refusal(-12, nullptr, nullptr), "(-12 Cannot allocate memory)");
}

TEST(RefusalText, HandlesTheSmallestResult)
{
    EXPECT_EQ(Refusal(std::numeric_limits<std::int32_t>::min(), nullptr, "odd"),
              "(-2147483648 Unknown error 2147483647): odd");
}

TEST(RefusalText, ReplacesControlCharacters)
{
    EXPECT_EQ(Refusal(-22, nullptr, "domain(\033[31mx\n) is invalid"),
              "(-22 Invalid argument): domain(?[31mx?) is invalid");
}

TEST(JsonDocument, IsIndentedAndEndsInALineFeed)
{
    EXPECT_EQ(JsonDocument(ParseJson(R"({"a":["b/c"]})").get()), R"({
  "a": [
    "b/c"
  ]
}
)");
    EXPECT_EQ(JsonDocument(nullptr), "null\n");
}

TEST(JsonDocument, EscapesWhatMustNotReachATerminal)
{
    EXPECT_EQ(JsonDocument(ParseJson("\"\u202E\u009b\x7f\u00e9\"").get()), "\"\\u202e\\u009b\\u007f\u00e9\"\n");
}

TEST(Counted, UsesSingularAndPlural)
{
    EXPECT_EQ(Counted(0, "host"), "0 hosts");
    EXPECT_EQ(Counted(1, "host"), "1 host");
    EXPECT_EQ(Counted(2, "host"), "2 hosts");
}

TEST(OperationText, NamesTheKnownOperations)
{
    EXPECT_EQ(OperationText(0), "reload");
    EXPECT_EQ(OperationText(1), "reboot");
    EXPECT_EQ(OperationText(2), "operation 2 (unknown)");
}

TEST(SubjectText, NamesTheVpnWhenItIsKnown)
{
    EXPECT_EQ(SubjectText(7), "vpn 7");
    EXPECT_EQ(SubjectText(0), "vpn 0");
    EXPECT_EQ(SubjectText(std::nullopt), "message");
}

TEST(SummaryText, ListsWhatAMessageSets)
{
    Kavel__Summary summary{};
    kavel__summary__init(&summary);
    summary.enable = 1;
    summary.hosts = 2;
    summary.mx_hosts = 1;
    summary.servers = 2;
    summary.proxies = 3;
    EXPECT_EQ(SummaryText(summary), "enabled, reload, 2 hosts, 1 mx, 2 servers, 3 forwards, not stored");
    summary.enable = 0;
    summary.operation = 1;
    summary.persistent = 1;
    summary.hosts = summary.servers = summary.proxies = 1;
    EXPECT_EQ(SummaryText(summary), "disabled, reboot, 1 host, 1 mx, 1 server, 1 forward, stored");
}

} // namespace
} // namespace kavel::ctl
