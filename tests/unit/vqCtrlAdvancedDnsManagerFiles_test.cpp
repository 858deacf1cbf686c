// The common behaviour of the five file writers: paths, the empty case, results and log lines. One table has their
// differences.
#include "moduleTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using WriterFunction = VQ_ERR_T (*)(const VQ_CTRL_DNSMASQ_CONF *);

struct Writer {
    const char *Name;
    WriterFunction Write;
    const char *File;
    std::size_t EntryBudget; // 0: one fixed buffer of 1024 bytes
    const char *Line;        // the line for the entry that AddEntries adds to every list
    const char *PathOverflow;
    const char *EmptyingFailed;
    const char *EmptyNotice;
    const char *NoMemory;
    const char *ConversionFailed;
    const char *ContentOverflow;
    const char *WriteFailed;
};

VQ_ERR_T WriteBareHosts(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return VQCtrl_SetDnsHostByDnsHostConf(Conf->DnsHost, Conf->DnsHostNum, Conf->VpnId);
}

const Writer kWriters[] = {
    {"VQCtrl_SetDnsHostConf", VQCtrl_SetDnsHostConf, "hosts", 1024, "10.1.2.3 a.example.com\n",
     "hosts conf path is overflow\n", "Write to dnsmasq host failed", "DnsHostNum is zero, clean dns host conf\n",
     "Can't apply memory for dns host\n", "Trans ipnum to ipstr failed for dns host", "buffer is small for dns host\n",
     "Write to dnsmasq host failed"},
    {"VQCtrl_SetDnsHostByDnsHostConf", WriteBareHosts, "hosts", 1024, "10.1.2.3 a.example.com\n",
     "hosts conf path is overflow\n", "Write to dnsmasq host failed", "DnsHostNum is zero, clean dns host conf\n",
     "Can't apply memory for dns host\n", "Trans ipnum to ipstr failed for dns host", "buffer is small for dns host\n",
     "Write to dnsmasq host failed"},
    {"VQCtrl_SetDnsMxHostConf", VQCtrl_SetDnsMxHostConf, "dnsmasq.d/Mxhost.conf", 1024,
     "mx-host=b.example.com,mx.example.com,10\n", "Mxhost conf path is overflow\n", "Write to dnsmasq mx host failed",
     "DnsMxHostNum is zero, clean dns mx host conf\n", "Can't apply memory for dns mx host\n", nullptr,
     "buffer is small for dns mx host\n", "Write to dnsmasq mx host failed"},
    {"VQCtrl_SetDnsServerConf", VQCtrl_SetDnsServerConf, "dnsmasq.d/ServerMap.conf", 0, "server=10.1.2.4@eth0\n",
     "Mxhost conf path is overflow\n", "Write to dnsmasq server map failed",
     "DnsServerNum is zero, clean dns server conf\n", nullptr, "Trans ipnum to ipstr failed for dns server",
     "buffer is small for dns server map\n", "Write to dnsmasq server map failed"},
    {"VQCtrl_SetDnsResolveConf", VQCtrl_SetDnsResolveConf, "resolv.conf", 0, "nameserver 10.1.2.4\n",
     "resolv conf path is overflow\n", "Write to dnsmasq server resolv failed",
     "DnsServerNum is zero, clean dns server resolve conf\n", nullptr, "Trans ipnum to ipstr failed for dns server",
     "buffer is small for dns server resolv\n", "Write to dnsmasq server resolv failed"},
    {"VQCtrl_SetDnsProxyConf", VQCtrl_SetDnsProxyConf, "dnsmasq.d/DnsProxy.conf", 288,
     "server=/c.example.com/10.1.2.5\n", "dnsproxy conf path is overflow\n", "Write to dnsmasq dns proxy failed",
     "DnsProxyNum is zero, clean dns proxy conf\n", "Can't apply memory for dns proxy\n", nullptr,
     "buffer is small for dns host\n", "Write to dnsmasq host failed"},
};

void AddEntries(VQ_CTRL_DNSMASQ_CONF &Conf)
{
    AddHost(Conf, Ip(10, 1, 2, 3), "a.example.com");
    AddMx(Conf, "mx.example.com", "b.example.com", 10);
    AddServer(Conf, Ip(10, 1, 2, 4), "eth0");
    AddProxy(Conf, "c.example.com", Ip(10, 1, 2, 5));
}

class FileWriter : public ModuleTest, public testing::WithParamInterface<Writer> {
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        Host.Files.PutInstance(7);
        Host.Files.Put(Path, "as it was\n");
    }

    [[nodiscard]] static std::string ErrorLine(const std::string &Text)
    {
        return std::string("4 ") + GetParam().Name + ": " + Text;
    }

    [[nodiscard]] static std::string NoticeLine(const std::string &Text)
    {
        return std::string("1 ") + GetParam().Name + ": " + Text;
    }

    void ExpectFileUntouched() const
    {
        EXPECT_EQ(File(Path), "as it was\n");
        EXPECT_THAT(Host.Files.Written(), IsEmpty());
    }

    // The text of the call that writes the file with this number of bytes.
    [[nodiscard]] std::string WriteCall(const std::string &Text, std::size_t Length) const
    {
        return "VQ_WriteSyncWithFilePath(\"" + Path + "\", " + Text + ", " + std::to_string(Length) + ")";
    }

    std::string Path = std::string("/etc/kavel/dnsmasq/vpn_7/") + GetParam().File;
    Record Conf = NewRecord(7);
};

