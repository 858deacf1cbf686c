#include "moduleTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kDelete = "VQ_RTCRouteDel(7, table 199 0.0.0.0/0 dev \"\" type 0 nexthops 0)";
constexpr const char *kNoWan = "3 _VQCtrl_IsSysRouteWanExistInVpn: No wan in vpn 7\n";
constexpr uint32_t kTable = 199;

std::string AddCall(const std::string &Address, const std::string &Interface = "lan0")
{
    return "VQ_RTCRouteAdd(7, table 199 " + Address + "/32 dev " + Interface + " type 0 nexthops 1)";
}

class Routes : public ModuleTest {
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host.Netio.SetWans(7, {{false, false}});
        Host.Netio.SetLans(7, {{"lan0", "lan1"}});
    }

    // The routes that the module adds, in order.
    [[nodiscard]] std::vector<std::string> Adds() const { return Host.Calls.Named("VQ_RTCRouteAdd"); }

    Record Conf = NewRecord(7);
};

TEST_F(Routes, VpnZeroGetsNone)
{
    Conf->VpnId = 0;
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    VQCtrl_DelDnsmasqRouteForVpn(0);
    EXPECT_THAT(Host.Calls.Trace(), IsEmpty());
}

TEST_F(Routes, ServersThenProxiesThroughTheFirstLan)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "eth5");
    AddServer(*Conf, Ip(10, 1, 1, 2), "");
    AddProxy(*Conf, "a.example", Ip(10, 1, 1, 3));
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Adds(), ElementsAre(AddCall("10.1.1.1"), AddCall("10.1.1.2"), AddCall("10.1.1.3")));
    EXPECT_THAT(Host.Routes.Of(7, kTable),
                ElementsAre("10.1.1.1/32 dev lan0", "10.1.1.2/32 dev lan0", "10.1.1.3/32 dev lan0"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(Routes, TheTableIsEmptiedBeforeTheAllocationForTheAdd)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    const std::vector<std::string> Trace = Host.Calls.Trace();
    const std::vector<std::string> Start(Trace.begin(), Trace.begin() + 8);
    EXPECT_THAT(Start, ElementsAre("VQ_RtcNetioWanGetAllByVpnId(7)", "VQ_RtcNetioNodeListRelease()",
                                   "VQ_RtcNetioLanGetAllByVpnId(7)", "VQ_AgentMemZeroAlloc(4636)", kDelete,
                                   "VQ_AgentMemFree()", "VQ_AgentMemZeroAlloc(4636)", AddCall("10.1.1.1")));
}

TEST_F(Routes, TheTableHasOnlyTheRoutesOfTheLastRecord)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    Conf->DnsServer[0].DnsServerIp = Ip(10, 1, 1, 9);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Host.Routes.Of(7, kTable), ElementsAre("10.1.1.9/32 dev lan0"));
    Conf->DnsServerNum = 0;
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Host.Routes.Of(7, kTable), IsEmpty());
    EXPECT_THAT(Adds(), testing::SizeIs(2));
}

TEST_F(Routes, AnAddressListedTwiceIsASuccess)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    AddServer(*Conf, Ip(10, 1, 1, 2), "");
    AddProxy(*Conf, "a.example", Ip(10, 1, 1, 1));
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Adds(), ElementsAre(AddCall("10.1.1.1"), AddCall("10.1.1.2"), AddCall("10.1.1.1")));
    EXPECT_THAT(Host.Routes.Of(7, kTable), ElementsAre("10.1.1.1/32 dev lan0", "10.1.1.2/32 dev lan0"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(Routes, APositiveResultOfAnAddBecomesZero)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    Host.SuccessResults["VQ_RTCRouteAdd"] = 3;
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
}

TEST_F(Routes, AFailedAddEndsTheServersAndKeepsTheRoutesSoFar)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    AddServer(*Conf, Ip(10, 1, 1, 2), "");
    AddServer(*Conf, Ip(10, 1, 1, 3), "");
    AddProxy(*Conf, "a.example", Ip(10, 1, 1, 4));
    Host.Failures.Fail("VQ_RTCRouteAdd", -101, 2);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), -101);
    EXPECT_THAT(Adds(), testing::SizeIs(2));
    EXPECT_THAT(Host.Routes.Of(7, kTable), ElementsAre("10.1.1.1/32 dev lan0"));
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_AddDnsmasqRouteForVpn: Dnsmasq route add failed"
                                    "(101:Network is unreachable)!\n"));
}

TEST_F(Routes, AFailedAddEndsTheProxies)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    AddProxy(*Conf, "a.example", Ip(10, 1, 1, 2));
    AddProxy(*Conf, "a.example", Ip(10, 1, 1, 3));
    Host.Failures.Fail("VQ_RTCRouteAdd", -22, 2);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), -22);
    EXPECT_THAT(Adds(), testing::SizeIs(2));
    EXPECT_THAT(Logs(),
                ElementsAre("4 VQCtrl_AddDnsmasqRouteForVpn: Dnsmasq route add failed(22:Invalid argument)!\n"));
}

