#include "moduleTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kRoot = "/etc/kavel/dnsmasq/vpn_7";
constexpr const char *kContent = "resolv-file=/etc/kavel/dnsmasq/vpn_7/resolv.conf\n"
                                 "addn-hosts=/etc/kavel/dnsmasq/vpn_7/hosts\n"
                                 "conf-dir=/etc/kavel/dnsmasq/vpn_7/dnsmasq.d/,*.conf\n"
                                 "cache-size=1000\n"
                                 "domain-needed\n";

// The beginning of the error lines of the function.
std::string InitSite()
{
    return "4 VQCtrl_DnsmasqConfInitByVpnId: ";
}

class InstanceDirectory : public ModuleTest {
  protected:
    [[nodiscard]] static std::string Path(const std::string &Name) { return std::string(kRoot) + '/' + Name; }
};

TEST_F(InstanceDirectory, IsCreatedInOrder)
{
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), 0);
    const std::string Length = std::to_string(std::string(kContent).size());
    EXPECT_THAT(World(),
                ElementsAre("access(\"/etc/kavel/dnsmasq/vpn_7\", 0)", "mkdir(\"/etc/kavel/dnsmasq/vpn_7\", 0777)",
                            "access(\"/etc/kavel/dnsmasq/vpn_7/dnsmasq.d\", 0)",
                            "mkdir(\"/etc/kavel/dnsmasq/vpn_7/dnsmasq.d\", 0777)",
                            "VQ_CreateFilePath(\"/etc/kavel/dnsmasq/vpn_7/hosts\")",
                            "VQ_CreateFilePath(\"/etc/kavel/dnsmasq/vpn_7/resolv.conf\")",
                            "VQ_WriteWithFilePath(\"/etc/kavel/dnsmasq/vpn_7/dnsmasq.conf\", text, " + Length + ")"));
    EXPECT_TRUE(Host.Files.IsDirectory(Path("dnsmasq.d")));
    EXPECT_EQ(Host.Files.Content(Path("hosts")), "");
    EXPECT_EQ(Host.Files.Content(Path("resolv.conf")), "");
    EXPECT_EQ(File(Path("dnsmasq.conf")), kContent);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(InstanceDirectory, ASecondCallRewritesOnlyDnsmasqConf)
{
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), 0);
    Host.Files.Put(Path("hosts"), "10.0.0.1 a.example\n");
    Host.Files.Put(Path("dnsmasq.conf"), "spoilt, and longer than what is written anew\n");
    Host.Calls.Clear();
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), 0);
    EXPECT_THAT(Host.Calls.Named("mkdir"), IsEmpty());
    EXPECT_EQ(File(Path("hosts")), "10.0.0.1 a.example\n");
    EXPECT_EQ(File(Path("dnsmasq.conf")), kContent);
}

TEST_F(InstanceDirectory, AnyVpnIdIsAccepted)
{
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(0), 0);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(4294967295U), 0);
    EXPECT_TRUE(Host.Files.IsDirectory("/etc/kavel/dnsmasq/vpn_0/dnsmasq.d"));
    EXPECT_EQ(File("/etc/kavel/dnsmasq/vpn_4294967295/dnsmasq.conf"),
              "resolv-file=/etc/kavel/dnsmasq/vpn_4294967295/resolv.conf\n"
              "addn-hosts=/etc/kavel/dnsmasq/vpn_4294967295/hosts\n"
              "conf-dir=/etc/kavel/dnsmasq/vpn_4294967295/dnsmasq.d/,*.conf\n"
              "cache-size=1000\n"
              "domain-needed\n");
    EXPECT_FALSE(Host.Files.Exists("/etc/kavel/dnsmasq/dnsmasq.conf"));
}

