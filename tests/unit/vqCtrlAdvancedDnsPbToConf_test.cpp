#include <utility>

#include "cpeMessage.h"
#include "moduleTest.h"
#include "persistenceCase.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kTranslation = "4 VQCtrl_PbToAdvancedDnsConfPlatformCPE: ";

class CpeTranslation : public ModuleTest {
  protected:
    VQ_ERR_T Translate() { return Translate(Message.Pb()); }

    VQ_ERR_T Translate(const DnsmasqConf &Pb)
    {
        VQ_CTRL_DNSMASQ_CONFIG_PB Carrier{};
        Carrier.DnsmasqPbCPE = &Pb;
        return VQCtrl_PbToAdvancedDnsConfPlatformCPE(&Carrier, Conf.get());
    }

    void ExpectRefused(VQ_ERR_T Code, const std::string &Text)
    {
        EXPECT_EQ(Translate(), Code);
        EXPECT_THAT(Logs(), ElementsAre(kTranslation + Text));
    }

    CpeMessage Message{7};
    Record Conf = NewRecord(0);
};

TEST_F(CpeTranslation, FourEmptyListsSetTheHeaderOnly)
{
    EXPECT_EQ(Translate(), 0);

    EXPECT_EQ(Conf->Enable, TRUE);
    EXPECT_EQ(Conf->Op, VQ_CTRL_DNSMASQ_OP_REBOOT);
    EXPECT_EQ(Conf->PersistentFlag, FALSE);
    EXPECT_EQ(Conf->VpnId, 7U);
    EXPECT_EQ(Conf->DnsHostNum, 0U);
    EXPECT_EQ(Conf->DnsMxHostNum, 0U);
    EXPECT_EQ(Conf->DnsServerNum, 0U);
    EXPECT_EQ(Conf->DnsProxyNum, 0U);
    EXPECT_EQ(Conf->LocalIp, 0U);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(CpeTranslation, AnEmptyListDoesNotChangeItsCount)
{
    Conf->DnsHostNum = 1;
    Conf->DnsMxHostNum = 2;
    Conf->DnsServerNum = 3;
    Conf->DnsProxyNum = 4;

    EXPECT_EQ(Translate(), 0);

    EXPECT_EQ(Conf->DnsHostNum, 1U);
    EXPECT_EQ(Conf->DnsMxHostNum, 2U);
    EXPECT_EQ(Conf->DnsServerNum, 3U);
    EXPECT_EQ(Conf->DnsProxyNum, 4U);
}

TEST_F(CpeTranslation, AnAbsentVpnIdIsZero)
{
    Message.Pb().has_vpnid = 0;
    Conf->VpnId = 5;
    EXPECT_EQ(Translate(), 0);
    EXPECT_EQ(Conf->VpnId, 0U);
}

TEST_F(CpeTranslation, ADisabledMessageIsCopied)
{
    Message.Pb().enable = 0;
    Conf->Enable = TRUE;
    EXPECT_EQ(Translate(), 0);
    EXPECT_EQ(Conf->Enable, FALSE);
}

TEST_F(CpeTranslation, TheOperationIsCopiedWithoutARangeCheck)
{
    for (const uint32_t Operation : {0U, 1U, 2U, 77U, 0x80000000U, 0xffffffffU}) {
        Message.Pb().operation = Operation;
        EXPECT_EQ(Translate(), 0);
        EXPECT_EQ(static_cast<uint32_t>(Conf->Op), Operation);
    }
    EXPECT_THAT(Logs(), IsEmpty());
}

class CpePersistence : public CpeTranslation, public testing::WithParamInterface<PersistenceCase> {};

TEST_P(CpePersistence, FollowsTheFlagOnlyWhereTheHostKeepsConfiguration)
{
    GetParam().Put(Message.Pb());
    Host.Rows.Enabled = GetParam().HostKeeps;
    Conf->PersistentFlag = GetParam().Before;

    EXPECT_EQ(Translate(), 0);
    EXPECT_EQ(Conf->PersistentFlag, GetParam().After);
}

INSTANTIATE_TEST_SUITE_P(Flags, CpePersistence, testing::ValuesIn(kPersistenceCases));

TEST_F(CpeTranslation, HostsAreCopiedInOrder)
{
    Message.AddHost("nas.example.com", Ip(10, 0, 0, 1));
    DnsHostItem &Second = Message.AddHost("nas.example.com", 0);
    uint8_t Ipv6[16] = {0xfe, 0x80};
    Second.has_ipv6 = 1;
    Second.ipv6 = {sizeof(Ipv6), Ipv6};

    EXPECT_EQ(Translate(), 0);

    ASSERT_EQ(Conf->DnsHostNum, 2U);
    EXPECT_EQ(Conf->DnsHost[0].Ip, Ip(10, 0, 0, 1));
    EXPECT_STREQ(Conf->DnsHost[0].Domain, "nas.example.com");
    EXPECT_EQ(Conf->DnsHost[1].Ip, 0U);
    EXPECT_STREQ(Conf->DnsHost[1].Domain, "nas.example.com");
}

TEST_F(CpeTranslation, DomainsAreCopiedIntoTheirWholeField)
{
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    Message.AddHost("a.example", 1);
    Message.AddMx("b.example", "c.example", 1);
    Message.AddServer(1, "eth0");
    Message.AddProxy({"d.example"}, {1});

    EXPECT_EQ(Translate(), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_SafeStrCopy"),
                ElementsAre("VQ_SafeStrCopy(256, \"a.example\")", "VQ_SafeStrCopy(256, \"b.example\")",
                            "VQ_SafeStrCopy(256, \"c.example\")", "VQ_SafeStrCopy(16, \"eth0\")",
                            "VQ_SafeStrCopy(256, \"d.example\")"));
}

TEST_F(CpeTranslation, TheResultOfACopyIsIgnored)
{
    Message.AddHost("a.example", 1);
    Host.Failures.Fail("VQ_SafeStrCopy", -75);
    EXPECT_EQ(Translate(), 0);
    EXPECT_EQ(Conf->DnsHostNum, 1U);
}

// The array is checked before its count.
TEST_F(CpeTranslation, AMissingListIsRefusedWhateverItsCount)
{
    for (const std::size_t Count : {std::size_t{1}, std::size_t{2000}}) {
        DnsmasqConf Pb = Message.Pb();
        Pb.dnshosts = nullptr;
        Pb.n_dnshosts = Count;
        EXPECT_EQ(Translate(Pb), -22);
        Pb.n_dnshosts = 0;
        Pb.dnsmxhost = nullptr;
        Pb.n_dnsmxhost = Count;
        EXPECT_EQ(Translate(Pb), -22);
        Pb.n_dnsmxhost = 0;
        Pb.dnsservers = nullptr;
        Pb.n_dnsservers = Count;
        EXPECT_EQ(Translate(Pb), -22);
        EXPECT_THAT(Logs(), ElementsAre(std::string(kTranslation) + "dnsmasq dns host is null\n",
                                        std::string(kTranslation) + "dnsmasq dns mx host is null\n",
                                        std::string(kTranslation) + "dnsmasq dns server is null\n"));
        Host.Log.Clear();
    }
}

// The items are null. A list over its limit is refused before any item is read.
TEST_F(CpeTranslation, AListOverItsLimitIsRefusedUnread)
{
    for (int Each = 0; Each < 1025; ++Each) {
        Message.AddNullHost();
    }
    ExpectRefused(-75, "dnsmasq dns host number is more than 1024\n");
}

TEST_F(CpeTranslation, AnMxListOverItsLimitIsRefusedUnread)
{
    for (int Each = 0; Each < 129; ++Each) {
        Message.AddNullMx();
    }
    ExpectRefused(-75, "dnsmasq dns mx host number is more than 128\n");
}

TEST_F(CpeTranslation, AServerListOverItsLimitIsRefusedUnread)
{
    for (int Each = 0; Each < 9; ++Each) {
        Message.AddNullServer();
    }
    ExpectRefused(-75, "dnsmasq dns server number is more than 8\n");
}

TEST_F(CpeTranslation, FullListsAreAccepted)
{
    for (uint32_t Each = 0; Each < 1024; ++Each) {
        Message.AddHost("h" + std::to_string(Each) + ".example.com", Each);
    }
    for (uint32_t Each = 0; Each < 128; ++Each) {
        Message.AddMx("mx.example.com", "s" + std::to_string(Each) + ".example.com", Each);
    }
    for (uint32_t Each = 0; Each < 8; ++Each) {
        Message.AddServer(Each, "eth0");
    }

    EXPECT_EQ(Translate(), 0);

    EXPECT_EQ(Conf->DnsHostNum, 1024U);
    EXPECT_STREQ(Conf->DnsHost[1023].Domain, "h1023.example.com");
    EXPECT_EQ(Conf->DnsMxHostNum, 128U);
    EXPECT_STREQ(Conf->DnsMxHost[127].SourceDomain, "s127.example.com");
    EXPECT_EQ(Conf->DnsServerNum, 8U);
    EXPECT_EQ(Conf->DnsServer[7].DnsServerIp, 7U);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(CpeTranslation, ANullHostIsRefused)
{
    Message.AddHost("a.example.com", 1);
    Message.AddNullHost();
    ExpectRefused(-22, "dnsmasq dns host[1] is null\n");
}

TEST_F(CpeTranslation, AHostWithoutADomainIsRefused)
{
    Message.AddHost("a.example.com", 1);
    Message.AddHost(std::nullopt, 1);
    ExpectRefused(-22, "dnsmasq dns host[1].domain is null\n");
}

TEST_F(CpeTranslation, AHostDomainOf254CharactersIsTheLongest)
{
    Message.AddHost(DomainOfLength(254), 1);
    EXPECT_EQ(Translate(), 0);
    EXPECT_EQ(Conf->DnsHost[0].Domain, DomainOfLength(254));
}

TEST_F(CpeTranslation, AHostDomainOf255CharactersIsInvalid)
{
    Message.AddHost(DomainOfLength(255), 1);
    ExpectRefused(-22, "dnsmasq dns host[0].domain is invalid\n");
}

TEST_F(CpeTranslation, AHostDomainOf256CharactersIsAnOverflow)
{
    Message.AddHost(DomainOfLength(256), 1);
    ExpectRefused(-22, "dnsmasq dns host[0] domain is overflow\n");
}

// The record has the lists before the bad one, the items before the bad item without their count, and nothing after it.
TEST_F(CpeTranslation, AFailureLeavesTheRecordPartlyFilled)
{
    Message.AddHost("a.example.com", 1);
    Message.AddMx("mx.example.com", "example.com", 10);
    Message.AddMx("mx.example.com", "bad_name", 10);
    Message.AddServer(5, "eth0");

    ExpectRefused(-22, "dnsmasq dns mx host[1].sourcedomain is invalid\n");

    EXPECT_EQ(Conf->DnsHostNum, 1U);
    EXPECT_EQ(Conf->DnsMxHostNum, 0U);
    EXPECT_STREQ(Conf->DnsMxHost[0].TargetDomain, "mx.example.com");
    EXPECT_EQ(Conf->DnsMxHost[0].Preference, 10U);
    EXPECT_EQ(Conf->DnsServerNum, 0U);
    EXPECT_EQ(Conf->DnsServer[0].DnsServerIp, 0U);
}

TEST_F(CpeTranslation, MxItemsAreCopied)
{
    Message.AddMx("mx1.example.com", "example.com", 0);
    Message.AddMx("mx2.example.com", "example.org", 65536);

    EXPECT_EQ(Translate(), 0);

    ASSERT_EQ(Conf->DnsMxHostNum, 2U);
    EXPECT_STREQ(Conf->DnsMxHost[1].TargetDomain, "mx2.example.com");
    EXPECT_STREQ(Conf->DnsMxHost[1].SourceDomain, "example.org");
    EXPECT_EQ(Conf->DnsMxHost[1].Preference, 65536U);
}

struct MxFault {
    CpeMessage::Text Target;
    CpeMessage::Text Source;
    uint32_t Preference;
    const char *Message;
};

class MxOrder : public CpeTranslation, public testing::WithParamInterface<MxFault> {};

// Each item has one error and all errors that are checked after it.
TEST_P(MxOrder, TheFirstErrorIsReported)
{
    Message.AddMx("mx.example.com", "example.com", 1);
    Message.AddMx(GetParam().Target, GetParam().Source, GetParam().Preference);
    ExpectRefused(-22, GetParam().Message);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, MxOrder,
    testing::Values(
        MxFault{std::nullopt, std::nullopt, 65537, "dnsmasq dns mx host[1].targetdomain is null\n"},
        MxFault{std::string(256, '_'), std::nullopt, 65537, "dnsmasq dns mx host[1].sourcedomain is null\n"},
        MxFault{std::string(256, '_'), std::string(256, '_'), 65537,
                "dnsmasq dns mx host[1] target domain is overflow\n"},
        MxFault{std::string(255, '_'), std::string(256, '_'), 65537,
                "dnsmasq dns mx host[1] source domain is overflow\n"},
        MxFault{std::string(255, '_'), std::string(255, '_'), 65537, "dnsmasq dns mx host[1].preference is invalid\n"},
        MxFault{std::string(255, '_'), std::string(255, '_'), 65536,
                "dnsmasq dns mx host[1].targetdomain is invalid\n"},
        MxFault{"mx.example.com", std::string(255, '_'), 65536, "dnsmasq dns mx host[1].sourcedomain is invalid\n"}));

TEST_F(CpeTranslation, ANullMxIsRefused)
{
    Message.AddMx("mx.example.com", "example.com", 1);
    Message.AddNullMx();
    ExpectRefused(-22, "dnsmasq dns mx host[1] is null\n");
}

TEST_F(CpeTranslation, ServersAreCopied)
{
    Message.AddServer(Ip(10, 0, 0, 1), "eth0");
    Message.AddServer(Ip(10, 0, 0, 1), "eth1");
    Message.AddServer(Ip(10, 0, 0, 2), "eth0");
    Message.AddServer(Ip(10, 0, 0, 1), std::nullopt);
    Message.AddServer(Ip(10, 0, 0, 3), "fifteen-letters");

    EXPECT_EQ(Translate(), 0);

    ASSERT_EQ(Conf->DnsServerNum, 5U);
    EXPECT_EQ(Conf->DnsServer[1].DnsServerIp, Ip(10, 0, 0, 1));
    EXPECT_STREQ(Conf->DnsServer[1].Ifname, "eth1");
    EXPECT_STREQ(Conf->DnsServer[3].Ifname, "");
    EXPECT_STREQ(Conf->DnsServer[4].Ifname, "fifteen-letters");
}

TEST_F(CpeTranslation, ANullServerIsRefused)
{
    Message.AddServer(1, "eth0");
    Message.AddNullServer();
    ExpectRefused(-22, "dnsmasq dns server[1] is null\n");
}

TEST_F(CpeTranslation, ARepeatedServerIsRefused)
{
    Message.AddServer(Ip(10, 0, 0, 1), "eth0");
    Message.AddServer(Ip(10, 0, 0, 2), "eth0");
    Message.AddServer(Ip(10, 0, 0, 1), "eth0");
    ExpectRefused(-22, "dnsmasq dns server[2] is repeat\n");
    EXPECT_EQ(Conf->DnsServer[1].DnsServerIp, Ip(10, 0, 0, 2));
    EXPECT_EQ(Conf->DnsServerNum, 0U);
}

// A missing name is treated as an empty one.
TEST_F(CpeTranslation, ARepeatedServerWithoutAnInterfaceIsRefused)
{
    for (const auto &[First, Second] : std::vector<std::pair<CpeMessage::Text, CpeMessage::Text>>{
             {std::nullopt, std::nullopt}, {std::nullopt, ""}, {"", std::nullopt}, {"", ""}}) {
        CpeMessage Twice(7);
        Twice.AddServer(9, First);
        Twice.AddServer(9, Second);
        EXPECT_EQ(Translate(Twice.Pb()), -22);
        EXPECT_THAT(Logs(), ElementsAre(std::string(kTranslation) + "dnsmasq dns server[1] is repeat\n"));
        Host.Log.Clear();
    }
}

TEST_F(CpeTranslation, ALongInterfaceNameIsRefused)
{
    Message.AddServer(1, "eth0");
    Message.AddServer(2, "sixteen-letters-");
    ExpectRefused(-22, "dnsmasq dns server[1] ifname is overflow\n");
}

TEST_F(CpeTranslation, SectionsAreCheckedInOrderHostsMxServersProxies)
{
    Message.AddNullHost();
    Message.AddNullMx();
    Message.AddNullServer();
    Message.AddNullProxy();
    DnsmasqConf Pb = Message.Pb();

    EXPECT_EQ(Translate(Pb), -22);
    Pb.n_dnshosts = 0;
    EXPECT_EQ(Translate(Pb), -22);
    Pb.n_dnsmxhost = 0;
    EXPECT_EQ(Translate(Pb), -22);
    Pb.n_dnsservers = 0;
    EXPECT_EQ(Translate(Pb), -22);
    EXPECT_THAT(Logs(),
                ElementsAre(std::string(kTranslation) + "dnsmasq dns host[0] is null\n",
                            std::string(kTranslation) + "dnsmasq dns mx host[0] is null\n",
                            std::string(kTranslation) + "dnsmasq dns server[0] is null\n",
                            "4 _VQCtrl_PbToAdvancedDnsProxyConf: dnsmasq dns proxy item[0] is null\n",
                            std::string(kTranslation) + "Pb To dnsmasq for dns proxy failed(22:Invalid argument)\n"));
}

TEST_F(CpeTranslation, TheMessageIsNotChanged)
{
    Message.AddHost("a.example.com", 1);
    Message.AddProxy({"a.example.com"}, {1, 2});
    DnsmasqConf Before = Message.Pb();
    const DnsmasqConf Passed = Before;
    EXPECT_EQ(Translate(Passed), 0);
    EXPECT_TRUE(SameBytes(&Passed, &Before, sizeof(Before)));
}

} // namespace