INSTANTIATE_TEST_SUITE_P(Writers, FileWriter, testing::ValuesIn(kWriters),
                         [](const auto &Info) { return std::string(Info.param.Name); });

TEST_P(FileWriter, WritesTheFileOfTheVpn)
{
    AddEntries(*Conf);
    EXPECT_EQ(GetParam().Write(Conf.get()), 0);
    EXPECT_EQ(File(Path), GetParam().Line);
    EXPECT_THAT(Host.Files.Written(), ElementsAre(Path));
    EXPECT_THAT(World(), ElementsAre(WriteCall("text", std::string(GetParam().Line).size())));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_P(FileWriter, WritesTheBoxWideFileForVpnZero)
{
    AddEntries(*Conf);
    Conf->VpnId = 0;
    EXPECT_EQ(GetParam().Write(Conf.get()), 0);
    EXPECT_THAT(Host.Files.Written(), ElementsAre(std::string("/etc/kavel/dnsmasq/") + GetParam().File));
}

TEST_P(FileWriter, AcceptsAnyVpnId)
{
    AddEntries(*Conf);
    Conf->VpnId = 4294967295U;
    Host.Files.PutInstance(4294967295U);
    EXPECT_EQ(GetParam().Write(Conf.get()), 0);
    EXPECT_THAT(Host.Files.Written(), ElementsAre(std::string("/etc/kavel/dnsmasq/vpn_4294967295/") + GetParam().File));
}

TEST_P(FileWriter, PathsAreBuiltIn512Bytes)
{
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    GetParam().Write(Conf.get());
    Conf->VpnId = 0;
    GetParam().Write(Conf.get());
    EXPECT_THAT(Host.Calls.Of(fakehost::EntryKind::Text),
                ElementsAre("VQ_SNPrintf(512, \"" + Path + "\")",
                            std::string("VQ_SafeStrCopy(512, \"/etc/kavel/dnsmasq/") + GetParam().File + "\")"));
}

TEST_P(FileWriter, WithoutEntriesTheFileIsEmptied)
{
    EXPECT_EQ(GetParam().Write(Conf.get()), 0);
    EXPECT_EQ(Host.Files.Content(Path), "");
    EXPECT_THAT(World(), ElementsAre(WriteCall("null", 0)));
    EXPECT_THAT(Host.Calls.Of(fakehost::EntryKind::Memory), IsEmpty());
    EXPECT_THAT(Logs(), ElementsAre(NoticeLine(GetParam().EmptyNotice)));
}

TEST_P(FileWriter, EntriesPastTheCountAreIgnored)
{
    AddEntries(*Conf);
    Conf->DnsHostNum = 0;
    Conf->DnsMxHostNum = 0;
    Conf->DnsServerNum = 0;
    Conf->DnsProxyNum = 0;
    EXPECT_EQ(GetParam().Write(Conf.get()), 0);
    EXPECT_EQ(Host.Files.Content(Path), "");
}

TEST_P(FileWriter, TheNoticeIsLoggedEvenIfTheEmptyingFails)
{
    Host.Failures.Fail("VQ_WriteSyncWithFilePath", -28);
    EXPECT_EQ(GetParam().Write(Conf.get()), -28);
    EXPECT_THAT(Logs(),
                ElementsAre(ErrorLine(std::string(GetParam().EmptyingFailed) + "(28:No space left on device)\n"),
                            NoticeLine(GetParam().EmptyNotice)));
    ExpectFileUntouched();
}

TEST_P(FileWriter, APositiveResultOfTheWriteIsReturned)
{
    Host.SuccessResults["VQ_WriteSyncWithFilePath"] = 26;
    EXPECT_EQ(GetParam().Write(Conf.get()), 26);
    AddEntries(*Conf);
    EXPECT_EQ(GetParam().Write(Conf.get()), 26);
    EXPECT_THAT(Logs(), ElementsAre(NoticeLine(GetParam().EmptyNotice)));
}

TEST_P(FileWriter, AFailedWriteIsReturned)
{
    AddEntries(*Conf);
    Host.Failures.Fail("VQ_WriteSyncWithFilePath", -5);
    EXPECT_EQ(GetParam().Write(Conf.get()), -5);
    EXPECT_THAT(Logs(), ElementsAre(ErrorLine(std::string(GetParam().WriteFailed) + "(5:Input/output error)\n")));
    ExpectFileUntouched();
}

TEST_P(FileWriter, AMissingDirectoryIsAFailedWrite)
{
    AddEntries(*Conf);
    Conf->VpnId = 8;
    EXPECT_EQ(GetParam().Write(Conf.get()), -2);
    EXPECT_THAT(Logs(),
                ElementsAre(ErrorLine(std::string(GetParam().WriteFailed) + "(2:No such file or directory)\n")));
}

TEST_P(FileWriter, APathThatDoesNotFitIsAnOverflow)
{
    AddEntries(*Conf);
    Host.Failures.Fail("VQ_SNPrintf", -75, 1);
    EXPECT_EQ(GetParam().Write(Conf.get()), -75);
    EXPECT_THAT(Logs(), ElementsAre(ErrorLine(GetParam().PathOverflow)));
    EXPECT_THAT(Host.Calls.Of(fakehost::EntryKind::Memory), IsEmpty());
    ExpectFileUntouched();
}

TEST_P(FileWriter, ABoxWidePathThatDoesNotFitIsAnOverflow)
{
    Conf->VpnId = 0;
    Host.Failures.Fail("VQ_SafeStrCopy", -75, 1);
    EXPECT_EQ(GetParam().Write(Conf.get()), -75);
    EXPECT_THAT(Logs(), ElementsAre(ErrorLine(GetParam().PathOverflow)));
    EXPECT_THAT(World(), IsEmpty());
}

TEST_P(FileWriter, LinesAreFormattedIntoTheRestOfTheBuffer)
{
    AddEntries(*Conf);
    AddEntries(*Conf);
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    EXPECT_EQ(GetParam().Write(Conf.get()), 0);

    const std::string Line = GetParam().Line;
    const std::size_t Size = GetParam().EntryBudget == 0 ? 1024 : 2 * GetParam().EntryBudget;
    const auto Printed = [&](std::size_t Left) {
        return "VQ_SNPrintf(" + std::to_string(Left) + ", " + fakehost::Quote(Line) + ")";
    };
    EXPECT_THAT(Host.Calls.Named("VQ_SNPrintf"), ElementsAre(testing::_, Printed(Size), Printed(Size - Line.size())));
    EXPECT_EQ(File(Path), Line + Line);
}

TEST_P(FileWriter, TheBufferIsAllocatedOnceForAllEntriesAndReleased)
{
    AddEntries(*Conf);
    AddEntries(*Conf);
    AddEntries(*Conf);
    EXPECT_EQ(GetParam().Write(Conf.get()), 0);
    if (GetParam().EntryBudget == 0) {
        EXPECT_THAT(Host.Calls.Of(fakehost::EntryKind::Memory), IsEmpty());
    } else {
        const std::string Size = std::to_string(3 * GetParam().EntryBudget);
        EXPECT_THAT(Host.Calls.Of(fakehost::EntryKind::Memory),
                    ElementsAre("VQ_AgentMemZeroAlloc(" + Size + ")", "VQ_AgentMemFree()"));
    }
}

TEST_P(FileWriter, NoMemoryIsReported)
{
    AddEntries(*Conf);
    Host.Failures.Fail("VQ_AgentMemZeroAlloc", -12);
    if (GetParam().NoMemory == nullptr) {
        EXPECT_EQ(GetParam().Write(Conf.get()), 0);
        EXPECT_THAT(Logs(), IsEmpty());
    } else {
        EXPECT_EQ(GetParam().Write(Conf.get()), -12);
        EXPECT_THAT(Logs(), ElementsAre(ErrorLine(GetParam().NoMemory)));
        ExpectFileUntouched();
    }
}

TEST_P(FileWriter, AFailedConversionOfAnyEntryKeepsTheOldFile)
{
    AddEntries(*Conf);
    AddEntries(*Conf);
    Host.Failures.Fail("VQ_IPNum2IPStr", -22, 2);
    if (GetParam().ConversionFailed == nullptr) {
        EXPECT_EQ(GetParam().Write(Conf.get()), 0);
        EXPECT_THAT(Logs(), IsEmpty());
    } else {
        EXPECT_EQ(GetParam().Write(Conf.get()), -22);
        EXPECT_THAT(Logs(),
                    ElementsAre(ErrorLine(std::string(GetParam().ConversionFailed) + "(22:Invalid argument)\n")));
        ExpectFileUntouched();
    }
}

TEST_P(FileWriter, APositiveResultOfTheConversionIsASuccess)
{
    AddEntries(*Conf);
    Host.SuccessResults["VQ_IPNum2IPStr"] = 8;
    EXPECT_EQ(GetParam().Write(Conf.get()), 0);
    EXPECT_EQ(File(Path), GetParam().Line);
}

TEST_P(FileWriter, ContentThatDoesNotFitKeepsTheOldFile)
{
    AddEntries(*Conf);
    AddEntries(*Conf);
    // The first format is the path, the third one is the second line.
    Host.Failures.Fail("VQ_SNPrintf", -75, 3);
    EXPECT_EQ(GetParam().Write(Conf.get()), -75);
    EXPECT_THAT(Logs(), ElementsAre(ErrorLine(GetParam().ContentOverflow)));
    ExpectFileUntouched();
}

TEST_P(FileWriter, TheRecordIsNotChanged)
{
    AddEntries(*Conf);
    const Record Before = NewRecord(7);
    *Before = *Conf;
    GetParam().Write(Conf.get());
    EXPECT_TRUE(SameBytes(Before.get(), Conf.get(), sizeof(*Conf)));
}

} // namespace
