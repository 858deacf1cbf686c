// The check of a message, and what is refused or told before the module gets it.
#include "socket/requests.h"

#include <array>
#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "requests_fixture.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;

// ---- Check ----

TEST_F(RequestsTest, CheckTranslatesAndAppliesNothing)
{
    module_.onTranslate = [](VQ_DNSMASQ_CONF &record) {
        EXPECT_EQ(record.DnsHostNum, 0) << "the record is zeroed";
        record.Enable = TRUE;
        record.Op = VQ_DNSMASQ_OP_REBOOT;
        record.PersistentFlag = TRUE;
        record.DnsHostNum = 1;
        record.DnsMxHostNum = 2;
        record.DnsServerNum = 3;
        record.DnsProxyNum = 4;
        return 0;
    };
    const Answer answer = AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CHECK, std::nullopt, launch_)));
    EXPECT_THAT(module_.calls, ElementsAre("translate"));
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.vpn, vpnId_);
    ASSERT_TRUE(answer.summary);
    EXPECT_TRUE(answer.summary->enable && answer.summary->persistent);
    EXPECT_EQ(answer.summary->operation, 1U);
    EXPECT_EQ(answer.summary->hosts, 1U);
    EXPECT_EQ(answer.summary->mx_hosts, 2U);
    EXPECT_EQ(answer.summary->servers, 3U);
    EXPECT_EQ(answer.summary->proxies, 4U);
    EXPECT_TRUE(launches_.IsEmpty());
}

TEST_F(RequestsTest, CheckGivesTheModulesObjection)
{
    module_.onTranslate = [this](VQ_DNSMASQ_CONF &) {
        host_.moduleErrors.Add("a bad domain (22:Invalid argument).");
        return -22;
    };
    const Answer answer = AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CHECK, std::nullopt, launch_)));
    EXPECT_EQ(answer.result, -22);
    EXPECT_EQ(answer.reason, "a bad domain (22:Invalid argument).");
    EXPECT_FALSE(answer.summary);
}

TEST_F(RequestsTest, CheckRefusesWhatApplyRefuses)
{
    const auto check = [this](const Bytes &message) {
        return AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CHECK, std::nullopt, message)));
    };
    EXPECT_EQ(check({1, 2}).text, "not a CPE message");
    EXPECT_EQ(check(WithBadInterfaceName(vpnId_)).text, "dnsservers[0].ifname is not an interface name");
    EXPECT_THAT(module_.calls, ElementsAre());
    EXPECT_EQ(check(PackCpe(unknown_, true, 1)).text, "vpn " + std::to_string(unknown_) + " is not configured");
}

TEST_F(RequestsTest, CheckRefusesAnUnknownOperation)
{
    module_.onTranslate = [](VQ_DNSMASQ_CONF &record) {
        record.Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(2);
        return 0;
    };
    const auto check = [this](bool enable) {
        return AnswerIn(Send(PackRequest(KAVEL__REQUEST__VERB__CHECK, std::nullopt, PackCpe(vpnId_, enable, 2))));
    };
    EXPECT_EQ(check(true).result, -EINVAL);
    EXPECT_EQ(check(true).text, "operation: it is 2; 0 is reload, 1 is reboot");
    EXPECT_EQ(check(false).result, 0) << "it does not matter when the service is switched off";
}

// ---- What dnsmasq cannot start with, and what has no effect ----

Bytes WithPreference(std::uint32_t vpnId, bool enable, std::uint32_t preference)
{
    return PackCpe(vpnId, enable, VQ_DNSMASQ_OP_REBOOT, [&](DnsmasqConf &message) {
        static DnsMxHostItem item;
        static std::array<DnsMxHostItem *, 1> items{&item};
        dns_mx_host_item__init(&item);
        item.preference = preference;
        message.dnsmxhost = items.data();
        message.n_dnsmxhost = items.size();
    });
}

TEST_F(RequestsTest, AMessageThatWouldKeepDnsmasqFromStartingIsRefusedBeforeTheModuleSeesIt)
{
    const Answer answer = Apply(WithPreference(vpnId_, true, 65536));
    EXPECT_EQ(answer.result, -EINVAL);
    EXPECT_EQ(answer.text, "dnsmxhost[0].preference: it is 65536; dnsmasq accepts 65535 at most");
    EXPECT_THAT(module_.calls, ElementsAre());
}

TEST_F(RequestsTest, AMessageThatSwitchesOffIsNotRefusedForWhatDnsmasqCannotStartWith)
{
    EXPECT_EQ(Apply(WithPreference(vpnId_, false, 65536)).result, 0);
    EXPECT_THAT(module_.calls, ElementsAre("configure"));
}

TEST_F(RequestsTest, AProcessThatWasEndedBesideTheInstanceIsTold)
{
    module_.onConfigure = [this](const VQ_CTRL_DNSMASQ_CONFIG_PB &) {
        EXPECT_EQ(host_.currentVpn, vpnId_);
        host_.endedProcesses.emplace_back("process 42 (dnsmasq)");
        return 0;
    };
    const Answer answer = Apply(switchOff_);
    EXPECT_THAT(answer.notes, ElementsAre("also ended process 42 (dnsmasq)"));
    EXPECT_EQ(answer.enabled, false);
    EXPECT_EQ(answer.running, false);
    EXPECT_EQ(host_.currentVpn, std::nullopt);
}

} // namespace
} // namespace kavel::agent
