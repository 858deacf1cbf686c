#include "json_message.h"

#include <arpa/inet.h>
#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "advanced_dns.pb-c.h"
#include "errors.h"
#include "files.h"

namespace kavel::ctl {
namespace {

template <auto Free>
struct Release {
    template <typename Message>
    void operator()(Message *message) const
    {
        Free(message, nullptr);
    }
};
using CpePtr = std::unique_ptr<DnsmasqConf, Release<dnsmasq_conf__free_unpacked>>;
using PopPtr = std::unique_ptr<PopDnsmasqConf, Release<pop_dnsmasq_conf__free_unpacked>>;

CpePtr DecodeCpe(const EncodedMessage &message)
{
    return CpePtr(dnsmasq_conf__unpack(nullptr, message.bytes.size(), message.bytes.data()));
}

PopPtr DecodePop(const EncodedMessage &message)
{
    return PopPtr(pop_dnsmasq_conf__unpack(nullptr, message.bytes.size(), message.bytes.data()));
}

EncodedMessage EncodeExample(const std::string &name)
{
    return EncodeJson(ReadInput(std::string(KAVEL_EXAMPLES) + "/" + name), MessageFor::kVpn);
}

std::string Refusal(const std::string &text)
{
    try {
        EncodeJson(text, MessageFor::kBox);
    } catch (const InputError &error) {
        return error.what();
    }
    return "accepted";
}

// A CPE message with the required members and `members`.
std::string Cpe(const std::string &members)
{
    return R"({"enable": true, "operation": "reload", )" + members + "}";
}

std::uint32_t Ip(const char *text)
{
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return ntohl(address.s_addr);
}

std::string Ipv6Text(const ProtobufCBinaryData &bytes)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    EXPECT_EQ(bytes.len, 16U);
    return inet_ntop(AF_INET6, bytes.data, text.data(), text.size());
}

struct RefusalCase {
    const char *name;
    std::string json;
    std::string text;
};

void PrintTo(const RefusalCase &refusal, std::ostream *out)
{
    *out << refusal.name;
}

class RefusedMessage : public testing::TestWithParam<RefusalCase> {};

TEST_P(RefusedMessage, NamesThePathAndTheReason)
{
    EXPECT_EQ(Refusal(GetParam().json), GetParam().text);
}

const auto CaseName = [](const auto &info) { return std::string(info.param.name); };

std::vector<RefusalCase> SyntaxCases()
{
    return {
        RefusalCase{"EmptyFile", "", "line 1, column 1: unexpected end of file"},
        RefusalCase{"EndsTooEarly", "{\"enable\": true,\n", "line 2, column 1: unexpected end of file"},
        RefusalCase{"MissingColon", "{\n  \"enable\" true\n}",
                    "line 2, column 12: object property name separator ':' expected"},
        RefusalCase{"ColumnCountsCharacters", "{\"\u00e9\" 1}",
                    "line 1, column 6: object property name separator ':' expected"},
        RefusalCase{"TrailingComma", R"({"enable": true,})",
                    R"(line 1, column 16: trailing comma; none may stand before "}")"},
        RefusalCase{"TrailingGarbage", "{}\n  x", "line 2, column 3: unexpected text after the value"},
        RefusalCase{"SecondMessage", "{}\n{}",
                    "line 2, column 1: a second message begins here; put each into a file of its own"},
        RefusalCase{"KeyTwice", "{\"enable\": true,\n \"enable\": false}",
                    R"(line 2, column 2: key "enable" is there twice)"},
        RefusalCase{"NulAfterValue", std::string("{}\0x", 4), "line 1, column 3: NUL character"},
        RefusalCase{"Comment", "{} // no", "line 1, column 4: comment; JSON has none"},
        RefusalCase{"BadUtf8", "{\"enable\": \"\xFF\"}", "line 1, column 13: invalid utf-8 string"},
        RefusalCase{"TooDeep", std::string(100, '['), "line 1, column 33: nesting too deep"},
    };
}
INSTANTIATE_TEST_SUITE_P(Syntax, RefusedMessage, testing::ValuesIn(SyntaxCases()), CaseName);

