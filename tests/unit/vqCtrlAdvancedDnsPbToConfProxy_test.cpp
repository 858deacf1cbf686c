#include "cpeMessage.h"
#include "moduleTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

using Pair = std::pair<std::string, uint32_t>;

class ProxyTranslation : public ModuleTest {
  protected:
    VQ_ERR_T Translate() { return Translate(Message.Pb()); }

    VQ_ERR_T Translate(const DnsmasqConf &Pb)
    {
        VQ_CTRL_DNSMASQ_CONFIG_PB Carrier{};
        Carrier.DnsmasqPbCPE = &Pb;
        return VQCtrl_PbToAdvancedDnsConfPlatformCPE(&Carrier, Conf.get());
    }

    void ExpectRefused(const DnsmasqConf &Pb, VQ_ERR_T Code, const std::string &Text)
    {
        const std::string Reason = Code == -22 ? "(22:Invalid argument)" : "(75:Value too large for defined data type)";
        EXPECT_EQ(Translate(Pb), Code);
        EXPECT_THAT(Logs(), ElementsAre("4 _VQCtrl_PbToAdvancedDnsProxyConf: " + Text,
                                        "4 VQCtrl_PbToAdvancedDnsConfPlatformCPE: Pb To dnsmasq for dns proxy failed" +
                                            Reason + "\n"));
        EXPECT_EQ(Conf->DnsProxyNum, 0U);
        Host.Log.Clear();
    }

    [[nodiscard]] std::vector<Pair> Pairs() const
    {
        std::vector<Pair> Out;
        for (std::size_t Each = 0; Each < Conf->DnsProxyNum; ++Each) {
            Out.emplace_back(Conf->DnsProxy[Each].Domain, Conf->DnsProxy[Each].ServerIp);
        }
        return Out;
    }

    CpeMessage Message{7};
    Record Conf = NewRecord(0);
};

TEST_F(ProxyTranslation, PairsAreTheCrossProductDomainsFirst)
{
    Message.AddProxy({"a.example.com", "b.example.com"}, {1, 2});
    Message.AddProxy({"c.example.com"}, {3});

    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), ElementsAre(Pair("a.example.com", 1), Pair("a.example.com", 2), Pair("b.example.com", 1),
                                     Pair("b.example.com", 2), Pair("c.example.com", 3)));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(ProxyTranslation, NothingIsDeduplicated)
{
    Message.AddProxy({"a.example.com", "a.example.com"}, {1, 1});
    Message.AddProxy({"a.example.com"}, {1});
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), testing::AllOf(testing::SizeIs(5), testing::Each(Pair("a.example.com", 1))));
}

TEST_F(ProxyTranslation, AnInvalidDomainIsSkippedWithAWarning)
{
    Message.AddProxy({"bad_name.com", "good.example.com", "example"}, {1});
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), ElementsAre(Pair("good.example.com", 1)));
    EXPECT_THAT(Logs(),
                ElementsAre("3 _VQCtrl_PbToAdvancedDnsProxyConf: dnsproxy item domain(bad_name.com) is invalid\n",
                            "3 _VQCtrl_PbToAdvancedDnsProxyConf: dnsproxy item domain(example) is invalid\n"));
}

TEST_F(ProxyTranslation, AnAbsentDomainIsSkippedWithAWarning)
{
    Message.AddProxy({std::nullopt, "good.example.com"}, {1});
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), ElementsAre(Pair("good.example.com", 1)));
    EXPECT_THAT(Logs(), ElementsAre("3 _VQCtrl_PbToAdvancedDnsProxyConf: dnsproxy item domain is null\n"));
}

TEST_F(ProxyTranslation, ALongDomainIsSkippedAndLoggedWhole)
{
    const std::string Long = DomainOfLength(255);
    Message.AddProxy({Long, DomainOfLength(254)}, {1});
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), ElementsAre(Pair(DomainOfLength(254), 1)));
    EXPECT_THAT(Logs(),
                ElementsAre("3 _VQCtrl_PbToAdvancedDnsProxyConf: dnsproxy item domain(" + Long + ") is invalid\n"));
}

TEST_F(ProxyTranslation, ZeroAddressesAreSkippedSilently)
{
    Message.AddProxy({"a.example.com"}, {0, 5, 0});
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), ElementsAre(Pair("a.example.com", 5)));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(ProxyTranslation, AnItemOfZeroAddressesYieldsNothing)
{
    Message.AddProxy({"a.example.com"}, {0, 0});
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), IsEmpty());
}

TEST_F(ProxyTranslation, AnItemWithoutDomainsOrWithoutAddressesYieldsNothing)
{
    Message.AddProxy({}, {1, 2});
    Message.AddProxy({"a.example.com"}, {});
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), IsEmpty());
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(ProxyTranslation, Ipv6ServersAreNotRead)
{
    DnsProxyItemV2 &Item = Message.AddProxy({"a.example.com"}, {4});
    Item.n_serveripv6s = 20;
    Item.serveripv6s = nullptr;
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), ElementsAre(Pair("a.example.com", 4)));
}

