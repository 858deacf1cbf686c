// Reading the JSON text: the text itself, the header and the counts.
#include "jsonReaderTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kVpnIdWarning = "3 _VQCtrl_AdvancedDnsJsonToConf: Lack of VpnId, set it to zero\n";

class JsonReader : public JsonReaderTest {
  protected:
    [[nodiscard]] static std::string WithOp(const std::string &Value)
    {
        return R"({"Enable": true, "VpnId": 7, "Op": )" + Value + '}';
    }

    [[nodiscard]] static std::string WithVpnId(const std::string &Value)
    {
        return R"({"Enable": true, "VpnId": )" + Value + R"(, "Op": 1})";
    }
};

TEST_F(JsonReader, AHeaderIsEnough)
{
    EXPECT_EQ(Read(Document("")), 0);
    const Record Expected = NewRecord(7);
    Expected->Enable = TRUE;
    Expected->Op = VQ_CTRL_DNSMASQ_OP_REBOOT;
    EXPECT_TRUE(SameBytes(Conf.get(), Expected.get(), sizeof(*Expected)));
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(JsonReader, TheTextIsLoggedFirst)
{
    for (const std::string &Text : {Document(""), std::string("no json 100%s"), std::string()}) {
        Host.Log.Clear();
        static_cast<void>(Read(Text));
        EXPECT_EQ(Logs().front(), "2 VQCtrl_AdvancedDnsJsonStrToConf: agent dnsmasq conf json = " + Text + " \n");
    }
}

TEST_F(JsonReader, TextThatIsNotJsonIsRefused)
{
    const std::string Deep = std::string(40, '[') + std::string(40, ']');
    for (const std::string &Text :
         {std::string(), std::string("x"), std::string("{"), std::string(R"({"Enable": true,)"), std::string("null"),
          R"({"Enable": true, "VpnId": 7, "Op": 1, "More": )" + Deep + "}"}) {
        Host.Log.Clear();
        EXPECT_EQ(Read(Text), -22) << Text;
        EXPECT_THAT(Lines(), ElementsAre(kEntry + "invalid dnsmasq string, not json\n")) << Text;
    }
    const Record Empty = NewRecord(0);
    EXPECT_TRUE(SameBytes(Conf.get(), Empty.get(), sizeof(*Empty)));
}

TEST_F(JsonReader, NoMemoryForTheTreeIsReportedAsNotJson)
{
    Host.Failures.Fail("json_tokener_parse", -12);
    EXPECT_EQ(Read(Document("")), -22);
    EXPECT_THAT(Lines(), ElementsAre(kEntry + "invalid dnsmasq string, not json\n"));
}

TEST_F(JsonReader, ARootThatIsNotAnObjectHasNoMembers)
{
    for (const char *Text : {"[]", "3", "true", R"("Enable")", R"([{"Enable": true, "Op": 1}])", "{}"}) {
        ExpectRefused(Text, -22, "Lack of Enable\n");
    }
}

TEST_F(JsonReader, UnknownMembersAreIgnored)
{
    EXPECT_EQ(Read(Document(R"("More": {"a": [1]}, "PersistentFlag": true, "enable": false)")), 0);
    EXPECT_EQ(Conf->Enable, TRUE);
    EXPECT_EQ(Conf->PersistentFlag, FALSE);
}

TEST_F(JsonReader, AMissingEnableDoesNotChangeTheRecord)
{
    Conf->Enable = TRUE;
    Conf->VpnId = 5;
    ExpectRefused(R"({"VpnId": 7, "Op": 1})", -22, "Lack of Enable\n");
    EXPECT_EQ(Conf->Enable, TRUE);
    EXPECT_EQ(Conf->VpnId, 5U);
}

struct Coerced {
    const char *Text;
    BOOL Value;
};

class EnableValues : public JsonReader, public testing::WithParamInterface<Coerced> {};

TEST_P(EnableValues, AreConvertedLikeInJsonC)
{
    Conf->Enable = GetParam().Value == TRUE ? FALSE : TRUE;
    EXPECT_EQ(Read(R"({"Enable": )" + std::string(GetParam().Text) + R"(, "VpnId": 7, "Op": 1})"), 0);
    EXPECT_EQ(Conf->Enable, GetParam().Value);
    EXPECT_THAT(Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Values, EnableValues,
                         testing::Values(Coerced{"true", TRUE}, Coerced{"false", FALSE}, Coerced{"1", TRUE},
                                         Coerced{"-7", TRUE}, Coerced{"0", FALSE}, Coerced{"0.5", TRUE},
                                         Coerced{"0.0", FALSE}, Coerced{R"("no")", TRUE}, Coerced{R"("")", FALSE},
                                         Coerced{"null", FALSE}, Coerced{"[1]", FALSE}, Coerced{"{}", FALSE}));

struct Number {
    const char *Text;
    uint32_t Value;
};

const Number kNumbers[] = {{"0", 0},
                           {"12", 12},
                           {"-1", 4294967295},
                           {"2147483646", 2147483646},
                           {"-2147483647", 2147483649},
                           {R"("12")", 12},
                           {R"("-3")", 4294967293},
                           {"3.9", 3},
                           {"true", 1},
                           {"false", 0},
                           {"null", 0}};

class Numbers : public JsonReader, public testing::WithParamInterface<Number> {};

TEST_P(Numbers, AreConvertedLikeInJsonC)
{
    Conf->VpnId = 99;
    EXPECT_EQ(Read(WithVpnId(GetParam().Text)), 0);
    EXPECT_EQ(Conf->VpnId, GetParam().Value);
    EXPECT_EQ(Read(WithOp(GetParam().Text)), 0);
    EXPECT_EQ(static_cast<uint32_t>(Conf->Op), GetParam().Value);
    EXPECT_THAT(Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Values, Numbers, testing::ValuesIn(kNumbers));

// The value that a bad number leaves in its target, and the code.
struct BadNumber {
    const char *Text;
    VQ_ERR_T Code;
    uint32_t Value;
};

const BadNumber kBadNumbers[] = {{"2147483647", -75, 2147483647},     {"-2147483648", -75, 2147483648},
                                 {"2147483648", -75, 2147483647},     {"4294967295", -75, 2147483647},
                                 {"-99999999999", -75, 2147483648},   {"1e20", -75, 2147483647},
                                 {R"("2147483647")", -75, 2147483647}};

class BadNumbers : public JsonReader, public testing::WithParamInterface<BadNumber> {};

TEST_P(BadNumbers, AVpnIdBecomesZeroWithAWarning)
{
    Conf->VpnId = 99;
    EXPECT_EQ(Read(WithVpnId(GetParam().Text)), 0);
    EXPECT_EQ(Conf->VpnId, 0U);
    EXPECT_EQ(Conf->Op, VQ_CTRL_DNSMASQ_OP_REBOOT);
    EXPECT_THAT(Lines(), ElementsAre(kVpnIdWarning));
}

TEST_P(BadNumbers, AnOperationIsStoredAndRefused)
{
    Conf->Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(5);
    ExpectRefused(WithOp(GetParam().Text), GetParam().Code, "Lack of Op\n");
    EXPECT_EQ(static_cast<uint32_t>(Conf->Op), GetParam().Value);
    EXPECT_EQ(Conf->VpnId, 7U);
}

TEST_P(BadNumbers, ACountIsIgnored)
{
    // Not an array, which is not noticed, because the count is 0.
    EXPECT_EQ(Read(Document(R"("DnsHost": 1, "DnsMxHost": 1, "DnsServer": 1, "DnsProxy": 1, "DnsHostNum": )" +
                            std::string(GetParam().Text) + R"(, "DnsMxHostNum": )" + GetParam().Text +
                            R"(, "DnsServerNum": )" + GetParam().Text + R"(, "DnsProxyNum": )" + GetParam().Text)),
              0);
    EXPECT_EQ(Conf->DnsHostNum, 0U);
    EXPECT_EQ(Conf->DnsMxHostNum, 0U);
    EXPECT_EQ(Conf->DnsServerNum, 0U);
    EXPECT_EQ(Conf->DnsProxyNum, 0U);
    EXPECT_THAT(Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Values, BadNumbers, testing::ValuesIn(kBadNumbers));

TEST_F(JsonReader, AMissingVpnIdBecomesZeroWithAWarning)
{
    Conf->VpnId = 99;
    EXPECT_EQ(Read(R"({"Enable": true, "Op": 1})"), 0);
    EXPECT_EQ(Conf->VpnId, 0U);
    EXPECT_THAT(Lines(), ElementsAre(kVpnIdWarning));
}

TEST_F(JsonReader, AMissingOperationIsRefused)
{
    Conf->Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(5);
    ExpectRefused(R"({"Enable": true, "VpnId": 7})", -22, "Lack of Op\n");
    EXPECT_EQ(Conf->Op, VQ_CTRL_DNSMASQ_OP_RELOAD);
    EXPECT_EQ(Conf->VpnId, 7U);
    EXPECT_EQ(Conf->Enable, TRUE);
}

TEST_F(JsonReader, TheWarningForTheVpnPrecedesTheErrorForTheOperation)
{
    EXPECT_EQ(Read(R"({"Enable": true})"), -22);
    EXPECT_THAT(Lines(), ElementsAre(kVpnIdWarning, kTree + "Lack of Op\n",
                                     kEntry + "Json to data struct failed(22:Invalid argument)\n"));
}

// If json-c reports through errno that a value is no number, the member is bad.
TEST_F(JsonReader, AValueThatIsNotANumberIsBad)
{
    Conf->Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(5);
    Host.Failures.Fail("json_object_get_int", -EINVAL);
    EXPECT_EQ(Read(Document("")), -22);
    EXPECT_EQ(Conf->VpnId, 0U);
    EXPECT_EQ(Conf->Op, VQ_CTRL_DNSMASQ_OP_RELOAD);
    EXPECT_THAT(Lines(), ElementsAre(kVpnIdWarning, kTree + "Lack of Op\n",
                                     kEntry + "Json to data struct failed(22:Invalid argument)\n"));
}

TEST_F(JsonReader, ACountThatIsNotANumberIsIgnored)
{
    for (std::size_t Nth = 3; Nth <= 6; ++Nth) {
        Host.Failures.Fail("json_object_get_int", -EINVAL, Nth);
    }
    EXPECT_EQ(Read(Document(R"("DnsHostNum": 1, "DnsMxHostNum": 1, "DnsServerNum": 1, "DnsProxyNum": 1)")), 0);
    EXPECT_EQ(Conf->DnsHostNum, 0U);
    EXPECT_EQ(Conf->DnsMxHostNum, 0U);
    EXPECT_EQ(Conf->DnsServerNum, 0U);
    EXPECT_EQ(Conf->DnsProxyNum, 0U);
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(JsonReader, AZeroWithAnotherErrnoIsANumber)
{
    Host.Failures.Fail("json_object_get_int", -ERANGE);
    EXPECT_EQ(Read(Document("")), 0);
    EXPECT_EQ(Conf->VpnId, 0U);
    EXPECT_EQ(Conf->Op, VQ_CTRL_DNSMASQ_OP_RELOAD);
    EXPECT_THAT(Lines(), IsEmpty());
}

// errno is cleared before each number.
TEST_F(JsonReader, ErrnoIsClearedBeforeEachNumber)
{
    std::vector<int> Seen;
    Host.Hooks["json_object_get_int"] = [&] { Seen.push_back(errno); };
    Host.Failures.Fail("json_object_get_int", -EINVAL, 1);
    errno = EINVAL;
    EXPECT_EQ(Read(Document(R"("DnsHostNum": 0)")), 0);
    EXPECT_THAT(Seen, ElementsAre(0, 0, 0));
}

struct Address {
    const char *Text;
    VQ_ERR_T Code;
    uint32_t Value;
};

class LocalAddresses : public JsonReader, public testing::WithParamInterface<Address> {};

TEST_P(LocalAddresses, AreOptionalAndCheckedIfPresent)
{
    const std::string Text = Document(R"("LocalIp": )" + std::string(GetParam().Text));
    if (GetParam().Code == 0) {
        EXPECT_EQ(Read(Text), 0);
        EXPECT_THAT(Lines(), IsEmpty());
    } else {
        ExpectRefused(Text, GetParam().Code, "ip string to ip number failed\n");
    }
    EXPECT_EQ(Conf->LocalIp, GetParam().Value);
}

INSTANTIATE_TEST_SUITE_P(Values, LocalAddresses,
                         testing::Values(Address{R"("10.9.8.7")", 0, Ip(10, 9, 8, 7)},
                                         Address{R"("255.255.255.255")", 0, 0xffffffff}, Address{R"("0.0.0.0")", 0, 0},
                                         Address{"null", 0, 0}, Address{R"("300.1.1.1")", -22, 0},
                                         Address{R"("")", -22, 0}, Address{"5", -22, 0}, Address{R"("1.2.3")", -22, 0},
                                         // 18 characters fit the buffer, 19 do not.
                                         Address{R"("1.2.3.4.5.6.7.8.90")", -22, 0},
                                         Address{R"("1.2.3.4.5.6.7.8.901")", 0, 0}));

TEST_F(JsonReader, TheLocalAddressIsReadLast)
{
    ExpectRefused(Document(R"("DnsProxyNum": 1, "LocalIp": "10.9.8.7")"), -22, "DnsProxy array is empty\n");
    EXPECT_EQ(Conf->LocalIp, 0U);
}

} // namespace
