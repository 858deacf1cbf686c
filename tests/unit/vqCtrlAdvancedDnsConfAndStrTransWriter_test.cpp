// Writing the JSON text: the document, and every failure to create it.
#include <cstring>
#include <optional>

#include <json-c/json.h>

#include "moduleTest.h"
#include "vqMemory.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char *kTree = "4 _VQCtrl_AdvancedDnsConfToJson: ";
constexpr const char *kEntry = "4 VQCtrl_AdvancedDnsConfToJsonStr: ";

constexpr const char *kExample = R"({"Enable": true, "VpnId": 3, "Op": 1, "DnsHostNum": 1, "DnsMxHostNum": 0,
    "DnsServerNum": 1, "DnsProxyNum": 1,
    "DnsHost": [ {"Ip": "192.168.1.10", "Domain": "nas.corp.example"} ],
    "DnsMxHost": [ ],
    "DnsServer": [ {"DnsServerIp": "8.8.8.8", "Ifname": "wan0"} ],
    "DnsProxy": [ {"Domain": "intra.example", "ServerIp": "10.1.1.1"} ],
    "LocalIp": "0.0.0.0"})";

constexpr const char *kFull = R"({"Enable": true, "VpnId": 7, "Op": 1, "DnsHostNum": 2, "DnsMxHostNum": 2,
    "DnsServerNum": 2, "DnsProxyNum": 2,
    "DnsHost": [ {"Ip": "10.0.0.1", "Domain": "a.example.com"}, {"Ip": "255.255.255.255", "Domain": ""} ],
    "DnsMxHost": [ {"TargetDomain": "t1.example.com", "SourceDomain": "s1.example.com", "Preference": 65536},
                   {"TargetDomain": "t2.example.com", "SourceDomain": "s2.example.com", "Preference": 0} ],
    "DnsServer": [ {"DnsServerIp": "0.0.0.1", "Ifname": ""}, {"DnsServerIp": "1.2.3.4", "Ifname": "interface-15chr"} ],
    "DnsProxy": [ {"Domain": "p1.example.com", "ServerIp": "10.1.1.1"},
                  {"Domain": "p1.example.com", "ServerIp": "10.1.1.2"} ],
    "LocalIp": "10.9.8.7"})";

// The text without the blanks that json-c may place freely.
std::string WithoutBlanks(const std::string &Text)
{
    std::string Out;
    bool InString = false;
    for (const char Each : Text) {
        InString = InString != (Each == '"');
        if (InString || (Each != ' ' && Each != '\n')) {
            Out += Each;
        }
    }
    return Out;
}

class JsonWriter : public ModuleTest {
  protected:
    // Nothing if the module returned no text.
    std::optional<std::string> Write()
    {
        char *Text = VQCtrl_AdvancedDnsConfToJsonStr(Conf.get());
        if (Text == nullptr) {
            return std::nullopt;
        }
        std::string Out = Text;
        VQ_AgentMemFree(Text);
        return Out;
    }

    void ExpectRefused(const std::vector<std::string> &Lines)
    {
        EXPECT_EQ(Write(), std::nullopt);
        EXPECT_EQ(Logs(), Lines);
        EXPECT_EQ(Host.Json.TreesInUse(), 0U);
        EXPECT_EQ(Host.Memory.BlocksInUse(), 0U);
    }

    // Adds one entry to each list.
    void FillLists() const
    {
        AddHost(*Conf, 1, "h.example.com");
        AddMx(*Conf, "t.example.com", "s.example.com", 10);
        AddServer(*Conf, 2, "eth0");
        AddProxy(*Conf, "p.example.com", 3);
    }

    Record Conf = NewRecord(3);
};

TEST_F(JsonWriter, AnExample)
{
    Conf->Enable = TRUE;
    AddHost(*Conf, Ip(192, 168, 1, 10), "nas.corp.example");
    AddServer(*Conf, Ip(8, 8, 8, 8), "wan0");
    AddProxy(*Conf, "intra.example", Ip(10, 1, 1, 1));
    EXPECT_EQ(WithoutBlanks(Write().value_or("")), WithoutBlanks(kExample));
}