std::vector<RefusalCase> ShapeCases()
{
    return {
        RefusalCase{"List", "[]", "expected an object, not an array"},
        RefusalCase{"Null", "null", "expected an object, not null"},
        RefusalCase{"Number", "7", "expected an object, not 7"},
        RefusalCase{"UnknownKey", Cpe(R"("colour": 1)"), "colour: unknown key"},
        RefusalCase{"EmptyKey", Cpe(R"("": 1)"), R"("": unknown key)"},
        RefusalCase{"MistypedKey", Cpe(R"("dnshost": [])"), R"(dnshost: unknown key; did you mean "dnshosts"?)"},
        RefusalCase{"UnknownKeyInItem", Cpe(R"("dnshosts": [{"domain": "a.example", "ip": "10.0.0.1", "ttl": 5}])"),
                    "dnshosts[0].ttl: unknown key"},
        RefusalCase{"NoEnable", R"({"operation": 1})", "enable: is missing"},
        RefusalCase{"NoOperation", R"({"enable": true})", "operation: is missing"},
        RefusalCase{"NothingAtAll", "{}", "enable: is missing"},
        RefusalCase{"NoHostDomain", Cpe(R"("dnshosts": [{"ip": "10.0.0.1"}])"), "dnshosts[0].domain: is missing"},
        RefusalCase{"NoHostIp", Cpe(R"("dnshosts": [{"domain": "a.example"}])"), "dnshosts[0].ip: is missing"},
        RefusalCase{"NoServer", Cpe(R"("dnsservers": [{"ifname": "wan0"}])"), "dnsservers[0].dnsserver: is missing"},
        RefusalCase{"NoTarget", Cpe(R"("dnsmxhost": [{"sourcedomain": "a.example", "preference": 1}])"),
                    "dnsmxhost[0].targetdomain: is missing"},
        RefusalCase{"NoSource", Cpe(R"("dnsmxhost": [{"targetdomain": "a.example", "preference": 1}])"),
                    "dnsmxhost[0].sourcedomain: is missing"},
        RefusalCase{"NoPreference", Cpe(R"("dnsmxhost": [{"targetdomain": "a.example", "sourcedomain": "b.example"}])"),
                    "dnsmxhost[0].preference: is missing"},
        RefusalCase{"NoProxyDomains", Cpe(R"("dnsproxies": [{"serverips": []}])"), "dnsproxies[0].domains: is missing"},
        RefusalCase{"NoProxyServers", Cpe(R"("dnsproxies": [{"domains": []}])"), "dnsproxies[0].serverips: is missing"},
        RefusalCase{"NoPopEnable", R"({"localip": "10.0.0.1"})", "enable: is missing"},
        RefusalCase{"NoPopLocalIp", R"({"enable": true, "dns": []})", "localip: is missing"},
    };
}
INSTANTIATE_TEST_SUITE_P(Shape, RefusedMessage, testing::ValuesIn(ShapeCases()), CaseName);

