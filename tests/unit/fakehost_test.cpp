// The fake host must report every rule that a module breaks as a violation.
#include <cstdio>
#include <string>
#include <vector>

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <regex.h>

#include "host.h"
#include "vqFile.h"
#include "vqMemory.h"
#include "vqNetns.h"
#include "vqSafeStr.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char *kPrefix = "<%s%s>%s[%s:%d] ";

// Writes a line as a correct log site does, with the given prefix fields.
void WriteLine(uint32_t Level, const char *Function, const char *Message)
{
    const VQ_LOG_IMPL_ITEM *Item = VQ_LogGetImplItem(VQ_LOG_MODULE_ADVANCED_DNS);
    const std::string Format = std::string(kPrefix) + Message;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    Item->Log(VQ_AgentLogGetTag(), Level, Format.c_str(), Item->LogLevel2Str(Level),
              VQ_LogGetModuleName(VQ_LOG_MODULE_ADVANCED_DNS), "[dns-main]", Function, 1);
#pragma GCC diagnostic pop
}

class FakeHost : public testing::Test {
  protected:
    fakehost::Host Host;
};

TEST_F(FakeHost, ReportsNothingIfNothingHappened)
{
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, ReportsMemoryThatIsNotReleased)
{
    void *Block = VQ_AgentMemZeroAlloc(24);
    EXPECT_NE(Block, nullptr);
    EXPECT_THAT(Host.Verify(), ElementsAre("memory never released: 24 bytes"));
}

TEST_F(FakeHost, ReportsMemoryReleasedTwice)
{
    void *Block = VQ_AgentMemAlloc(24);
    VQ_AgentMemFree(Block);
    VQ_AgentMemFree(Block);
    EXPECT_THAT(Host.Verify(), ElementsAre(HasSubstr("memory released that is not")));
}

TEST_F(FakeHost, NewMemoryIsNotZero)
{
    auto *Block = static_cast<unsigned char *>(VQ_AgentMemAlloc(2));
    EXPECT_NE(Block[0], 0U);
    EXPECT_NE(Block[1], 0U);
    VQ_AgentMemFree(Block);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, ReportsListsNotReleasedOrReleasedTwice)
{
    Host.Netio.SetLans(7, {{"lan0"}});
    uint32_t Count = 0;
    VQ_LIST_HEAD *First = VQ_RtcNetioLanGetAllByVpnId(&Count, 7);
    EXPECT_EQ(Count, 1U);
    VQ_RtcNetioNodeListRelease(First);
    VQ_RtcNetioNodeListRelease(First);
    EXPECT_NE(VQ_RtcNetioLanGetAllByVpnId(&Count, 7), nullptr);
    EXPECT_THAT(Host.Verify(), ElementsAre(HasSubstr("released that is not"), HasSubstr("never released: 1")));
}

TEST_F(FakeHost, ReportsOpenFilesAndDirectories)
{
    Host.Files.Put("/var/run/x", "text");
    std::FILE *Stream = std::fopen("/var/run/x", "re");
    ASSERT_NE(Stream, nullptr);
    char Text[8] = {};
    EXPECT_EQ(std::fread(Text, 1, sizeof(Text), Stream), 4U);
    EXPECT_STREQ(Text, "text");
    ASSERT_NE(opendir("/proc"), nullptr);
    EXPECT_THAT(Host.Verify(), ElementsAre("never closed: /var/run/x", "directories never closed: 1"));
}

TEST_F(FakeHost, DoesNotReportAClosedFile)
{
    Host.Files.Put("/var/run/x", "text");
    std::FILE *Stream = std::fopen("/var/run/x", "re");
    ASSERT_NE(Stream, nullptr);
    EXPECT_EQ(std::fclose(Stream), 0);
    EXPECT_EQ(Host.Files.OpenStreams(), 0U);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, ReportsAMissingSwitchBack)
{
    int Saved = -1;
    EXPECT_EQ(VQ_RtcNetNsSaveAndSwitch(7, &Saved), 0);
    EXPECT_THAT(Host.Verify(), ElementsAre("the namespace of VPN 7 was never left"));
}

TEST_F(FakeHost, ReportsASecondSwitchBack)
{
    int Saved = -1;
    EXPECT_EQ(VQ_RtcNetNsSaveAndSwitch(7, &Saved), 0);
    EXPECT_EQ(VQ_RtcNetNsSwitchToDefault(&Saved), 0);
    EXPECT_EQ(Saved, -1);
    EXPECT_NE(VQ_RtcNetNsSwitchToDefault(&Saved), 0);
    EXPECT_THAT(Host.Verify(), ElementsAre(HasSubstr("a handle that is not open")));
}