// The array is checked before its count.
TEST_F(ProxyTranslation, AMissingListIsRefusedWhateverItsCount)
{
    for (const std::size_t Count : {std::size_t{1}, std::size_t{2000}}) {
        DnsmasqConf Pb = Message.Pb();
        Pb.n_dnsproxies = Count;
        Pb.dnsproxies = nullptr;
        ExpectRefused(Pb, -22, "dnsmasq dns proxy is null\n");
    }
}

TEST_F(ProxyTranslation, MoreThan1024ItemsAreRefusedUnread)
{
    for (int Each = 0; Each < 1025; ++Each) {
        Message.AddNullProxy();
    }
    ExpectRefused(Message.Pb(), -75, "dnsmasq dns proxy item number is more than 1024\n");
}

TEST_F(ProxyTranslation, ANullItemIsRefusedAfterTheItemsBeforeIt)
{
    Message.AddProxy({"a.example.com"}, {6});
    Message.AddNullProxy();
    ExpectRefused(Message.Pb(), -22, "dnsmasq dns proxy item[1] is null\n");
    EXPECT_STREQ(Conf->DnsProxy[0].Domain, "a.example.com");
    EXPECT_EQ(Conf->DnsProxy[0].ServerIp, 6U);
}

TEST_F(ProxyTranslation, EightDomainsAndEightAddressesAreAccepted)
{
    const std::vector<CpeMessage::Text> Domains(8, "a.example.com");
    Message.AddProxy(Domains, std::vector<uint32_t>(8, 1));
    EXPECT_EQ(Translate(), 0);
    EXPECT_EQ(Conf->DnsProxyNum, 64U);
}

TEST_F(ProxyTranslation, NineDomainsAreRefusedEvenWithoutAddresses)
{
    Message.AddProxy(std::vector<CpeMessage::Text>(9, "a.example.com"), {});
    ExpectRefused(Message.Pb(), -75, "dnsmasq dns proxy item ip or domain number is overflow\n");
}

TEST_F(ProxyTranslation, NineAddressesAreRefusedEvenWithoutDomains)
{
    Message.AddProxy({}, std::vector<uint32_t>(9, 1));
    ExpectRefused(Message.Pb(), -75, "dnsmasq dns proxy item ip or domain number is overflow\n");
}

// The numbers are checked before the array.
TEST_F(ProxyTranslation, AMissingDomainArrayIsRefusedWithTheItemsIndex)
{
    Message.AddProxy({"a.example.com"}, {1});
    DnsProxyItemV2 &Item = Message.AddProxy({"b.example.com"}, {1});
    Item.domains = nullptr;
    ExpectRefused(Message.Pb(), -22, "dnsmasq dns proxy[1].domain is null\n");
    Item.n_domains = 9;
    ExpectRefused(Message.Pb(), -75, "dnsmasq dns proxy item ip or domain number is overflow\n");
    Item.n_domains = 0;
    EXPECT_EQ(Translate(), 0);
    EXPECT_EQ(Conf->DnsProxyNum, 1U);
}

TEST_F(ProxyTranslation, AMissingAddressArrayIsRefused)
{
    DnsProxyItemV2 &Item = Message.AddProxy({"a.example.com"}, {1});
    Item.serverips = nullptr;
    EXPECT_EQ(Translate(), -22);
    EXPECT_EQ(Conf->DnsProxyNum, 0U);
    EXPECT_THAT(Logs().back(), "4 VQCtrl_PbToAdvancedDnsConfPlatformCPE: Pb To dnsmasq for dns proxy failed"
                               "(22:Invalid argument)\n");
}

// 1024 items with 8 domains and 8 addresses each fill all 65536 slots, for which the 16-bit count is 0.
TEST_F(ProxyTranslation, AFullTableWrapsItsCountToZero)
{
    const std::vector<CpeMessage::Text> Domains(8, "a.example.com");
    for (uint32_t Each = 0; Each < 1024; ++Each) {
        Message.AddProxy(Domains, std::vector<uint32_t>(8, Each + 1));
    }
    EXPECT_EQ(Translate(), 0);
    EXPECT_EQ(Conf->DnsProxyNum, 0U);
    EXPECT_STREQ(Conf->DnsProxy[65535].Domain, "a.example.com");
    EXPECT_EQ(Conf->DnsProxy[65535].ServerIp, 1024U);
    EXPECT_EQ(Conf->LocalIp, 0U);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(ProxyTranslation, ADomainWithABlankIsSkipped)
{
    Message.AddProxy({"a b.example.com"}, {1});
    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Pairs(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(StartsWith("3 _VQCtrl_PbToAdvancedDnsProxyConf: dnsproxy item domain(a b.")));
    Host.Regex.ExpectUnreleased(1);
}

} // namespace