TEST_F(InstanceDirectory, TextsAreFormattedIntoBuffersOfTheirSize)
{
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), 0);
    const std::string Root = kRoot;
    EXPECT_THAT(Host.Calls.Named("VQ_SNPrintf"),
                ElementsAre("VQ_SNPrintf(512, \"" + Root + "\")", "VQ_SNPrintf(512, \"" + Root + "/dnsmasq.d\")",
                            "VQ_SNPrintf(512, \"" + Root + "/hosts\")",
                            "VQ_SNPrintf(512, \"" + Root + "/resolv.conf\")",
                            "VQ_SNPrintf(512, \"" + Root + "/dnsmasq.conf\")",
                            "VQ_SNPrintf(1024, " + fakehost::Quote(kContent) + ")"));
}

TEST_F(InstanceDirectory, APositiveResultOfTheWriteIsReturned)
{
    Host.SuccessResults["VQ_WriteWithFilePath"] = 180;
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), 180);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(InstanceDirectory, APlainFileInsteadOfTheDropInDirectoryIsAccepted)
{
    Host.Files.PutDirectory(kRoot);
    Host.Files.Put(Path("dnsmasq.d"), "a file");
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), 0);
    EXPECT_EQ(File(Path("dnsmasq.d")), "a file");
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(InstanceDirectory, TheRootCannotBeCreated)
{
    Host.Failures.Fail("mkdir", -13, 1);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), -13);
    EXPECT_THAT(Logs(),
                ElementsAre(InitSite() + "Create DIR (/etc/kavel/dnsmasq/vpn_7) failed(13:Permission denied)!\n"));
    EXPECT_THAT(World(), testing::SizeIs(2));
}

TEST_F(InstanceDirectory, TheConfigurationRootIsMissing)
{
    Host.Files.DropDirectory("/etc/kavel/dnsmasq");
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), -2);
    EXPECT_THAT(Logs(), ElementsAre(InitSite() +
                                    "Create DIR (/etc/kavel/dnsmasq/vpn_7) failed(2:No such file or directory)!\n"));
}

TEST_F(InstanceDirectory, TheDropInDirectoryCannotBeCreated)
{
    Host.Failures.Fail("mkdir", -28, 2);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), -28);
    EXPECT_THAT(Logs(), ElementsAre(InitSite() + "Create DIR (/etc/kavel/dnsmasq/vpn_7/dnsmasq.d) failed"
                                                 "(28:No space left on device)!\n"));
    EXPECT_TRUE(Host.Files.IsDirectory(kRoot));
    EXPECT_THAT(World(), testing::SizeIs(4));
}

TEST_F(InstanceDirectory, TheHostsFileCannotBeCreated)
{
    Host.Failures.Fail("VQ_CreateFilePath", -28, 1);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), -28);
    EXPECT_THAT(Logs(), ElementsAre(InitSite() + "Create file /etc/kavel/dnsmasq/vpn_7/hosts failed"
                                                 "(28:No space left on device)\n"));
    EXPECT_THAT(World(), testing::SizeIs(5));
    EXPECT_TRUE(Host.Files.IsDirectory(Path("dnsmasq.d")));
}

TEST_F(InstanceDirectory, TheResolverFileCannotBeCreated)
{
    Host.Failures.Fail("VQ_CreateFilePath", -5, 2);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), -5);
    EXPECT_THAT(Logs(), ElementsAre(InitSite() +
                                    "Create file /etc/kavel/dnsmasq/vpn_7/resolv.conf failed(5:Input/output error)\n"));
    EXPECT_THAT(World(), testing::SizeIs(6));
    EXPECT_EQ(Host.Files.Content(Path("hosts")), "");
}

// The writer logs one line, and its caller logs another.
TEST_F(InstanceDirectory, DnsmasqConfCannotBeWritten)
{
    Host.Failures.Fail("VQ_WriteWithFilePath", -28);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), -28);
    EXPECT_THAT(Logs(), ElementsAre("4 _VQCtrl_CreateDnsmasqConf: Write dnsmasq.conf for vpn 7 failed"
                                    "(28:No space left on device)\n",
                                    InitSite() + "Create dnsmasq.conf for vpn 7 failed(28:No space left on device)\n"));
}

struct Overflow {
    std::size_t Nth; // the number of the text that does not fit
    std::size_t Calls;
    std::vector<std::string> Lines;
};

class InstanceOverflow : public InstanceDirectory, public testing::WithParamInterface<Overflow> {};