TEST_F(JsonWriter, EveryMemberOfEveryEntryInOrder)
{
    Conf->Enable = TRUE;
    Conf->VpnId = 7;
    AddHost(*Conf, Ip(10, 0, 0, 1), "a.example.com");
    AddHost(*Conf, 0xffffffff, "");
    AddMx(*Conf, "t1.example.com", "s1.example.com", 65536);
    AddMx(*Conf, "t2.example.com", "s2.example.com", 0);
    AddServer(*Conf, 1, "");
    AddServer(*Conf, Ip(1, 2, 3, 4), "interface-15chr");
    AddProxy(*Conf, "p1.example.com", Ip(10, 1, 1, 1));
    AddProxy(*Conf, "p1.example.com", Ip(10, 1, 1, 2));
    Conf->LocalIp = Ip(10, 9, 8, 7);
    EXPECT_EQ(WithoutBlanks(Write().value_or("")), WithoutBlanks(kFull));
}

TEST_F(JsonWriter, TheTextHasTheDefaultFormatOfJsonC)
{
    FillLists();
    const std::string Text = Write().value_or("");
    json_object *Tree = json_tokener_parse(Text.c_str());
    ASSERT_NE(Tree, nullptr);
    EXPECT_EQ(Text, json_object_to_json_string(Tree));
    json_object_put(Tree);
}

TEST_F(JsonWriter, AnEmptyRecordHasEveryMember)
{
    Conf->VpnId = 0;
    EXPECT_EQ(WithoutBlanks(Write().value_or("")),
              R"({"Enable":false,"VpnId":0,"Op":1,"DnsHostNum":0,"DnsMxHostNum":0,"DnsServerNum":0,"DnsProxyNum":0,)"
              R"("DnsHost":[],"DnsMxHost":[],"DnsServer":[],"DnsProxy":[],"LocalIp":"0.0.0.0"})");
}

TEST_F(JsonWriter, TheOperationIsAlwaysARestart)
{
    for (const uint32_t Operation : {0U, 1U, 2U, 0xffffffffU}) {
        Conf->Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(Operation);
        EXPECT_THAT(WithoutBlanks(Write().value_or("")), testing::HasSubstr(R"("Op":1,)"));
    }
}

TEST_F(JsonWriter, ThePersistentFlagIsLeftOut)
{
    const std::optional<std::string> Without = Write();
    Conf->PersistentFlag = TRUE;
    EXPECT_EQ(Write(), Without);
}

TEST_F(JsonWriter, EntriesPastTheCountsAreLeftOut)
{
    FillLists();
    Conf->DnsHostNum = 0;
    Conf->DnsMxHostNum = 0;
    Conf->DnsServerNum = 0;
    Conf->DnsProxyNum = 0;
    EXPECT_THAT(WithoutBlanks(Write().value_or("")),
                testing::HasSubstr(R"("DnsHost":[],"DnsMxHost":[],"DnsServer":[],"DnsProxy":[],)"));
}

struct SignedNumber {
    uint32_t Value;
    const char *Text;
};

class SignedNumbers : public JsonWriter, public testing::WithParamInterface<SignedNumber> {};

TEST_P(SignedNumbers, VpnIdAndPreferenceAreWrittenAsSignedNumbers)
{
    Conf->VpnId = GetParam().Value;
    AddMx(*Conf, "t.example.com", "s.example.com", GetParam().Value);
    const std::string Text = WithoutBlanks(Write().value_or(""));
    EXPECT_THAT(Text, testing::HasSubstr(std::string(R"("VpnId":)") + GetParam().Text + ','));
    EXPECT_THAT(Text, testing::HasSubstr(std::string(R"("Preference":)") + GetParam().Text + '}'));
}