std::vector<RefusalCase> KindCases()
{
    return {
        RefusalCase{"EnableText", R"({"enable": "yes", "operation": 1})",
                    R"(enable: expected true or false, not "yes")"},
        RefusalCase{"EnableNull", R"({"enable": null, "operation": 1})", "enable: expected true or false, not null"},
        RefusalCase{"EnableNumber", R"({"enable": 1, "operation": 1})", "enable: expected true or false, not 1"},
        RefusalCase{"PersistentText", Cpe(R"("persistentflag": "no")"),
                    R"(persistentflag: expected true or false, not "no")"},
        RefusalCase{"HistoryList", Cpe(R"("historypersistent": [])"),
                    "historypersistent: expected true or false, not an array"},
        RefusalCase{"HostsObject", Cpe(R"("dnshosts": {})"), "dnshosts: expected an array, not an object"},
        RefusalCase{"HostText", Cpe(R"("dnshosts": ["a.example"])"),
                    R"(dnshosts[0]: expected an object, not "a.example")"},
        RefusalCase{"DomainNumber", Cpe(R"("dnshosts": [{"domain": 5, "ip": "10.0.0.1"}])"),
                    "dnshosts[0].domain: expected a string, not 5"},
        RefusalCase{"IfnameNull", Cpe(R"("dnsservers": [{"dnsserver": "10.0.0.1", "ifname": null}])"),
                    "dnsservers[0].ifname: expected a string, not null"},
        RefusalCase{"IpNumber", Cpe(R"("dnshosts": [{"domain": "a.example", "ip": 167772161}])"),
                    "dnshosts[0].ip: expected an IPv4 address in quotes, not 167772161"},
        RefusalCase{"Ipv6Number", Cpe(R"("dnshosts": [{"domain": "a.example", "ip": "10.0.0.1", "ipv6": 1}])"),
                    "dnshosts[0].ipv6: expected an IPv6 address in quotes, not 1"},
        RefusalCase{"ProxyDomainList",
                    Cpe(R"("dnsproxies": [{"domains": ["a.example", "b.example", []], "serverips": []}])"),
                    "dnsproxies[0].domains[2]: expected a string, not an array"},
        RefusalCase{"LongValueIsCut", R"({"enable": ")" + std::string(200, 'x') + R"(", "operation": 1})",
                    R"(enable: expected true or false, not ")" + std::string(63, 'x') + "..."},
        RefusalCase{"CutBetweenCharacters", R"({"enable": ")" + std::string(62, 'x') + R"(éé", "operation": 1})",
                    R"(enable: expected true or false, not ")" + std::string(62, 'x') + "..."},
    };
}
INSTANTIATE_TEST_SUITE_P(Kind, RefusedMessage, testing::ValuesIn(KindCases()), CaseName);

const char *const kOperationText = R"(operation: expected "reload", "reboot" or a number from 0 to 4294967295, not )";

std::vector<RefusalCase> ValueCases()
{
    return {
        RefusalCase{
            "Ipv4OutOfRange",
            Cpe(R"("dnshosts": [{"domain": "a.example", "ip": "10.0.0.1"}, {"domain": "b.example", "ip": "10.0.0.2"},
                       {"domain": "c.example", "ip": "10.0.0.3"}, {"domain": "d.example", "ip": "300.1.1.1"}])"),
            R"(dnshosts[3].ip: "300.1.1.1" is not an IPv4 address)"},
        RefusalCase{"Ipv4Short", Cpe(R"("dnsservers": [{"dnsserver": "10.1"}])"),
                    R"(dnsservers[0].dnsserver: "10.1" is not an IPv4 address)"},
        RefusalCase{"Ipv4Octal", Cpe(R"("dnsservers": [{"dnsserver": "010.0.0.1"}])"),
                    R"(dnsservers[0].dnsserver: "010.0.0.1" is not an IPv4 address)"},
        RefusalCase{"Ipv4Blank", Cpe(R"("dnsservers": [{"dnsserver": "10.0.0.1 "}])"),
                    R"(dnsservers[0].dnsserver: "10.0.0.1 " is not an IPv4 address)"},
        RefusalCase{"Ipv4Empty", Cpe(R"("dnsproxies": [{"domains": [], "serverips": ["10.0.0.1", ""]}])"),
                    R"(dnsproxies[0].serverips[1]: "" is not an IPv4 address)"},
        RefusalCase{"Ipv4Nul", Cpe(R"("dnsservers": [{"dnsserver": "10.0.0.1\u0000"}])"),
                    R"(dnsservers[0].dnsserver: "10.0.0.1\u0000" is not an IPv4 address)"},
        RefusalCase{"Ipv6Bad",
                    Cpe(R"("dnsproxies": [{"domains": [], "serverips": [], "serveripv6s": ["fe80::1", "10.0.0.1"]}])"),
                    R"(dnsproxies[0].serveripv6s[1]: "10.0.0.1" is not an IPv6 address)"},
        RefusalCase{"Ipv6Nul", R"({"enable": true, "localip": "10.0.0.1", "localipv6": "::1\u0000"})",
                    R"(localipv6: "::1\u0000" is not an IPv6 address)"},
        RefusalCase{"PopAddress", R"({"enable": true, "localip": "10.0.0.1", "dns": ["10.0.0.1", "x"]})",
                    R"(dns[1]: "x" is not an IPv4 address)"},
        RefusalCase{"DomainNul", Cpe(R"("dnshosts": [{"domain": "a.ex\u0000ample", "ip": "10.0.0.1"}])"),
                    "dnshosts[0].domain: contains a NUL character"},
        RefusalCase{"OperationName", R"({"enable": true, "operation": "restart"})",
                    std::string(kOperationText) + R"("restart")"},
        RefusalCase{"OperationNul", R"({"enable": true, "operation": "reload\u0000"})",
                    std::string(kOperationText) + R"("reload\u0000")"},
        RefusalCase{"OperationNegative", R"({"enable": true, "operation": -1})", std::string(kOperationText) + "-1"},
        RefusalCase{"OperationTooBig", R"({"enable": true, "operation": 4294967296})",
                    std::string(kOperationText) + "4294967296"},
        RefusalCase{"OperationFraction", R"({"enable": true, "operation": 1.0})", std::string(kOperationText) + "1.0"},
        RefusalCase{"OperationBool", R"({"enable": true, "operation": true})", std::string(kOperationText) + "true"},
        RefusalCase{"VpnTooBig", Cpe(R"("vpnid": 4294967296)"),
                    "vpnid: expected a number from 0 to 4294967295, not 4294967296"},
        RefusalCase{"VpnBeyond64Bits", Cpe(R"("vpnid": 18446744073709551615)"),
                    "vpnid: expected a number from 0 to 4294967295, not 18446744073709551615"},
        RefusalCase{
            "PreferenceNegative",
            Cpe(R"("dnsmxhost": [{"targetdomain": "a.example", "sourcedomain": "b.example", "preference": -5}])"),
            "dnsmxhost[0].preference: expected a number from 0 to 4294967295, not -5"},
        RefusalCase{"VpnText", Cpe(R"("vpnid": "7")"), R"(vpnid: expected a number from 0 to 4294967295, not "7")"},
    };
}
INSTANTIATE_TEST_SUITE_P(Value, RefusedMessage, testing::ValuesIn(ValueCases()), CaseName);