TEST_F(FakeHost, ReportsPatternsThatAreNotReleased)
{
    regex_t Pattern;
    EXPECT_EQ(regcomp(&Pattern, "x", REG_EXTENDED), 0);
    EXPECT_THAT(Host.Verify(), ElementsAre("patterns never released: 1 instead of 0"));
}

TEST_F(FakeHost, ReportsJsonNotReleasedOrReleasedTwice)
{
    json_object *Tree = json_object_new_object();
    EXPECT_EQ(json_object_put(Tree), 1);
    json_object_put(Tree);
    EXPECT_NE(json_tokener_parse("[1]"), nullptr);
    EXPECT_EQ(Host.Json.TreesInUse(), 1U);
    EXPECT_THAT(Host.Verify(), ElementsAre(HasSubstr("JSON value released that is not"), HasSubstr("released: 1")));
}

TEST_F(FakeHost, ReportsAReleasedJsonValueThatAParentOwns)
{
    json_object *Parent = json_object_new_array();
    json_object *Child = json_object_new_int(1);
    EXPECT_EQ(json_object_array_add(Parent, Child), 0);
    json_object_put(Child);
    EXPECT_EQ(json_object_array_add(Parent, Child), -1);
    json_object_put(Parent);
    EXPECT_THAT(Host.Verify(), ElementsAre(HasSubstr("JSON value released"), HasSubstr("JSON value added")));
}

// The caller keeps ownership of a value that could not be added.
TEST_F(FakeHost, FailsToAddJson)
{
    Host.Failures.Fail("json_object_object_add", -12, 1);
    json_object *Parent = json_object_new_object();
    json_object *Child = json_object_new_string("text");
    EXPECT_EQ(json_object_object_add(Parent, "key", Child), -1);
    EXPECT_EQ(Host.Json.TreesInUse(), 2U);
    EXPECT_EQ(json_object_object_add(Parent, "key", Child), 0);
    EXPECT_EQ(Host.Json.TreesInUse(), 1U);
    EXPECT_STREQ(json_object_to_json_string(Parent), "{ \"key\": \"text\" }");
    json_object_put(Parent);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, FailsToCreateAndToReadJson)
{
    Host.Failures.Fail("json_object_new_boolean", -12);
    Host.Failures.Fail("json_object_get_int", -22, 2);
    EXPECT_EQ(json_object_new_boolean(1), nullptr);
    json_object *Number = json_object_new_int(5);
    errno = 0;
    EXPECT_EQ(json_object_get_int(Number), 5);
    EXPECT_EQ(json_object_get_int(Number), 0);
    EXPECT_EQ(errno, EINVAL);
    json_object_put(Number);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, ReportsListsOfStoredRecordsThatAreNotReleased)
{
    Host.Rows.Conversions.DnsmasqStrToConf = [](VQ_DNSMASQ_CONF * /*Conf*/, const char * /*Text*/) { return 0; };
    Host.Rows.Rows = {{{10, 1}, "x"}, {{10, 2}, "x"}};
    Host.Rows.Count = 5;
    VQ_PersistentConfList *List = VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_CPE_DNSMASQ);
    ASSERT_NE(List, nullptr);
    EXPECT_EQ(List->Count, 5);
    EXPECT_EQ(List->Head.next->next->next, &List->Head);
    EXPECT_THAT(Host.Verify(), ElementsAre("lists of stored records never released: 1"));
}

TEST_F(FakeHost, AcceptsPatternsThatATestExpects)
{
    regex_t Pattern;
    EXPECT_EQ(regcomp(&Pattern, "x", REG_EXTENDED), 0);
    Host.Regex.ExpectUnreleased(1);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, ReportsAnErrorThatIsNotReset)
{
    EXPECT_EQ(VQ_LogTest(62, 4, TRUE, "F"), TRUE);
    WriteLine(4, "F", "text");
    EXPECT_EQ(VQ_FlexLogSetFormatData("text"), 0);
    EXPECT_THAT(Host.Verify(), ElementsAre("an error of F was not reset before the end"));
}