TEST_F(Routes, WithSystemRoutesOnAWanTheTableIsNotChanged)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    Host.Calls.Clear();
    Host.Netio.SetWans(7, {{false, true, false}});
    Conf->DnsServer[0].DnsServerIp = Ip(10, 1, 1, 9);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(World(), ElementsAre("VQ_RtcNetioWanGetAllByVpnId(7)", "VQ_RtcNetioNodeListRelease()"));
    EXPECT_THAT(Host.Routes.Of(7, kTable), ElementsAre("10.1.1.1/32 dev lan0"));
    EXPECT_THAT(Logs(), ElementsAre("1 VQCtrl_AddDnsmasqRouteForVpn: Wan which sys route is enable exist in vpn 7\n"));
}

TEST_F(Routes, AVpnWithoutWansGetsAWarningAndRoutes)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    Host.Failures.Fail("VQ_RtcNetioWanGetAllByVpnId", -12);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Adds(), ElementsAre(AddCall("10.1.1.1")));
    EXPECT_THAT(Logs(), ElementsAre(kNoWan));
}

TEST_F(Routes, AWanListWhoseCountIsZeroIsReleasedUnread)
{
    Host.Netio.SetWans(7, {{true}, 0});
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Logs(), ElementsAre(kNoWan));
}

TEST_F(Routes, AnEmptyWanListIsReleased)
{
    Host.Netio.SetWans(7, {{}});
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Logs(), ElementsAre(kNoWan));
    Host.Log.Clear();
    Host.Netio.SetWans(7, {{}, 2});
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(Routes, ANullWanListIsNotReadWhateverItsCount)
{
    Host.Netio.SetNullCount(3);
    Conf->VpnId = 8;
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Logs(), ElementsAre("3 _VQCtrl_IsSysRouteWanExistInVpn: No wan in vpn 8\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_RtcNetioNodeListRelease"), IsEmpty());
}

// Old routes are removed, and new ones without an interface are added.
TEST_F(Routes, WithoutALanTheInterfaceNameStaysEmpty)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    for (const fakehost::LanList &Lans :
         {fakehost::LanList{{}}, fakehost::LanList{{}, 1}, fakehost::LanList{{"lan0"}, 0}}) {
        Host.Netio.SetLans(7, Lans);
        Host.Calls.Clear();
        EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
        EXPECT_THAT(Adds(), ElementsAre(AddCall("10.1.1.1", "\"\"")));
        EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteDel"), ElementsAre(kDelete));
    }
}

TEST_F(Routes, WithoutALanListTheInterfaceNameStaysEmpty)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    Host.Failures.Fail("VQ_RtcNetioLanGetAllByVpnId", -12);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Adds(), ElementsAre(AddCall("10.1.1.1", "\"\"")));
}

TEST_F(Routes, AnInterfaceNameOf15CharactersIsNotCut)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    Host.Netio.SetLans(7, {{"fifteen-letters"}});
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Adds(), ElementsAre(AddCall("10.1.1.1", "fifteen-letters")));
}

TEST_F(Routes, WithoutMemoryForTheAddTheTableIsStillEmptied)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    Host.Failures.Fail("VQ_AgentMemZeroAlloc", -12, 2);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), -12);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_AddDnsmasqRouteForVpn: Apply memory failed\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteDel"), ElementsAre(kDelete));
    EXPECT_THAT(Adds(), IsEmpty());
}

TEST_F(Routes, WithoutMemoryForTheEmptyingRoutesAreStillAdded)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    Host.Failures.Fail("VQ_AgentMemZeroAlloc", -12, 1);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_DelDnsmasqRouteForVpn: Apply memory failed\n"));
    EXPECT_THAT(Host.Calls.Named("VQ_RTCRouteDel"), IsEmpty());
    EXPECT_THAT(Adds(), ElementsAre(AddCall("10.1.1.1")));
}

TEST_F(Routes, ADeleteEmptiesOnlyTheTableOfTheVpn)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    Conf->VpnId = 8;
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    VQCtrl_DelDnsmasqRouteForVpn(7);
    EXPECT_THAT(Host.Routes.Of(7, kTable), IsEmpty());
    EXPECT_THAT(Host.Routes.Of(8, kTable), testing::SizeIs(1));
}

TEST_F(Routes, ADeleteOfNothingIsNotLogged)
{
    VQCtrl_DelDnsmasqRouteForVpn(7);
    EXPECT_THAT(Host.Calls.Trace(), ElementsAre("VQ_AgentMemZeroAlloc(4636)", kDelete, "VQ_AgentMemFree()"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(Routes, AFailedDeleteIsLogged)
{
    Host.Failures.Fail("VQ_RTCRouteDel", -17);
    VQCtrl_DelDnsmasqRouteForVpn(7);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_DelDnsmasqRouteForVpn: Delete route failed(17:File exists)\n"));
}

TEST_F(Routes, AFailedDeleteDoesNotEndTheAdd)
{
    AddServer(*Conf, Ip(10, 1, 1, 1), "");
    Host.Failures.Fail("VQ_RTCRouteDel", -5);
    EXPECT_EQ(VQCtrl_AddDnsmasqRouteForVpn(Conf.get()), 0);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_DelDnsmasqRouteForVpn: Delete route failed(5:Input/output error)\n"));
    EXPECT_THAT(Adds(), ElementsAre(AddCall("10.1.1.1")));
}

TEST_F(Routes, NoMemoryForADeleteIsLogged)
{
    Host.Failures.Fail("VQ_AgentMemZeroAlloc", -12);
    VQCtrl_DelDnsmasqRouteForVpn(7);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_DelDnsmasqRouteForVpn: Apply memory failed\n"));
    EXPECT_THAT(World(), IsEmpty());
}

} // namespace