// The refusal shows whether the file was read as a CPE message or as a POP message.
std::vector<RefusalCase> PlatformCases()
{
    return {
        RefusalCase{"DnsWithVpn", R"({"enable": true, "dns": [], "vpnid": 7})", "dns: unknown key"},
        RefusalCase{"LocalIpWithOperation", R"({"enable": true, "operation": 1, "localip": "10.0.0.1"})",
                    "localip: unknown key"},
        RefusalCase{"LocalIpWithHosts", R"({"enable": true, "localip": "10.0.0.1", "dnshosts": []})",
                    "localip: unknown key"},
        RefusalCase{"OnlyCommonKeys", R"({"enable": true, "persistentflag": true})", "operation: is missing"},
        RefusalCase{"UnknownKeyOnPop", R"({"enable": true, "localip": "10.0.0.1", "colour": 1})",
                    "colour: unknown key"},
    };
}
INSTANTIATE_TEST_SUITE_P(Platform, RefusedMessage, testing::ValuesIn(PlatformCases()), CaseName);

TEST(CpeMessage, SmallestHasOnlyTheRequiredFields)
{
    const CpePtr conf = DecodeCpe(EncodeJson(R"({"enable": false, "operation": "reboot"})", MessageFor::kBox));
    ASSERT_TRUE(conf);
    EXPECT_EQ(conf->enable, 0);
    EXPECT_EQ(conf->operation, 1U);
    EXPECT_EQ(conf->has_vpnid, 0);
    EXPECT_EQ(conf->has_persistentflag, 0);
    EXPECT_EQ(conf->has_historypersistent, 0);
    EXPECT_EQ(conf->n_dnshosts + conf->n_dnsservers + conf->n_dnsmxhost + conf->n_dnsproxies, 0U);
}