INSTANTIATE_TEST_SUITE_P(Values, SignedNumbers,
                         testing::Values(SignedNumber{0, "0"}, SignedNumber{2147483647, "2147483647"},
                                         SignedNumber{2147483648, "-2147483648"}, SignedNumber{4294967295, "-1"}));

TEST_F(JsonWriter, TheTextIsLoggedAndThenCopiedToHostMemory)
{
    FillLists();
    char *Text = VQCtrl_AdvancedDnsConfToJsonStr(Conf.get());
    ASSERT_NE(Text, nullptr);
    EXPECT_THAT(Logs(),
                ElementsAre("2 VQCtrl_AdvancedDnsConfToJsonStr: dnsmasq conf json str: " + std::string(Text) + '\n'));
    EXPECT_THAT(Host.Calls.Of(fakehost::EntryKind::Memory),
                ElementsAre("VQ_AgentMemAlloc(" + std::to_string(std::strlen(Text) + 1) + ')'));
    EXPECT_EQ(Host.Json.TreesInUse(), 0U);
    VQ_AgentMemFree(Text);
}

TEST_F(JsonWriter, NoMemoryForTheRoot)
{
    Host.Failures.Fail("json_object_new_object", -12, 1);
    ExpectRefused({std::string(kEntry) + "Can't new dnsmasqJson json object\n"});
    EXPECT_THAT(Host.Calls.Trace(), SizeIs(1));
}

// The order in which the values of a record with one entry in each list are created.
struct Creation {
    const char *Service;
    std::size_t Nth;
    const char *Name;
};

const Creation kCreations[] = {
    {"json_object_new_boolean", 1, "enable"},
    {"json_object_new_int", 1, "vpnId"},
    {"json_object_new_int", 2, "Op"},
    {"json_object_new_int", 3, "DnsHostNum"},
    {"json_object_new_int", 4, "DnsMxHostNum"},
    {"json_object_new_int", 5, "DnsServerNum"},
    {"json_object_new_int", 6, "DnsProxyNum"},
    {"json_object_new_array", 1, "DnsHost"},
    {"json_object_new_object", 2, "dnsHostItem"},
    {"json_object_new_string", 1, "Ip"},
    {"json_object_new_string", 2, "Domain"},
    {"json_object_new_array", 2, "DnsMxHost"},
    {"json_object_new_object", 3, "dnsMxHostItem"},
    {"json_object_new_string", 3, "TargetDomain"},
    {"json_object_new_string", 4, "SourceDomain"},
    {"json_object_new_int", 7, "Preference"},
    {"json_object_new_array", 3, "DnsServer"},
    {"json_object_new_object", 4, "dnsServerItem"},
    {"json_object_new_string", 5, "DnsServerIp"},
    {"json_object_new_string", 6, "Ifname"},
    {"json_object_new_array", 4, "DnsProxy"},
    {"json_object_new_object", 5, "dnsProxyItem"},
    {"json_object_new_string", 7, "Domain"},
    {"json_object_new_string", 8, "ServerIp"},
    {"json_object_new_string", 9, "LocalIp"},
};

class Creations : public JsonWriter, public testing::WithParamInterface<std::size_t> {};

TEST_P(Creations, AFailureIsLoggedAndNothingLeaks)
{
    FillLists();
    const Creation &Failing = kCreations[GetParam()];
    Host.Failures.Fail(Failing.Service, -12, Failing.Nth);
    ExpectRefused({std::string(kTree) + "Can't new dnsmasq " + Failing.Name + " json object\n",
                   std::string(kEntry) + "Agent dnsmasq conf to json failed(12:Cannot allocate memory)\n"});
}

// The values before the failing one are created, and none after it.
TEST_P(Creations, HappenInTheOrderOfTheDocument)
{
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    FillLists();
    const Creation &Failing = kCreations[GetParam()];
    Host.Failures.Fail(Failing.Service, -12, Failing.Nth);
    EXPECT_EQ(Write(), std::nullopt);
    std::vector<std::string> Expected{"json_object_new_object"};
    for (std::size_t Each = 0; Each <= GetParam(); ++Each) {
        Expected.emplace_back(kCreations[Each].Service);
    }
    std::vector<std::string> Made;
    for (const fakehost::Entry &Each : Host.Calls.Entries()) {
        if (Each.Name.starts_with("json_object_new")) {
            Made.push_back(Each.Name);
        }
    }
    EXPECT_EQ(Made, Expected);
}

