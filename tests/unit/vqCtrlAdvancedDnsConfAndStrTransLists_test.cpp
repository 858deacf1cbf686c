// Reading the JSON text: the four lists.
#include <algorithm>

#include "jsonReaderTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The properties of one list. Two log texts of the servers name the hosts.
struct List {
    const char *Name;
    const char *Mismatch;
    const char *EmptyItem;
    const char *Item;
    std::size_t Capacity;
    std::size_t (*Count)(const VQ_CTRL_DNSMASQ_CONF &Conf);
};

const List kLists[] = {
    {"DnsHost", "DnsHost array num is not equal to DnsHostNum, use array num\n", "item for DnsHost\n",
     R"({"Ip": "10.0.0.1", "Domain": "a.example.com"})", 1024,
     [](const VQ_CTRL_DNSMASQ_CONF &Conf) -> std::size_t { return Conf.DnsHostNum; }},
    {"DnsMxHost", "DnsMxHost array num is not equal to DnsMxHostNum, use array num\n", "item for DnsMxHost\n",
     R"({"TargetDomain": "t.example.com", "SourceDomain": "s.example.com", "Preference": 10})", 1024,
     [](const VQ_CTRL_DNSMASQ_CONF &Conf) -> std::size_t { return Conf.DnsMxHostNum; }},
    {"DnsServer", "DnsHost array num is not equal to DnsServerNum, use array num\n", "item for DnsHost\n",
     R"({"DnsServerIp": "10.0.0.2", "Ifname": "eth0"})", 8,
     [](const VQ_CTRL_DNSMASQ_CONF &Conf) -> std::size_t { return Conf.DnsServerNum; }},
    {"DnsProxy", "DnsProxy array num is not equal to DnsProxyNum, use array num\n", "item for DnsProxy\n",
     R"({"ServerIp": "10.0.0.3", "Domain": "p.example.com"})", 65536,
     [](const VQ_CTRL_DNSMASQ_CONF &Conf) -> std::size_t { return Conf.DnsProxyNum; }},
};

std::string Array(const std::string &Item, std::size_t Count)
{
    std::string Out = "[";
    for (std::size_t Each = 0; Each < Count; ++Each) {
        Out += (Each == 0 ? "" : ", ") + Item;
    }
    return Out + ']';
}

class JsonLists : public JsonReaderTest, public testing::WithParamInterface<List> {
  protected:
    [[nodiscard]] static std::string WithList(const std::string &Number, const std::string &Value)
    {
        const std::string Name = GetParam().Name;
        return Document('"' + Name + R"(Num": )" + Number + ", \"" + Name + "\": " + Value);
    }

    [[nodiscard]] std::size_t Count() const { return GetParam().Count(*Conf); }
};