TEST(CpeMessage, AcceptsOperationByNameOrNumber)
{
    EXPECT_EQ(DecodeCpe(EncodeJson(R"({"enable": true, "operation": "reload"})", MessageFor::kBox))->operation, 0U);
    EXPECT_EQ(DecodeCpe(EncodeJson(R"({"enable": true, "operation": 0})", MessageFor::kBox))->operation, 0U);
    EXPECT_EQ(DecodeCpe(EncodeJson(R"({"enable": true, "operation": 4294967295})", MessageFor::kBox))->operation,
              4294967295U);
}

TEST(CpeMessage, CarriesEveryOptionalField)
{
    const CpePtr conf = DecodeCpe(EncodeJson(Cpe(R"(
        "vpnid": 4294967295, "persistentflag": false, "historypersistent": true,
        "dnshosts": [{"domain": "a.example", "ip": "255.255.255.255", "ipv6": "2001:db8::1"}],
        "dnsproxies": [{"domains": ["a.example", "b.example"], "serverips": ["10.0.0.1", "0.0.0.0"],
                        "serveripv6s": ["::1", "fe80::2"]}])"),
                                             MessageFor::kVpn));
    ASSERT_TRUE(conf);
    EXPECT_EQ(conf->vpnid, 4294967295U);
    EXPECT_TRUE(conf->has_persistentflag != 0 && conf->persistentflag == 0);
    EXPECT_TRUE(conf->has_historypersistent != 0 && conf->historypersistent == 1);
    ASSERT_EQ(conf->n_dnshosts, 1U);
    EXPECT_EQ(conf->dnshosts[0]->ip, 4294967295U);
    ASSERT_EQ(conf->dnshosts[0]->has_ipv6, 1);
    EXPECT_EQ(Ipv6Text(conf->dnshosts[0]->ipv6), "2001:db8::1");
    ASSERT_EQ(conf->n_dnsproxies, 1U);
    const DnsProxyItemV2 &proxy = *conf->dnsproxies[0];
    ASSERT_EQ(proxy.n_domains, 2U);
    EXPECT_STREQ(proxy.domains[1], "b.example");
    ASSERT_EQ(proxy.n_serverips, 2U);
    EXPECT_EQ(proxy.serverips[0], 0x0A000001U);
    EXPECT_EQ(proxy.serverips[1], 0U);
    ASSERT_EQ(proxy.n_serveripv6s, 2U);
    EXPECT_EQ(Ipv6Text(proxy.serveripv6s[1]), "fe80::2");
}

TEST(CpeMessage, DoesNotCheckTheModulesLimits)
{
    std::string hosts = R"({"domain": "not a domain", "ip": "0.0.0.0"})";
    for (int i = 0; i < 1024; ++i) {
        hosts += R"(, {"domain": "", "ip": "10.0.0.1"})";
    }
    const CpePtr conf = DecodeCpe(EncodeJson(Cpe(R"("dnshosts": [)" + hosts + "]"), MessageFor::kBox));
    ASSERT_TRUE(conf);
    ASSERT_EQ(conf->n_dnshosts, 1025U);
    EXPECT_STREQ(conf->dnshosts[0]->domain, "not a domain");
    EXPECT_STREQ(conf->dnshosts[1024]->domain, "");
}

TEST(CpeMessage, NamesItsVpnOrIsForTheBox)
{
    const auto refusal = [](const std::string &text, MessageFor target) {
        try {
            EncodeJson(text, target);
        } catch (const InputError &error) {
            return std::string(error.what());
        }
        return std::string("accepted");
    };
    const std::string none = R"({"enable": false, "operation": "reload"})";
    EXPECT_EQ(refusal(none, MessageFor::kVpn), "vpnid: is missing; give --box if the message is for the box itself");
    EXPECT_EQ(refusal(none, MessageFor::kBox), "accepted");
    EXPECT_EQ(refusal(Cpe(R"("vpnid": 0)"), MessageFor::kVpn), "accepted");
    EXPECT_EQ(refusal(Cpe(R"("vpnid": 0)"), MessageFor::kBox), "accepted");
    EXPECT_EQ(refusal(Cpe(R"("vpnid": 7)"), MessageFor::kVpn), "accepted");
    EXPECT_EQ(refusal(Cpe(R"("vpnid": 7)"), MessageFor::kBox), "vpnid: is 7, but --box is given: the box itself is 0");
    EXPECT_EQ(refusal(R"({"enable": false, "localip": "10.0.0.1"})", MessageFor::kVpn), "accepted");
}