TEST_F(FakeHost, ReportsALineThatWasFilteredOut)
{
    Host.Log.LevelEnabled[1] = false;
    EXPECT_EQ(VQ_LogTest(62, 1, TRUE, "F"), FALSE);
    WriteLine(1, "F", "text");
    EXPECT_THAT(Host.Verify(), ElementsAre("a line that VQ_LogTest did not let through: text"));
}

TEST_F(FakeHost, ReportsALineThatIsWantedAndNotWritten)
{
    EXPECT_EQ(VQ_LogTest(62, 1, TRUE, "F"), TRUE);
    EXPECT_THAT(Host.Verify(), ElementsAre(HasSubstr("none was written")));
}

TEST_F(FakeHost, ReportsAFlexTextThatDiffersFromTheLine)
{
    EXPECT_EQ(VQ_LogTest(62, 4, TRUE, "F"), TRUE);
    WriteLine(4, "F", "text");
    EXPECT_EQ(VQ_FlexLogSetFormatData("other"), 0);
    EXPECT_EQ(VQ_LogTest(62, 4, FALSE, "F"), TRUE);
    VQ_FlexLogDataReset();
    EXPECT_THAT(Host.Verify(),
                ElementsAre("the flex-log text differs from the line: other", HasSubstr("Reset out of order")));
}

TEST_F(FakeHost, ReportsAFunctionNameThatDiffersFromTheTest)
{
    EXPECT_EQ(VQ_LogTest(62, 3, TRUE, "F"), TRUE);
    WriteLine(3, "G", "text");
    EXPECT_THAT(Host.Verify(), ElementsAre("a line with a wrong tag or prefix, from G: text"));
}

TEST_F(FakeHost, ReportsACallWithinALogSite)
{
    EXPECT_EQ(VQ_LogTest(62, 4, TRUE, "F"), TRUE);
    WriteLine(4, "F", "text");
    EXPECT_EQ(VQ_CreateFilePath("/var/run/x"), 0);
    EXPECT_THAT(Host.Verify(), ElementsAre("an error of F was not reset before VQ_CreateFilePath"));
}