INSTANTIATE_TEST_SUITE_P(Values, Creations, testing::Range(std::size_t{0}, std::size(kCreations)),
                         [](const auto &Info) { return std::to_string(Info.param) + kCreations[Info.param].Name; });

// The second entry of a list fails in the same way as the first one.
TEST_F(JsonWriter, NoMemoryForALaterEntry)
{
    FillLists();
    AddProxy(*Conf, "q.example.com", 4);
    Host.Failures.Fail("json_object_new_object", -12, 6);
    ExpectRefused({std::string(kTree) + "Can't new dnsmasq dnsProxyItem json object\n",
                   std::string(kEntry) + "Agent dnsmasq conf to json failed(12:Cannot allocate memory)\n"});
}

// json-c can also run out of memory when it adds a value.
TEST_F(JsonWriter, AFailedAdditionIsReportedAndNothingLeaks)
{
    FillLists();
    constexpr std::size_t Members = 21;
    constexpr std::size_t Elements = 4;
    for (std::size_t Nth = 1; Nth <= Members + Elements; ++Nth) {
        const bool IsMember = Nth <= Members;
        Host.Log.Clear();
        Host.Failures = {};
        Host.Failures.Fail(IsMember ? "json_object_object_add" : "json_object_array_add", -12,
                           IsMember ? Nth : Nth - Members);
        EXPECT_EQ(Write(), std::nullopt) << Nth;
        EXPECT_EQ(Logs().back(),
                  std::string(kEntry) + "Agent dnsmasq conf to json failed(12:Cannot allocate memory)\n");
        EXPECT_EQ(Host.Json.TreesInUse(), 0U);
    }
    Host.Failures = {};
    EXPECT_NE(Write(), std::nullopt);
}

TEST_F(JsonWriter, AnAddressThatDoesNotFitItsBuffer)
{
    FillLists();
    for (std::size_t Nth = 1; Nth <= 4; ++Nth) {
        Host.Log.Clear();
        Host.Failures = {};
        Host.Failures.Fail("VQ_SNPrintf", -75, Nth);
        ExpectRefused(
            {std::string(kTree) + "ip string is overflow\n",
             std::string(kEntry) + "Agent dnsmasq conf to json failed(75:Value too large for defined data type)\n"});
    }
}

TEST_F(JsonWriter, AddressesAreFormattedInto19Bytes)
{
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    Conf->LocalIp = 0xffffffff;
    EXPECT_NE(Write(), std::nullopt);
    EXPECT_THAT(Host.Calls.Named("VQ_SNPrintf"), ElementsAre("VQ_SNPrintf(19, \"255.255.255.255\")"));
}

TEST_F(JsonWriter, NoTextFromJsonC)
{
    Host.Failures.Fail("json_object_to_json_string", -12);
    ExpectRefused({std::string(kEntry) + "Trans json object to json string failed\n"});
}

TEST_F(JsonWriter, NoMemoryForTheText)
{
    const std::string Text = Write().value_or("");
    Host.Log.Clear();
    Host.Failures.Fail("VQ_AgentMemAlloc", -12);
    ExpectRefused({"2 VQCtrl_AdvancedDnsConfToJsonStr: dnsmasq conf json str: " + Text + '\n',
                   std::string(kEntry) + "Failed to alloc memory for jsonStr\n"});
}

TEST_F(JsonWriter, TheTextDoesNotDependOnTheVerboseLine)
{
    Host.Log.LevelEnabled[2] = false;
    EXPECT_NE(Write(), std::nullopt);
    EXPECT_THAT(Logs(), IsEmpty());
}

} // namespace
