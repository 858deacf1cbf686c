#include <numeric>

#include "moduleTest.h"
#include "persistenceCase.h"
#include "popMessage.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kTranslation = "VQCtrl_PbToAdvancedDnsConfPlatformPOP: ";

class PopTranslation : public ModuleTest {
  protected:
    VQ_ERR_T Translate(PopMessage &Message)
    {
        const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
        return VQCtrl_PbToAdvancedDnsConfPlatformPOP(&Carrier, Conf.get());
    }

    [[nodiscard]] std::vector<uint32_t> Servers() const
    {
        std::vector<uint32_t> Out;
        for (std::size_t Each = 0; Each < Conf->DnsServerNum; ++Each) {
            Out.push_back(Conf->DnsServer[Each].DnsServerIp);
        }
        return Out;
    }

    Record Conf = NewRecord(0);
};

// 1, 2, 3 and so on.
std::vector<uint32_t> Numbered(std::size_t Count)
{
    std::vector<uint32_t> Out(Count);
    std::iota(Out.begin(), Out.end(), 1U);
    return Out;
}

TEST_F(PopTranslation, AMessageIsCopiedAndNoOtherFieldIsSet)
{
    const uint32_t Bytes = Ip(1, 2, 3, 4);
    PopMessage Message({Bytes, 0, Bytes}, Ip(10, 9, 8, 7));
    EXPECT_EQ(Translate(Message), 0);

    const Record Expected = NewRecord(0);
    Expected->Enable = TRUE;
    Expected->Op = VQ_CTRL_DNSMASQ_OP_REBOOT;
    AddServer(*Expected, Bytes, "");
    AddServer(*Expected, 0, "");
    AddServer(*Expected, Bytes, "");
    Expected->LocalIp = Ip(10, 9, 8, 7);
    EXPECT_TRUE(SameBytes(Conf.get(), Expected.get(), sizeof(*Expected)));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(PopTranslation, TheVpnIsNotChanged)
{
    Conf->VpnId = 5;
    PopMessage Message;
    EXPECT_EQ(Translate(Message), 0);
    EXPECT_EQ(Conf->VpnId, 5U);
}

TEST_F(PopTranslation, ADisabledMessageAsksForARestart)
{
    Conf->Enable = TRUE;
    PopMessage Message({}, 0, false);
    EXPECT_EQ(Translate(Message), 0);
    EXPECT_EQ(Conf->Enable, FALSE);
    EXPECT_EQ(Conf->Op, VQ_CTRL_DNSMASQ_OP_REBOOT);
}

TEST_F(PopTranslation, WithoutServersTheLocalAddressIsStillCopied)
{
    Conf->DnsServerNum = 3;
    PopMessage Message({}, Ip(10, 9, 8, 7));
    EXPECT_EQ(Translate(Message), 0);
    EXPECT_EQ(Conf->DnsServerNum, 0U);
    EXPECT_EQ(Conf->LocalIp, Ip(10, 9, 8, 7));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(PopTranslation, EightServersFit)
{
    PopMessage Message(Numbered(8));
    EXPECT_EQ(Translate(Message), 0);
    EXPECT_THAT(Servers(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_THAT(Logs(), IsEmpty());
}

class MoreServers : public PopTranslation, public testing::WithParamInterface<std::size_t> {};

TEST_P(MoreServers, TheFirstEightAreUsedAndOneWarningIsLogged)
{
    PopMessage Message(Numbered(GetParam()), 99);
    EXPECT_EQ(Translate(Message), 0);
    EXPECT_EQ(Conf->DnsServerNum, 8U);
    EXPECT_THAT(Servers(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_EQ(Conf->LocalIp, 99U);
    const Record Empty = NewRecord(0);
    EXPECT_TRUE(SameBytes(Conf->DnsProxy, Empty->DnsProxy, sizeof(Empty->DnsProxy)));
    EXPECT_THAT(Logs(), ElementsAre(testing::StartsWith("3 VQCtrl_PbToAdvancedDnsConfPlatformPOP: ")));
}

INSTANTIATE_TEST_SUITE_P(Counts, MoreServers, testing::Values(9, 10, 20, 254, 255),
                         [](const auto &Info) { return std::to_string(Info.param); });

TEST_F(PopTranslation, MoreThan255ServersAreRefused)
{
    for (const std::size_t Count : {256U, 257U, 65536U}) {
        Host.Log.Clear();
        PopMessage Message(Numbered(Count), 99);
        EXPECT_EQ(Translate(Message), -75);
        EXPECT_THAT(Logs(), ElementsAre(std::string("4 ") + kTranslation + "pop dnsmasq dns is overflow\n"));
        EXPECT_EQ(Conf->DnsServerNum, 0U);
        EXPECT_EQ(Conf->LocalIp, 0U);
        EXPECT_EQ(Conf->Enable, TRUE);
        EXPECT_EQ(Conf->Op, VQ_CTRL_DNSMASQ_OP_REBOOT);
    }
}

TEST_F(PopTranslation, ATooLargeNumberIsReportedBeforeAMissingArray)
{
    PopMessage Message;
    Message.Pb().n_dns = 256;
    EXPECT_EQ(Translate(Message), -75);
    EXPECT_THAT(Logs(), ElementsAre(std::string("4 ") + kTranslation + "pop dnsmasq dns is overflow\n"));
}

TEST_F(PopTranslation, AMissingArrayIsRefusedAfterTheHeader)
{
    for (const std::size_t Count : {1U, 255U}) {
        Host.Log.Clear();
        PopMessage Message({}, Ip(10, 9, 8, 7));
        Message.Pb().n_dns = Count;
        EXPECT_EQ(Translate(Message), -22);
        EXPECT_THAT(Logs(), ElementsAre(std::string("4 ") + kTranslation + "pop dnsmasq dns is null\n"));
        EXPECT_EQ(Conf->LocalIp, Ip(10, 9, 8, 7));
        EXPECT_EQ(Conf->Enable, TRUE);
        EXPECT_EQ(Conf->DnsServerNum, std::min<std::size_t>(Count, 8));
    }
}

TEST_F(PopTranslation, Ipv6IsNotRead)
{
    PopMessage Message({1});
    Message.Pb().n_dnsipv6 = 20;
    Message.Pb().has_localipv6 = 1;
    Message.Pb().localipv6.len = 16;
    EXPECT_EQ(Translate(Message), 0);
    EXPECT_THAT(Servers(), ElementsAre(1));
}

class PopPersistence : public PopTranslation, public testing::WithParamInterface<PersistenceCase> {};

TEST_P(PopPersistence, FollowsTheFlagOnlyWhereTheHostKeepsConfiguration)
{
    PopMessage Message;
    GetParam().Put(Message.Pb());
    Host.Rows.Enabled = GetParam().HostKeeps;
    Conf->PersistentFlag = GetParam().Before;
    EXPECT_EQ(Translate(Message), 0);
    EXPECT_EQ(Conf->PersistentFlag, GetParam().After);
}

INSTANTIATE_TEST_SUITE_P(Flags, PopPersistence, testing::ValuesIn(kPersistenceCases));

} // namespace