TEST_F(FakeHost, FailsTheNthCountedCall)
{
    Host.Failures.FailNth(2, -28);
    EXPECT_EQ(VQ_CreateFilePath("/var/run/x"), 0);
    EXPECT_EQ(VQ_WriteSyncWithFilePath("/var/run/x", "text", 4), -28);
    EXPECT_EQ(VQ_WriteSyncWithFilePath("/var/run/x", "text", 4), 0);
    EXPECT_EQ(Host.Failures.CountedCalls(), 3U);
    ASSERT_THAT(Host.Failed(), SizeIs(1));
    EXPECT_EQ(Host.Failed()[0].Text, "VQ_WriteSyncWithFilePath(\"/var/run/x\", text, 4)");
    EXPECT_EQ(Host.Failed()[0].Nth, 1U);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, FailsEveryCountedCallFromTheNthOn)
{
    Host.Failures.FailFrom(2, -12);
    void *Block = VQ_AgentMemAlloc(1);
    EXPECT_NE(Block, nullptr);
    EXPECT_EQ(VQ_AgentMemAlloc(1), nullptr);
    EXPECT_EQ(std::fopen("/var/run/x", "re"), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    char Buffer[8];
    EXPECT_GE(VQ_SNPrintf(Buffer, sizeof(Buffer), "x"), sizeof(Buffer));
    VQ_AgentMemFree(Block);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

// A shortage is no error. Services that do not support it work as usual.
TEST_F(FakeHost, ReadsFewerBytesThanTheFileHas)
{
    Host.Failures.FailFrom(1, fakehost::Shortage::FewerBytes);
    EXPECT_EQ(VQ_WriteSyncWithFilePath("/var/run/x", "text", 4), 2);
    EXPECT_EQ(Host.Files.Content("/var/run/x"), "te");
    std::FILE *Stream = std::fopen("/var/run/x", "re");
    ASSERT_NE(Stream, nullptr);
    char Text[8] = {};
    EXPECT_EQ(std::fread(Text, 1, sizeof(Text), Stream), 1U);
    EXPECT_EQ(std::fclose(Stream), 0);
    EXPECT_EQ(VQ_CreateFilePath("/var/run/y"), 0);
    EXPECT_THAT(Host.Failed(), SizeIs(2));
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, ReadsSingleBytesOrFails)
{
    Host.Files.Put("/var/run/x", "text");
    for (const auto &[Lack, Length] :
         {std::pair(fakehost::Shortage::ByteByByte, 4U), std::pair(fakehost::Shortage::NoBytes, 0U),
          std::pair(fakehost::Shortage::ReadError, 0U)}) {
        Host.Failures.FailFrom(1, Lack);
        std::FILE *Stream = std::fopen("/var/run/x", "re");
        ASSERT_NE(Stream, nullptr);
        char Text[8] = {};
        EXPECT_EQ(std::fread(Text, 1, sizeof(Text), Stream), Length);
        EXPECT_EQ(std::ferror(Stream) != 0, Lack == fakehost::Shortage::ReadError);
        EXPECT_EQ(std::fclose(Stream), 0);
    }
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, ReportsLengthsAroundTheSize)
{
    char Buffer[8];
    Host.Failures.FailFrom(1, fakehost::Shortage::OneBelowSize);
    EXPECT_EQ(VQ_SNPrintf(Buffer, sizeof(Buffer), "x"), 7U);
    EXPECT_EQ(VQ_SNPrintf(Buffer, sizeof(Buffer), "longer than it"), 14U);
    EXPECT_EQ(VQ_RtcGetNetNsExecCmdPrefix(7, Buffer, sizeof(Buffer)), 7);
    EXPECT_STREQ(Buffer, "pppppp ");
    Host.Failures.FailFrom(1, fakehost::Shortage::OneAboveSize);
    EXPECT_EQ(VQ_SafeStrCopy(Buffer, sizeof(Buffer), "x"), 9U);
    EXPECT_EQ(VQ_RtcGetNetNsExecCmdPrefix(7, Buffer, sizeof(Buffer)), 9);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, ReturnsListsWithoutMembers)
{
    Host.Netio.SetLans(7, {{"lan0"}});
    for (const auto &[Lack, Told] :
         {std::pair(fakehost::Shortage::Empty, 0U), std::pair(fakehost::Shortage::Hollow, 1U)}) {
        Host.Failures.FailFrom(1, Lack);
        uint32_t Count = 7;
        VQ_LIST_HEAD *Lans = VQ_RtcNetioLanGetAllByVpnId(&Count, 7);
        EXPECT_EQ(Count, Told);
        EXPECT_EQ(Lans->next, Lans);
        VQ_RtcNetioNodeListRelease(Lans);
        VQ_PersistentConfList *Rows = VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_CPE_DNSMASQ);
        EXPECT_EQ(Rows->Count, static_cast<int32_t>(Told));
        EXPECT_EQ(Rows->Head.next, &Rows->Head);
        VQ_SqliteConfListRelease(Rows);
    }
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, RecordsNothingWhenAskedTo)
{
    Host.RecordNothing();
    EXPECT_EQ(VQ_CreateFilePath("/var/run/x"), 0);
    EXPECT_THAT(Host.Calls.Entries(), IsEmpty());
    EXPECT_THAT(Host.Files.Written(), IsEmpty());
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST_F(FakeHost, TextServicesReturnTheWholeLength)
{
    char Buffer[4];
    EXPECT_EQ(VQ_SNPrintf(Buffer, sizeof(Buffer), "%s", "abc"), 3U);
    EXPECT_STREQ(Buffer, "abc");
    EXPECT_EQ(VQ_SNPrintf(Buffer, sizeof(Buffer), "%s", "abcd"), 4U);
    EXPECT_STREQ(Buffer, "abc");
    EXPECT_EQ(VQ_SafeStrCopy(Buffer, sizeof(Buffer), "vwxyz"), 5U);
    EXPECT_STREQ(Buffer, "vwx");
    uint32_t Address = 0;
    EXPECT_NE(VQ_SafeStrGetIp4Addr("10.0.0.1", 15, &Address), nullptr);
    EXPECT_EQ(Address, 10U * 16777216U + 1U);
    EXPECT_EQ(VQ_SafeStrGetIp4Addr("10.0.0.256", 15, &Address), nullptr);
    EXPECT_EQ(Address, 10U * 16777216U + 1U);
    EXPECT_THAT(Host.Verify(), IsEmpty());
}

TEST(FakeHostDeathTest, AServiceWithoutAHostAborts)
{
    EXPECT_DEATH(VQ_AgentMemAlloc(1), "a service was called without a host");
}

TEST(FakeHostDeathTest, AHostWithUncheckedViolationsAborts)
{
    EXPECT_DEATH(
        {
            const fakehost::Host Here;
            static_cast<void>(VQ_AgentMemAlloc(8));
        },
        "memory never released: 8 bytes");
}

} // namespace