TEST_P(JsonLists, AnArrayWithCountZeroIsNotRead)
{
    EXPECT_EQ(Read(WithList("0", Array(GetParam().Item, 1))), 0);
    EXPECT_EQ(Read(WithList("0", "3")), 0);
    EXPECT_EQ(Read(Document('"' + std::string(GetParam().Name) + R"(": [null])")), 0);
    EXPECT_EQ(Count(), 0U);
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_P(JsonLists, ACountIsTruncatedToItsField)
{
    // 8 bits for the servers, 16 for the others.
    EXPECT_EQ(Read(WithList("65536", "3")), 0);
    EXPECT_EQ(Count(), 0U);
    EXPECT_EQ(Read(WithList("65537", Array(GetParam().Item, 1))), 0);
    EXPECT_EQ(Count(), 1U);
    EXPECT_THAT(Lines(), IsEmpty());
    if (GetParam().Capacity == 8) {
        EXPECT_EQ(Read(WithList("258", Array(GetParam().Item, 2))), 0);
        EXPECT_EQ(Count(), 2U);
    } else {
        EXPECT_EQ(Read(WithList("256", Array(GetParam().Item, 256))), 0);
        EXPECT_EQ(Count(), 256U);
    }
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_P(JsonLists, AMissingArrayIsRefused)
{
    ExpectRefused(Document('"' + std::string(GetParam().Name) + R"(Num": 1)"), -22,
                  std::string(GetParam().Name) + " array is empty\n");
}

TEST_P(JsonLists, AValueThatIsNotAnArrayIsRefused)
{
    for (const char *Value : {"3", "{}", R"("[]")", "true", "null"}) {
        ExpectRefused(WithList("1", Value), -22,
                      "Invalid format, " + std::string(GetParam().Name) + " is not array!\n");
    }
}

TEST_P(JsonLists, TheLengthOfTheArrayIsUsed)
{
    for (const std::size_t Length : {0U, 1U, 3U}) {
        Host.Log.Clear();
        EXPECT_EQ(Read(WithList("2", Array(GetParam().Item, Length))), 0);
        EXPECT_EQ(Count(), Length);
        EXPECT_THAT(Lines(), ElementsAre("1 _VQCtrl_AdvancedDnsJsonToConf: " + std::string(GetParam().Mismatch)));
    }
}

TEST_P(JsonLists, ANegativeCountIsTreatedAsADifferentCount)
{
    EXPECT_EQ(Read(WithList("-1", Array(GetParam().Item, 1))), 0);
    EXPECT_EQ(Count(), 1U);
    EXPECT_THAT(Lines(), ElementsAre("1 _VQCtrl_AdvancedDnsJsonToConf: " + std::string(GetParam().Mismatch)));
}

TEST_P(JsonLists, ANullElementIsRefusedWithItsIndex)
{
    ExpectRefused(WithList("1", "[null]"), -22, "empty [0] " + std::string(GetParam().EmptyItem));
    ExpectRefused(WithList("3", '[' + std::string(GetParam().Item) + ", " + GetParam().Item + ", null]"), -22,
                  "empty [2] " + std::string(GetParam().EmptyItem));
    EXPECT_EQ(Count(), 3U);
}

// As many entries as the table and the count can hold.
TEST_P(JsonLists, AFullListIsRead)
{
    const std::size_t Most = std::min<std::size_t>(GetParam().Capacity, 65535);
    EXPECT_EQ(Read(WithList(std::to_string(Most), Array(GetParam().Item, Most))), 0);
    EXPECT_EQ(Count(), Most);
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_P(JsonLists, ALongerArrayIsRefusedUnread)
{
    EXPECT_EQ(Read(WithList("1", Array(GetParam().Item, GetParam().Capacity + 1))), -75);
    ASSERT_FALSE(Lines().empty());
    EXPECT_EQ(Lines().back(), kEntry + "Json to data struct failed(75:Value too large for defined data type)\n");
    const Record Expected = NewRecord(7);
    Expected->Enable = TRUE;
    Expected->Op = VQ_CTRL_DNSMASQ_OP_REBOOT;
    EXPECT_EQ(Count(), 1U);
    EXPECT_TRUE(
        SameBytes(Conf->DnsHost, Expected->DnsHost, sizeof(*Expected) - offsetof(VQ_CTRL_DNSMASQ_CONF, DnsHost)));
}

TEST_P(JsonLists, ARefusedDocumentLeavesEachCountWithinItsTable)
{
    const std::size_t TooMany = std::min<std::size_t>(GetParam().Capacity + 1, 65535);
    EXPECT_EQ(Read(Document('"' + std::string(GetParam().Name) + "Num\": " + std::to_string(TooMany))), -22);
    EXPECT_EQ(Count(), TooMany > GetParam().Capacity ? 0U : TooMany);
}

INSTANTIATE_TEST_SUITE_P(Each, JsonLists, testing::ValuesIn(kLists),
                         [](const auto &Info) { return std::string(Info.param.Name); });

class JsonElements : public JsonReaderTest {
  protected:
    [[nodiscard]] static std::string One(const std::string &List, const std::string &Item)
    {
        return Document('"' + List + R"(Num": 1, ")" + List + "\": [" + Item + ']');
    }
};

TEST_F(JsonElements, AnUnreadListKeepsItsCountWithinItsTable)
{
    EXPECT_EQ(Read(Document(R"("DnsHostNum": 1, "DnsMxHostNum": 1025, "DnsServerNum": 9)")), -22);
    EXPECT_EQ(Conf->DnsHostNum, 1U);
    EXPECT_EQ(Conf->DnsMxHostNum, 0U);
    EXPECT_EQ(Conf->DnsServerNum, 0U);
}

TEST_F(JsonElements, AreReadIntoTheirFields)
{
    EXPECT_EQ(Read(Document(R"("DnsHostNum": 1, "DnsMxHostNum": 1, "DnsServerNum": 1, "DnsProxyNum": 1,
        "DnsHost": [{"Domain": "h.example.com", "Ip": "10.0.0.1"}],
        "DnsMxHost": [{"Preference": 65536, "TargetDomain": "t.example.com", "SourceDomain": "s.example.com"}],
        "DnsServer": [{"DnsServerIp": "1.2.3.4", "Ifname": "eth0"}],
        "DnsProxy": [{"Domain": "p.example.com", "ServerIp": "255.0.0.255"}],
        "LocalIp": "10.9.8.7")")),
              0);
    const Record Expected = NewRecord(7);
    Expected->Enable = TRUE;
    Expected->Op = VQ_CTRL_DNSMASQ_OP_REBOOT;
    AddHost(*Expected, Ip(10, 0, 0, 1), "h.example.com");
    AddMx(*Expected, "t.example.com", "s.example.com", 65536);
    AddServer(*Expected, Ip(1, 2, 3, 4), "eth0");
    AddProxy(*Expected, "p.example.com", Ip(255, 0, 0, 255));
    Expected->LocalIp = Ip(10, 9, 8, 7);
    EXPECT_TRUE(SameBytes(Conf.get(), Expected.get(), sizeof(*Expected)));
    EXPECT_THAT(Lines(), IsEmpty());
}

struct BadElement {
    const char *List;
    const char *Item;
    VQ_ERR_T Code;
    const char *Message;
};

class BadElements : public JsonElements, public testing::WithParamInterface<BadElement> {};

TEST_P(BadElements, AreRefusedAtTheFirstBadMember)
{
    ExpectRefused(One(GetParam().List, GetParam().Item), GetParam().Code, GetParam().Message);
}

INSTANTIATE_TEST_SUITE_P(
    Members, BadElements,
    testing::Values(
        BadElement{"DnsHost", "{}", -22, "Lack of Ip\n"}, BadElement{"DnsHost", "3", -22, "Lack of Ip\n"},
        BadElement{"DnsHost", "[]", -22, "Lack of Ip\n"}, BadElement{"DnsHost", R"({"Ip": null})", -22, "Lack of Ip\n"},
        BadElement{"DnsHost", R"({"Ip": "1.2.3.4.5.6.7.8.901"})", -75, "Lack of Ip\n"},
        BadElement{"DnsHost", R"({"Ip": "1.2.3.4.5.6.7.8.90"})", -22, "ip string to ip number failed\n"},
        BadElement{"DnsHost", R"({"Ip": 5})", -22, "ip string to ip number failed\n"},
        BadElement{"DnsHost", R"({"Ip": "1.2.3.4"})", -22, "Lack of Domain\n"},
        BadElement{"DnsHost", R"({"Ip": "1.2.3.4", "Domain": null})", -22, "Lack of Domain\n"},
        BadElement{"DnsMxHost", "{}", -22, "Lack of TargetDomain\n"},
        BadElement{"DnsMxHost", R"({"TargetDomain": "t"})", -22, "Lack of SourceDomain\n"},
        BadElement{"DnsMxHost", R"({"TargetDomain": "t", "SourceDomain": "s"})", -22, "Lack of Preference\n"},
        BadElement{"DnsServer", "{}", -22, "Lack of DnsServerIp\n"},
        BadElement{"DnsServer", R"({"DnsServerIp": "1.2.3.4.5.6.7.8.901"})", -75, "Lack of DnsServerIp\n"},
        BadElement{"DnsServer", R"({"DnsServerIp": ""})", -22, "ip string to ip number failed\n"},
        BadElement{"DnsServer", R"({"DnsServerIp": "1.2.3.4"})", -22, "Lack of Ifname\n"},
        BadElement{"DnsServer", R"({"DnsServerIp": "1.2.3.4", "Ifname": "interface-16char"})", -75, "Lack of Ifname\n"},
        BadElement{"DnsProxy", "{}", -22, "Lack of ServerIp\n"},
        BadElement{"DnsProxy", R"({"Domain": "p"})", -22, "Lack of ServerIp\n"},
        BadElement{"DnsProxy", R"({"ServerIp": "1.2.3.4.5.6.7.8.901"})", -75, "Lack of ServerIp\n"},
        BadElement{"DnsProxy", R"({"ServerIp": "bad"})", -22, "ip string to ip number failed\n"},
        BadElement{"DnsProxy", R"({"ServerIp": "1.2.3.4"})", -22, "Lack of Domain\n"}));

struct DomainMember {
    const char *List;
    const char *Key;
    const char *Others;
    const char *(*Target)(const VQ_CTRL_DNSMASQ_CONF &Conf);
};

class Domains : public JsonElements, public testing::WithParamInterface<DomainMember> {
  protected:
    [[nodiscard]] static std::string With(const std::string &Domain)
    {
        return One(GetParam().List,
                   '{' + std::string(GetParam().Others) + '"' + GetParam().Key + R"(": ")" + Domain + R"("})");
    }
};

TEST_P(Domains, Of255CharactersFit)
{
    const std::string Longest(255, 'd');
    EXPECT_EQ(Read(With(Longest)), 0);
    EXPECT_EQ(GetParam().Target(*Conf), Longest);
}

TEST_P(Domains, Of256CharactersAreRefusedAndTruncated)
{
    ExpectRefused(With(std::string(256, 'd')), -75, "Lack of " + std::string(GetParam().Key) + '\n');
    EXPECT_EQ(GetParam().Target(*Conf), std::string(255, 'd'));
}

TEST_P(Domains, AreNotCheckedByTheDomainRule)
{
    for (const char *Domain : {"", "no domain", "bad_name"}) {
        EXPECT_EQ(Read(With(Domain)), 0);
        EXPECT_STREQ(GetParam().Target(*Conf), Domain);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Members, Domains,
    testing::Values(DomainMember{"DnsHost", "Domain", R"("Ip": "1.2.3.4", )",
                                 [](const VQ_CTRL_DNSMASQ_CONF &Conf) { return Conf.DnsHost[0].Domain; }},
                    DomainMember{"DnsMxHost", "TargetDomain", R"("SourceDomain": "s", "Preference": 1, )",
                                 [](const VQ_CTRL_DNSMASQ_CONF &Conf) { return Conf.DnsMxHost[0].TargetDomain; }},
                    DomainMember{"DnsMxHost", "SourceDomain", R"("TargetDomain": "t", "Preference": 1, )",
                                 [](const VQ_CTRL_DNSMASQ_CONF &Conf) { return Conf.DnsMxHost[0].SourceDomain; }},
                    DomainMember{"DnsProxy", "Domain", R"("ServerIp": "1.2.3.4", )",
                                 [](const VQ_CTRL_DNSMASQ_CONF &Conf) { return Conf.DnsProxy[0].Domain; }}),
    [](const auto &Info) { return std::string(Info.param.List) + Info.param.Key; });

TEST_F(JsonElements, AnInterfaceNameMayBeEmptyAndHas15Characters)
{
    EXPECT_EQ(Read(One("DnsServer", R"({"DnsServerIp": "1.2.3.4", "Ifname": ""})")), 0);
    EXPECT_STREQ(Conf->DnsServer[0].Ifname, "");
    EXPECT_EQ(Read(One("DnsServer", R"({"DnsServerIp": "1.2.3.4", "Ifname": "interface-15chr"})")), 0);
    EXPECT_STREQ(Conf->DnsServer[0].Ifname, "interface-15chr");
}

TEST_F(JsonElements, AValueThatIsNotAStringIsReadAsItsJsonText)
{
    EXPECT_EQ(Read(One("DnsHost", R"({"Ip": "1.2.3.4", "Domain": 12})")), 0);
    EXPECT_STREQ(Conf->DnsHost[0].Domain, "12");
    EXPECT_EQ(Read(One("DnsHost", R"({"Ip": "1.2.3.4", "Domain": true})")), 0);
    EXPECT_STREQ(Conf->DnsHost[0].Domain, "true");
}

TEST_F(JsonElements, APreferenceHas32Bits)
{
    const auto With = [](const std::string &Value) {
        return One("DnsMxHost", R"({"TargetDomain": "t", "SourceDomain": "s", "Preference": )" + Value + '}');
    };
    EXPECT_EQ(Read(With("-1")), 0);
    EXPECT_EQ(Conf->DnsMxHost[0].Preference, 4294967295U);
    EXPECT_EQ(Read(With(R"("12")")), 0);
    EXPECT_EQ(Conf->DnsMxHost[0].Preference, 12U);
    ExpectRefused(With("2147483647"), -75, "Lack of Preference\n");
    EXPECT_EQ(Conf->DnsMxHost[0].Preference, 2147483647U);
    ExpectRefused(With("-2147483648"), -75, "Lack of Preference\n");
}

// After the VPN id, the operation and the count.
TEST_F(JsonElements, APreferenceThatIsNotANumberIsRefused)
{
    Host.Failures.Fail("json_object_get_int", -EINVAL, 4);
    ExpectRefused(One("DnsMxHost", R"({"TargetDomain": "t", "SourceDomain": "s", "Preference": "x"})"), -22,
                  "Lack of Preference\n");
    EXPECT_EQ(Conf->DnsMxHost[0].Preference, 0U);
}

TEST_F(JsonElements, ElementsReadBeforeAFailureStay)
{
    ExpectRefused(Document(R"("DnsHostNum": 2, "DnsMxHostNum": 1,
        "DnsHost": [{"Ip": "10.0.0.1", "Domain": "a.example.com"}, {"Ip": "10.0.0.2"}])"),
                  -22, "Lack of Domain\n");
    EXPECT_EQ(Conf->DnsHostNum, 2U);
    EXPECT_STREQ(Conf->DnsHost[0].Domain, "a.example.com");
    EXPECT_EQ(Conf->DnsHost[1].Ip, Ip(10, 0, 0, 2));
    EXPECT_EQ(Conf->DnsMxHostNum, 1U);
}

// Every list has an error. Each one hides the errors of the lists after it.
TEST_F(JsonElements, ListsAreReadInOrder)
{
    const std::string Numbers = R"("DnsProxyNum": 1, "DnsServerNum": 1, "DnsMxHostNum": 1, "DnsHostNum": 1)";
    const std::string Hosts = R"(, "DnsHost": [{"Ip": "1.2.3.4", "Domain": "d"}])";
    const std::string Mxs = R"(, "DnsMxHost": [{"TargetDomain": "t", "SourceDomain": "s", "Preference": 1}])";
    const std::string Servers = R"(, "DnsServer": [{"DnsServerIp": "1.2.3.4", "Ifname": ""}])";
    ExpectRefused(Document(Numbers), -22, "DnsHost array is empty\n");
    ExpectRefused(Document(Numbers + Hosts), -22, "DnsMxHost array is empty\n");
    ExpectRefused(Document(Numbers + Hosts + Mxs), -22, "DnsServer array is empty\n");
    ExpectRefused(Document(Numbers + Hosts + Mxs + Servers), -22, "DnsProxy array is empty\n");
}

// The table holds 65536 pairs, for which the 16-bit count is 0.
TEST_F(JsonElements, AFullProxyTableWrapsItsCountToZero)
{
    EXPECT_EQ(Read(Document(R"("DnsProxyNum": 65535, "DnsProxy": )" +
                            Array(R"({"ServerIp": "10.0.0.3", "Domain": "p.example.com"})", 65536))),
              0);
    EXPECT_EQ(Conf->DnsProxyNum, 0U);
    EXPECT_STREQ(Conf->DnsProxy[65535].Domain, "p.example.com");
    EXPECT_EQ(Conf->DnsProxy[65535].ServerIp, Ip(10, 0, 0, 3));
    EXPECT_EQ(Conf->LocalIp, 0U);
}

TEST_F(JsonElements, AnAddressIsConvertedOutOf19Bytes)
{
    Host.Calls.Record(fakehost::EntryKind::Text, true);
    EXPECT_EQ(Read(Document(R"("LocalIp": "10.9.8.7")")), 0);
    EXPECT_THAT(Host.Calls.Named("VQ_SafeStrCopy"), ElementsAre("VQ_SafeStrCopy(19, \"10.9.8.7\")"));
    EXPECT_THAT(Host.Calls.Named("VQ_SafeStrGetIp4Addr"), ElementsAre("VQ_SafeStrGetIp4Addr(\"10.9.8.7\", 19)"));
}

} // namespace