std::vector<std::string> AllErrors(const std::string &text)
{
    std::vector<std::string> errors;
    const auto encoded = EncodeJson(text, MessageFor::kVpn, [&](const std::string &error) { errors.push_back(error); });
    EXPECT_EQ(encoded.has_value(), errors.empty());
    return errors;
}

TEST(AllErrorsOfAMessage, AreGivenInTheirOrder)
{
    const std::vector<std::string> expected = {
        R"(line 6, column 36: key "ip" is there twice)",
        R"(enable: expected true or false, not "yes")",
        R"(dnshosts[0].ip: "10.0.0" is not an IPv4 address)",
        R"(dnshosts[1]: expected an object, not 5)",
        R"(dnshosts[2].domain: is missing)",
        R"(dnsproxies[0].domains[1]: expected a string, not 5)",
        R"(dnsproxies[0].serverips: expected an array, not null)",
        R"(VPNID: unknown key; did you mean "vpnid"?)",
        R"(operation: is missing)",
        R"(vpnid: is missing; give --box if the message is for the box itself)",
    };
    EXPECT_EQ(AllErrors(R"({
        "enable": "yes",
        "dnshosts": [
            {"domain": "a.example", "ip": "10.0.0"},
            5,
            {"ip": "10.0.0.1",     "ip": "10.0.0.2"}
        ],
        "dnsproxies": [{"domains": ["a.example", 5], "serverips": null}],
        "VPNID": 7
    })"),
              expected);
}

TEST(AllErrorsOfAMessage, EndWithASyntaxError)
{
    EXPECT_EQ(AllErrors(R"({"enable": 1, "operation" 2})"),
              std::vector<std::string>{"line 1, column 27: object property name separator ':' expected"});
    EXPECT_EQ(AllErrors("[]"), std::vector<std::string>{"expected an object, not an array"});
}

TEST(AllErrorsOfAMessage, AreNoneForAGoodOne)
{
    EXPECT_EQ(AllErrors(Cpe(R"("vpnid": 7)")), std::vector<std::string>{});
    EXPECT_EQ(AllErrors(R"({"enable": false, "localip": "10.0.0.1"})"), std::vector<std::string>{});
}

TEST(CpeMessage, SummaryListsTheCounts)
{
    EXPECT_EQ(EncodeExample("branch-office.json").summary,
              "CPE message for vpn 7: enabled, reboot, 3 hosts, 1 mx, 2 servers, 1 proxy item");
    EXPECT_EQ(EncodeExample("pop.json").summary, "POP message: enabled, 1 server");
}

TEST(PopMessage, CarriesEveryField)
{
    const PopPtr conf =
        DecodePop(EncodeJson(R"({"enable": false, "localip": "10.88.0.1", "dns": ["10.0.0.1", "10.0.0.2"],
        "persistentflag": true, "historypersistent": false, "dnsipv6": ["2001:db8::53"], "localipv6": "::1"})",
                             MessageFor::kVpn));
    ASSERT_TRUE(conf);
    EXPECT_EQ(conf->enable, 0);
    EXPECT_EQ(conf->localip, Ip("10.88.0.1"));
    ASSERT_EQ(conf->n_dns, 2U);
    EXPECT_EQ(conf->dns[1], Ip("10.0.0.2"));
    EXPECT_TRUE(conf->has_persistentflag != 0 && conf->persistentflag == 1);
    EXPECT_TRUE(conf->has_historypersistent != 0 && conf->historypersistent == 0);
    ASSERT_EQ(conf->n_dnsipv6, 1U);
    EXPECT_EQ(Ipv6Text(conf->dnsipv6[0]), "2001:db8::53");
    ASSERT_EQ(conf->has_localipv6, 1);
    EXPECT_EQ(Ipv6Text(conf->localipv6), "::1");
}