TEST_P(InstanceOverflow, EndsTheCallWhereItHappens)
{
    Host.Failures.Fail("VQ_SNPrintf", -75, GetParam().Nth);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), -75);
    EXPECT_EQ(Logs(), GetParam().Lines);
    EXPECT_THAT(World(), testing::SizeIs(GetParam().Calls));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, InstanceOverflow,
    testing::Values(
        Overflow{1, 0, {InitSite() + "Dnsmasq vpn conf root path is overflow\n"}},
        Overflow{2, 2, {InitSite() + "Dnsmasq vpn conf dir path is overflow\n"}},
        Overflow{3, 4, {InitSite() + "Dnsmasq vpn conf hosts path is overflow\n"}},
        Overflow{4, 5, {InitSite() + "Dnsmasq vpn conf resolv path is overflow\n"}},
        Overflow{5,
                 6,
                 {"4 _VQCtrl_CreateDnsmasqConf: Dnsmasq vpn conf root path is overflow\n",
                  InitSite() + "Create dnsmasq.conf for vpn 7 failed(75:Value too large for defined data type)\n"}},
        Overflow{6,
                 6,
                 {"4 _VQCtrl_CreateDnsmasqConf: Dnsmasq conf content is overflow\n",
                  InitSite() + "Create dnsmasq.conf for vpn 7 failed(75:Value too large for defined data type)\n"}}));

TEST_F(InstanceDirectory, IsRemovedWithEverythingBelowIt)
{
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(7), 0);
    EXPECT_EQ(VQCtrl_DnsmasqConfInitByVpnId(70), 0);
    Host.Calls.Clear();
    EXPECT_EQ(VQCtrl_DnsmasqConfRelaseByVpnId(7), 0);
    EXPECT_THAT(World(), ElementsAre("VQ_RemoveDirRecursion(\"/etc/kavel/dnsmasq/vpn_7\")"));
    EXPECT_FALSE(Host.Files.Exists(kRoot));
    EXPECT_FALSE(Host.Files.Exists(Path("dnsmasq.conf")));
    EXPECT_TRUE(Host.Files.Exists("/etc/kavel/dnsmasq/vpn_70/dnsmasq.conf"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(InstanceDirectory, ARemovalOfNothingReturnsTheCodeOfTheHost)
{
    EXPECT_EQ(VQCtrl_DnsmasqConfRelaseByVpnId(7), -2);
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_DnsmasqConfRelaseByVpnId: Remove /etc/kavel/dnsmasq/vpn_7 failed"
                                    "(2:No such file or directory)\n"));
}

TEST_F(InstanceDirectory, APositiveResultOfARemovalIsReturned)
{
    Host.Files.PutInstance(7);
    Host.SuccessResults["VQ_RemoveDirRecursion"] = 4;
    EXPECT_EQ(VQCtrl_DnsmasqConfRelaseByVpnId(7), 4);
}

TEST_F(InstanceDirectory, ARemovalWhosePathDoesNotFitIsAnOverflow)
{
    Host.Failures.Fail("VQ_SNPrintf", -75);
    EXPECT_EQ(VQCtrl_DnsmasqConfRelaseByVpnId(7), -75);
    EXPECT_THAT(World(), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre("4 VQCtrl_DnsmasqConfRelaseByVpnId: Dnsmasq vpn conf root path is overflow\n"));
}

TEST_F(InstanceDirectory, TheOldServiceIsStoppedOnce)
{
    VQCtrl_StopOldVersionDnsmasqService();
    EXPECT_THAT(Host.Calls.Trace(), ElementsAre("VQ_CmdExec(\"systemctl stop kvldns\")"));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(InstanceDirectory, AFailureToStopTheOldServiceIsAWarning)
{
    Host.Failures.Fail("VQ_CmdExec", -5);
    VQCtrl_StopOldVersionDnsmasqService();
    EXPECT_THAT(Logs(),
                ElementsAre("3 VQCtrl_StopOldVersionDnsmasqService: Stop old version dnsmasq service failed\n"));
}

} // namespace
