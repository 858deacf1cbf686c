// The content of each of the five files.
#include "moduleTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FileContent : public ModuleTest {
  protected:
    Record Conf = NewRecord(0);
};

TEST_F(FileContent, HostsAreLinesOfAddressAndDomainInOrder)
{
    AddHost(*Conf, Ip(10, 0, 0, 1), "nas.local");
    AddHost(*Conf, Ip(255, 255, 255, 255), "b.example.com");
    AddHost(*Conf, 0, "zero.example.com");
    AddHost(*Conf, Ip(10, 0, 0, 1), "nas.local");
    EXPECT_EQ(VQCtrl_SetDnsHostConf(Conf.get()), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/hosts"), "10.0.0.1 nas.local\n"
                                                "255.255.255.255 b.example.com\n"
                                                "0.0.0.0 zero.example.com\n"
                                                "10.0.0.1 nas.local\n");
}

TEST_F(FileContent, AnEmptyDomainIsWritten)
{
    AddHost(*Conf, Ip(10, 0, 0, 1), "");
    EXPECT_EQ(VQCtrl_SetDnsHostConf(Conf.get()), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/hosts"), "10.0.0.1 \n");
}

TEST_F(FileContent, HostsCanBeWrittenFromAnArray)
{
    const std::vector<VQ_CTRL_DNS_HOST_CONF> Hosts{{Ip(10, 0, 0, 1), "one.example"}, {Ip(10, 0, 0, 2), "two.example"}};
    Host.Files.PutInstance(3);
    EXPECT_EQ(VQCtrl_SetDnsHostByDnsHostConf(Hosts.data(), 1, 3), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/vpn_3/hosts"), "10.0.0.1 one.example\n");
    EXPECT_EQ(VQCtrl_SetDnsHostByDnsHostConf(Hosts.data(), 2, 0), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/hosts"), "10.0.0.1 one.example\n10.0.0.2 two.example\n");
    EXPECT_EQ(VQCtrl_SetDnsHostByDnsHostConf(nullptr, 0, 0), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/hosts"), "");
}

// The writer does not check the count: an array may be longer than the table of a record.
TEST_F(FileContent, MoreHostsThanARecordHolds)
{
    const std::vector<VQ_CTRL_DNS_HOST_CONF> Hosts(1025, {Ip(10, 0, 0, 1), "one.example"});
    EXPECT_EQ(VQCtrl_SetDnsHostByDnsHostConf(Hosts.data(), 1025, 0), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/hosts").size(), 1025 * std::string("10.0.0.1 one.example\n").size());
    EXPECT_THAT(Host.Calls.Named("VQ_AgentMemZeroAlloc"), ElementsAre("VQ_AgentMemZeroAlloc(1049600)"));
}

TEST_F(FileContent, TheSourceDomainOfAnMxComesFirst)
{
    AddMx(*Conf, "mx1.lan", "mail.lan", 10);
    AddMx(*Conf, "", "", 4294967295U);
    EXPECT_EQ(VQCtrl_SetDnsMxHostConf(Conf.get()), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/dnsmasq.d/Mxhost.conf"), "mx-host=mail.lan,mx1.lan,10\n"
                                                                "mx-host=,,4294967295\n");
}

TEST_F(FileContent, TheServerFileHasOnlyServersWithAnInterface)
{
    AddServer(*Conf, Ip(10, 0, 0, 1), "");
    AddServer(*Conf, Ip(10, 0, 0, 2), "eth0");
    AddServer(*Conf, Ip(10, 0, 0, 3), "");
    EXPECT_EQ(VQCtrl_SetDnsServerConf(Conf.get()), 0);
    EXPECT_EQ(VQCtrl_SetDnsResolveConf(Conf.get()), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/dnsmasq.d/ServerMap.conf"), "server=10.0.0.2@eth0\n");
    EXPECT_EQ(File("/etc/kavel/dnsmasq/resolv.conf"),
              "nameserver 10.0.0.1\nnameserver 10.0.0.2\nnameserver 10.0.0.3\n");
}

TEST_F(FileContent, WithoutInterfacesTheServerFileIsWrittenEmptyWithoutANotice)
{
    AddServer(*Conf, Ip(10, 0, 0, 1), "");
    AddServer(*Conf, Ip(10, 0, 0, 2), "");
    EXPECT_EQ(VQCtrl_SetDnsServerConf(Conf.get()), 0);
    EXPECT_EQ(Host.Files.Content("/etc/kavel/dnsmasq/dnsmasq.d/ServerMap.conf"), "");
    EXPECT_THAT(World(),
                ElementsAre("VQ_WriteSyncWithFilePath(\"/etc/kavel/dnsmasq/dnsmasq.d/ServerMap.conf\", text, 0)"));
    EXPECT_THAT(Logs(), IsEmpty());
}

// The address is converted before the interface is checked.
TEST_F(FileContent, AServerWithoutALineCanMakeTheFileFail)
{
    AddServer(*Conf, Ip(10, 0, 0, 1), "");
    Host.Failures.Fail("VQ_IPNum2IPStr", -34);
    EXPECT_EQ(VQCtrl_SetDnsServerConf(Conf.get()), -34);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_SetDnsServerConf: Trans ipnum to ipstr failed for dns server"
                                    "(34:Numerical result out of range)\n"));
    EXPECT_THAT(World(), IsEmpty());
}

TEST_F(FileContent, EightServersFitBothFixedBuffers)
{
    for (uint32_t Each = 0; Each < 8; ++Each) {
        AddServer(*Conf, Ip(255, 255, 255, 248 + Each), "fifteen-letters");
    }
    EXPECT_EQ(VQCtrl_SetDnsServerConf(Conf.get()), 0);
    EXPECT_EQ(VQCtrl_SetDnsResolveConf(Conf.get()), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/dnsmasq.d/ServerMap.conf").size(), 312U);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/resolv.conf").size(), 216U);
}

TEST_F(FileContent, AProxyAddressIsPrintedWithoutTheHost)
{
    AddProxy(*Conf, "corp.lan", Ip(192, 168, 1, 53));
    AddProxy(*Conf, "b.example", Ip(1, 2, 3, 255));
    Host.Failures.Fail("VQ_IPNum2IPStr", -22);
    EXPECT_EQ(VQCtrl_SetDnsProxyConf(Conf.get()), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/dnsmasq.d/DnsProxy.conf"), "server=/corp.lan/192.168.1.53\n"
                                                                  "server=/b.example/1.2.3.255\n");
}

// The longest entries of every file, and as many of them as a record can hold.
TEST_F(FileContent, FullListsOfTheLongestEntriesFit)
{
    const std::string Longest(255, 'x');
    for (uint32_t Each = 0; Each < 1024; ++Each) {
        AddHost(*Conf, Ip(255, 255, 255, 255), Longest);
        AddMx(*Conf, Longest, Longest, 4294967295U);
    }
    for (uint32_t Each = 0; Each < 65535; ++Each) {
        AddProxy(*Conf, Longest, Ip(255, 255, 255, 255));
    }
    EXPECT_EQ(VQCtrl_SetDnsHostConf(Conf.get()), 0);
    EXPECT_EQ(VQCtrl_SetDnsMxHostConf(Conf.get()), 0);
    EXPECT_EQ(VQCtrl_SetDnsProxyConf(Conf.get()), 0);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/hosts").size(), 1024U * 272U);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/dnsmasq.d/Mxhost.conf").size(), 1024U * 531U);
    EXPECT_EQ(File("/etc/kavel/dnsmasq/dnsmasq.d/DnsProxy.conf").size(), 65535U * 280U);
    EXPECT_THAT(Host.Calls.Named("VQ_AgentMemZeroAlloc"),
                ElementsAre("VQ_AgentMemZeroAlloc(1048576)", "VQ_AgentMemZeroAlloc(1048576)",
                            "VQ_AgentMemZeroAlloc(18874080)"));
}

} // namespace