void ExpectBranchOffice(const DnsmasqConf &conf, std::uint32_t operation, const char *nas)
{
    EXPECT_EQ(conf.enable, 1);
    EXPECT_EQ(conf.operation, operation);
    EXPECT_EQ(conf.vpnid, 7U);
    EXPECT_EQ(conf.persistentflag, 1);
    ASSERT_EQ(conf.n_dnshosts, 3U);
    EXPECT_STREQ(conf.dnshosts[0]->domain, "nas.branch.example");
    EXPECT_EQ(conf.dnshosts[0]->ip, Ip(nas));
    EXPECT_STREQ(conf.dnshosts[1]->domain, "printer.branch.example");
    EXPECT_EQ(conf.dnshosts[1]->ip, Ip("192.168.7.20"));
    EXPECT_STREQ(conf.dnshosts[2]->domain, "intranet.branch.example");
    EXPECT_EQ(conf.dnshosts[2]->ip, Ip("192.168.7.30"));
    ASSERT_EQ(conf.n_dnsmxhost, 1U);
    EXPECT_STREQ(conf.dnsmxhost[0]->sourcedomain, "branch.example");
    EXPECT_STREQ(conf.dnsmxhost[0]->targetdomain, "mail.branch.example");
    EXPECT_EQ(conf.dnsmxhost[0]->preference, 10U);
    ASSERT_EQ(conf.n_dnsservers, 2U);
    EXPECT_EQ(conf.dnsservers[0]->dnsserver, Ip("10.7.0.53"));
    EXPECT_EQ(conf.dnsservers[0]->ifname, nullptr);
    EXPECT_EQ(conf.dnsservers[1]->dnsserver, Ip("203.0.113.53"));
    EXPECT_STREQ(conf.dnsservers[1]->ifname, "wan0");
    ASSERT_EQ(conf.n_dnsproxies, 1U);
    ASSERT_EQ(conf.dnsproxies[0]->n_domains, 1U);
    EXPECT_STREQ(conf.dnsproxies[0]->domains[0], "corp.example");
    ASSERT_EQ(conf.dnsproxies[0]->n_serverips, 1U);
    EXPECT_EQ(conf.dnsproxies[0]->serverips[0], Ip("10.7.0.54"));
}

TEST(Example, BranchOffice)
{
    const CpePtr conf = DecodeCpe(EncodeExample("branch-office.json"));
    ASSERT_TRUE(conf);
    ExpectBranchOffice(*conf, 1, "192.168.7.10");
}

TEST(Example, BranchOfficeChange)
{
    const CpePtr conf = DecodeCpe(EncodeExample("branch-office-change.json"));
    ASSERT_TRUE(conf);
    ExpectBranchOffice(*conf, 0, "192.168.7.11");
}

TEST(Example, BranchOfficeOff)
{
    const CpePtr conf = DecodeCpe(EncodeExample("branch-office-off.json"));
    ASSERT_TRUE(conf);
    EXPECT_EQ(conf->enable, 0);
    EXPECT_EQ(conf->vpnid, 7U);
    EXPECT_EQ(conf->persistentflag, 1);
    EXPECT_EQ(conf->n_dnshosts + conf->n_dnsservers + conf->n_dnsmxhost + conf->n_dnsproxies, 0U);
}

TEST(Example, Pop)
{
    const PopPtr conf = DecodePop(EncodeExample("pop.json"));
    ASSERT_TRUE(conf);
    EXPECT_EQ(conf->enable, 1);
    ASSERT_EQ(conf->n_dns, 1U);
    EXPECT_EQ(conf->dns[0], Ip("10.9.0.53"));
    EXPECT_EQ(conf->localip, Ip("10.88.0.1"));
    EXPECT_EQ(conf->has_persistentflag, 0);
}

TEST(Example, PopOff)
{
    const PopPtr conf = DecodePop(EncodeExample("pop-off.json"));
    ASSERT_TRUE(conf);
    EXPECT_EQ(conf->enable, 0);
    EXPECT_EQ(conf->n_dns, 0U);
    EXPECT_EQ(conf->localip, Ip("10.88.0.1"));
}

} // namespace
} // namespace kavel::ctl
