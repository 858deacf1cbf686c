// The agent's configuration file: what is accepted, the defaults, and one line for every kind of refusal.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/config.h"

namespace {

using kavel::LogLevel;
using kavel::agent::Config;
using kavel::agent::ConfigError;
using kavel::agent::ParseConfig;
using kavel::agent::Platform;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// The message of the ConfigError, or a text that no test expects.
std::string Refusal(const std::string &Text)
{
    try {
        ParseConfig(Text);
    } catch (const ConfigError &Error) {
        return Error.what();
    }
    return "(accepted)";
}

// The refusal of a configuration that is valid without `Members`.
std::string RefusalOf(const std::string &Members)
{
    return Refusal(R"({"platform": "cpe", )" + Members + "}");
}

// The refusal of a VPN that is valid without `Members`.
std::string RefusalOfVpn(const std::string &Members)
{
    return RefusalOf(R"("vpns": [{"id": 7, )" + Members + "}]");
}

TEST(Configuration, TakesEveryKey)
{
    const Config Conf = ParseConfig(R"({
        "platform": "pop", "customer": 4294967295, "persistence": true, "store": "/data/agent.db",
        "socket": "/data/agent.sock", "readers": "adm", "users": [{"name": "link", "may": ["status", "apply"]}, {"name": "a-b.c_d", "may": ["apply"]}],
        "log": "debug", "lan": ["eth0", "br-*"], "wan": ["ppp*", "eth1"],
        "c2p": ["wg*"],
        "vpns": [{"id": 7, "customer": 1007, "namespace": "blue", "lan": ["lan0", "lan1"],
                  "wan": [{"name": "wan0", "sysRoute": true}, {"name": "wan1"}]}]})");
    EXPECT_EQ(Conf.platform, Platform::kPop);
    EXPECT_EQ(Conf.customer, 4294967295U);
    EXPECT_TRUE(Conf.persistence);
    EXPECT_EQ(Conf.store, "/data/agent.db");
    EXPECT_EQ(Conf.socket, "/data/agent.sock");
    EXPECT_EQ(Conf.readers, "adm");
    EXPECT_THAT(Conf.users, ElementsAre(kavel::agent::SocketUser{"link", true, true, "users[0]"},
                                        kavel::agent::SocketUser{"a-b.c_d", true, false, "users[1]"}));
    EXPECT_EQ(Conf.log, LogLevel::kDebug);
    EXPECT_THAT(Conf.lan, ElementsAre("eth0", "br-*"));
    EXPECT_THAT(Conf.wan, ElementsAre("ppp*", "eth1"));
    EXPECT_THAT(Conf.c2p, ElementsAre("wg*"));
    ASSERT_EQ(Conf.vpns.size(), 1U);
    const kavel::agent::Vpn &Vpn = Conf.vpns[0];
    EXPECT_EQ(Vpn.id, 7U);
    EXPECT_EQ(Vpn.customer, 1007U);
    EXPECT_EQ(Vpn.netns, "blue");
    EXPECT_EQ(Vpn.path, "vpns[0]");
    EXPECT_THAT(Vpn.lan, ElementsAre("lan0", "lan1"));
    ASSERT_EQ(Vpn.wan.size(), 2U);
    EXPECT_EQ(Vpn.wan[0].name, "wan0");
    EXPECT_TRUE(Vpn.wan[0].sysRoute);
    EXPECT_EQ(Vpn.wan[1].name, "wan1");
    EXPECT_FALSE(Vpn.wan[1].sysRoute);
}

TEST(Configuration, HasDefaultsForEverythingButThePlatform)
{
    const Config Conf = ParseConfig(R"({"platform": "cpe"})");
    EXPECT_EQ(Conf.platform, Platform::kCpe);
    EXPECT_EQ(Conf.customer, 0U);
    EXPECT_FALSE(Conf.persistence);
    EXPECT_EQ(Conf.store, "/var/lib/kavel/agent.db");
    EXPECT_EQ(Conf.socket, "/run/kavel/agent.sock");
    EXPECT_EQ(Conf.log, LogLevel::kNotice);
    EXPECT_THAT(Conf.lan, IsEmpty());
    EXPECT_THAT(Conf.wan, IsEmpty());
    EXPECT_THAT(Conf.c2p, IsEmpty());
    EXPECT_THAT(Conf.vpns, IsEmpty());
}

TEST(Configuration, HasDefaultsForTheWatch)
{
    for (const char *Text : {R"({"platform": "cpe"})", R"({"platform": "cpe", "watch": {}})"}) {
        const kavel::agent::Watch Watch = ParseConfig(Text).watch;
        EXPECT_TRUE(Watch.repair);
        EXPECT_EQ(Watch.udpSeconds, 10U);
        EXPECT_EQ(Watch.tcpSeconds, 60U);
        EXPECT_EQ(Watch.upstreamSeconds, 60U);
        EXPECT_EQ(Watch.lookSeconds, 30U);
        EXPECT_EQ(Watch.memoryMiB, 512U);
    }
}

TEST(Configuration, TakesEveryKeyOfTheWatch)
{
    const kavel::agent::Watch Watch = ParseConfig(R"({"platform": "cpe", "watch": {
        "repair": false, "udpSeconds": 1, "tcpSeconds": 2, "upstreamSeconds": 86400, "lookSeconds": 3,
        "memoryMiB": 8}})")
                                          .watch;
    EXPECT_FALSE(Watch.repair);
    EXPECT_EQ(Watch.udpSeconds, 1U);
    EXPECT_EQ(Watch.tcpSeconds, 2U);
    EXPECT_EQ(Watch.upstreamSeconds, 86400U);
    EXPECT_EQ(Watch.lookSeconds, 3U);
    EXPECT_EQ(Watch.memoryMiB, 8U);
}

TEST(Configuration, RefusesBadValuesOfTheWatch)
{
    for (const char *Key : {"udpSeconds", "tcpSeconds", "upstreamSeconds", "lookSeconds"}) {
        const std::string Name = std::string("watch.") + Key;
        const auto Of = [Key](const std::string &Value) {
            return RefusalOf(R"("watch": {")" + std::string(Key) + R"(": )" + Value + "}");
        };
        EXPECT_EQ(Of("86401"), Name + ": 86401 is more than 86400 seconds");
        EXPECT_EQ(Of("0"), Name + ": expected a number from 1 to 4294967295, not 0");
        EXPECT_EQ(Of("-1"), Name + ": expected a number from 1 to 4294967295, not -1");
        EXPECT_THAT(Of("\"10\""), StartsWith(Name + ": "));
    }
    EXPECT_THAT(RefusalOf(R"("watch": {"memoryMiB": 7})"), StartsWith("watch.memoryMiB: expected a number from 8 to "));
    EXPECT_THAT(RefusalOf(R"("watch": {"repair": 1})"), StartsWith("watch.repair: "));
    EXPECT_THAT(RefusalOf(R"("watch": {"seconds": 1})"), StartsWith("watch.seconds: "));
    EXPECT_THAT(RefusalOf(R"("watch": 1)"), StartsWith("watch: "));
}

TEST(Configuration, TellsWhichKeyNeedsARestart)
{
    const Config Base = ParseConfig(R"({"platform": "cpe"})");
    const auto Differs = [&Base](const std::string &Text) { return Base.FixedKeyThatDiffers(ParseConfig(Text)); };
    EXPECT_EQ(Differs(R"({"platform": "cpe", "log": "debug", "lan": ["a"], "vpns": [{"id": 7}],
                          "watch": {"repair": false}})"),
              std::nullopt);
    EXPECT_EQ(Differs(R"({"platform": "pop"})"), "platform");
    EXPECT_EQ(Differs(R"({"platform": "cpe", "persistence": true})"), "persistence");
    EXPECT_EQ(Differs(R"({"platform": "cpe", "store": "/other"})"), "store");
    EXPECT_EQ(Differs(R"({"platform": "cpe", "socket": "/other"})"), "socket");
    EXPECT_EQ(Differs(R"({"platform": "cpe", "readers": "adm"})"), "readers");
    EXPECT_EQ(Differs(R"({"platform": "cpe", "users": [{"name": "a", "may": ["apply"]}]})"), "users");
}

TEST(Configuration, RefusesBadUsers)
{
    const auto Of = [](const std::string &Users) { return RefusalOf(R"("users": )" + Users); };
    EXPECT_EQ(Of(R"([{"may": ["apply"]}])"), "users[0].name: is missing");
    EXPECT_EQ(Of(R"([{"name": "a"}])"), "users[0].may: is missing");
    EXPECT_EQ(Of(R"([{"name": "a", "may": []}])"), "users[0].may: is empty");
    EXPECT_EQ(Of(R"([{"name": "a", "may": "apply"}])"), "users[0].may: expected an array, not \"apply\"");
    EXPECT_EQ(Of(R"([{"name": "a", "may": ["status", "repair"]}])"),
              "users[0].may[1]: expected \"apply\" or \"status\", not \"repair\"");
    EXPECT_EQ(Of(R"([{"name": "a", "may": ["apply", "apply"]}])"), "users[0].may[1]: \"apply\" is there twice");
    EXPECT_EQ(Of(R"([{"name": "a", "may": ["apply"]}, {"name": "a", "may": ["status"]}])"),
              "users[1].name: \"a\" is there twice");
    for (const char *Name : {"", "-a", "a b", "a:b", "a/b", "abcdefghijklmnopqrstuvwxyz1234567"}) {
        EXPECT_EQ(Of(R"([{"name": ")" + std::string(Name) + R"(", "may": ["apply"]}])"),
                  "users[0].name: \"" + std::string(Name) + "\" is not the name of a user");
    }
    EXPECT_EQ(Of(R"([{"name": 0, "may": ["apply"]}])"), "users[0].name: expected the name of a user, not 0");
    EXPECT_THAT(Of(R"([{"name": "a", "may": ["apply"], "x": 1}])"), StartsWith("users[0].x: "));
    EXPECT_EQ(RefusalOf(R"("readers": "a b")"), "readers: \"a b\" is not the name of a group");
}

TEST(Configuration, TellsWhetherAVpnHasTheSameInterfaces)
{
    const auto Of = [](const std::string &Members) {
        return ParseConfig(R"({"platform": "cpe", "vpns": [{"id": 7)" + Members + "}]}").vpns[0];
    };
    const kavel::agent::Vpn Base = Of(R"(, "lan": ["a"], "wan": [{"name": "b"}])");
    EXPECT_TRUE(Base.HasSameInterfaces(Of(R"(, "lan": ["a"], "wan": [{"name": "b", "sysRoute": false}])")));
    for (const char *Other : {R"(, "lan": ["a"])", R"(, "wan": [{"name": "b"}])",
                              R"(, "lan": ["a"], "wan": [{"name": "b", "sysRoute": true}])",
                              R"(, "lan": ["a"], "wan": [{"name": "b"}], "customer": 1)",
                              R"(, "lan": ["a"], "wan": [{"name": "b"}], "namespace": "n")"}) {
        EXPECT_FALSE(Base.HasSameInterfaces(Of(Other))) << Other;
    }
}

TEST(Configuration, NamesTheNamespaceOfAVpnAfterItsId)
{
    const Config Conf = ParseConfig(R"({"platform": "cpe", "vpns": [{"id": 4294967295}]})");
    ASSERT_EQ(Conf.vpns.size(), 1U);
    EXPECT_EQ(Conf.vpns[0].netns, "vpn_4294967295");
    EXPECT_FALSE(Conf.vpns[0].customer.has_value());
    EXPECT_THAT(Conf.vpns[0].lan, IsEmpty());
    EXPECT_THAT(Conf.vpns[0].wan, IsEmpty());
}

TEST(Configuration, SortsTheVpnsAndFindsThemById)
{
    const Config Conf = ParseConfig(R"({"platform": "cpe", "vpns": [{"id": 9}, {"id": 2}, {"id": 7}]})");
    std::vector<std::string> Paths;
    for (const kavel::agent::Vpn &Vpn : Conf.vpns) {
        Paths.push_back(Vpn.path);
        EXPECT_EQ(Conf.Find(Vpn.id), &Vpn);
        EXPECT_TRUE(Conf.Serves(Vpn.id));
    }
    EXPECT_THAT(Paths, ElementsAre("vpns[1]", "vpns[2]", "vpns[0]"));
    EXPECT_EQ(Conf.Find(8), nullptr);
    EXPECT_FALSE(Conf.Serves(8));
    EXPECT_EQ(Conf.Find(0), nullptr);
    EXPECT_TRUE(Conf.Serves(0)) << "the box itself";
}

TEST(Configuration, AcceptsTheLimitsOfNames)
{
    const std::string Interface(15, 'i');
    const std::string Namespace(255, 'n');
    const std::string Socket = "/" + std::string(106, 's');
    const Config Conf =
        ParseConfig(R"({"platform": "cpe", "socket": ")" + Socket + R"(", "lan": ["_.@:-", ")" + Interface +
                    R"(", "iiiiiiiiiiiiii*"], "vpns": [{"id": 1, "namespace": ")" + Namespace + R"("}]})");
    EXPECT_EQ(Conf.socket, Socket);
    EXPECT_THAT(Conf.lan, ElementsAre("_.@:-", Interface, "iiiiiiiiiiiiii*"));
    EXPECT_EQ(Conf.vpns.at(0).netns, Namespace);
}

TEST(Configuration, RefusesTextThatIsNotJsonWithItsPosition)
{
    EXPECT_EQ(Refusal(""), "line 1, column 1: unexpected end of file");
    EXPECT_EQ(Refusal("{\"platform\":\n  \"cpe\""), "line 2, column 8: unexpected end of file");
    EXPECT_EQ(Refusal("{\n\"platform\" \"cpe\"}"), "line 2, column 12: object property name separator ':' expected");
    EXPECT_EQ(Refusal("{\"platform\": \"cpe\"}\nmore"), "line 2, column 1: unexpected text after the value");
    EXPECT_EQ(Refusal(std::string("{\"platform\": \"cpe\"}\0more", 24)), "line 1, column 20: NUL character");
    EXPECT_EQ(Refusal("{\"platform\": \"\xff\"}"), "line 1, column 15: invalid utf-8 string");
}

TEST(Configuration, RefusesAWrongTypeWithItsPath)
{
    EXPECT_EQ(Refusal("[]"), "expected an object, not an array");
    EXPECT_EQ(Refusal("null"), "expected an object, not null");
    EXPECT_EQ(RefusalOf(R"("store": 1)"), "store: expected an absolute path, not 1");
    EXPECT_EQ(RefusalOf(R"("persistence": "yes")"), R"(persistence: expected true or false, not "yes")");
    EXPECT_EQ(RefusalOf(R"("lan": "eth0")"), R"(lan: expected an array, not "eth0")");
    EXPECT_EQ(RefusalOf(R"("wan": [{"name": "w"}])"), "wan[0]: expected a string, not an object");
    EXPECT_EQ(RefusalOf(R"("c2p": ["wg0", null])"), "c2p[1]: expected a string, not null");
    EXPECT_EQ(RefusalOf(R"("vpns": {})"), "vpns: expected an array, not an object");
    EXPECT_EQ(RefusalOf(R"("vpns": [7])"), "vpns[0]: expected an object, not 7");
    EXPECT_EQ(RefusalOfVpn(R"("wan": [{"name": "w"}, "w"])"), R"(vpns[0].wan[1]: expected an object, not "w")");
    EXPECT_EQ(RefusalOfVpn(R"("wan": [{"name": "w", "sysRoute": 1}])"),
              "vpns[0].wan[0].sysRoute: expected true or false, not 1");
}

TEST(Configuration, RefusesANumberOutsideItsRange)
{
    const std::string Customer = "expected a number from 0 to 4294967295, not ";
    const std::string Id = "expected a number from 1 to 4294967295, not ";
    for (const char *Bad : {"-1", "4294967296", "1.5", "\"5\"", "null"}) {
        EXPECT_EQ(RefusalOf(std::string(R"("customer": )") + Bad), "customer: " + Customer + Bad);
        EXPECT_EQ(RefusalOfVpn(std::string(R"("customer": )") + Bad), "vpns[0].customer: " + Customer + Bad);
    }
    // json-c reads a larger number as the largest one that it can hold.
    EXPECT_EQ(RefusalOf(R"("customer": 99999999999999999999)"), "customer: " + Customer + "18446744073709551615");
    for (const char *Bad : {"0", "-1", "4294967296", "1.0", "true"}) {
        EXPECT_EQ(RefusalOf(std::string(R"("vpns": [{"id": )") + Bad + "}]"), "vpns[0].id: " + Id + Bad);
    }
}

TEST(Configuration, RefusesAnUnknownKeyWithItsPath)
{
    EXPECT_EQ(RefusalOf(R"("persistance": true)"), "persistance: unknown key; did you mean \"persistence\"?");
    EXPECT_EQ(RefusalOfVpn(R"("name": "x")"), "vpns[0].name: unknown key; did you mean \"namespace\"?");
    EXPECT_EQ(RefusalOfVpn(R"("wan": [{"name": "w", "mtu": 1500}])"), "vpns[0].wan[0].mtu: unknown key");
    EXPECT_EQ(RefusalOf(R"("": 1)"), "\"\": unknown key");
}

TEST(Configuration, RefusesAMissingKeyWithItsPath)
{
    EXPECT_EQ(Refusal("{}"), "platform: is missing");
    EXPECT_EQ(RefusalOf(R"("vpns": [{"id": 1}, {"namespace": "x"}])"), "vpns[1].id: is missing");
    EXPECT_EQ(RefusalOfVpn(R"("wan": [{"sysRoute": true}])"), "vpns[0].wan[0].name: is missing");
}

TEST(Configuration, RefusesAnUnknownWord)
{
    EXPECT_EQ(Refusal(R"({"platform": "router"})"), R"(platform: expected "cpe" or "pop", not "router")");
    EXPECT_EQ(RefusalOf(R"("log": "info")"), R"(log: expected "error", "warning", "notice" or "debug", not "info")");
}

TEST(Configuration, RefusesAnInterfaceNameThatIsNotSafeInAPathOrARule)
{
    for (const std::string Bad : {"", "sixteen_letters_", ".", "..", "a/b", "a b", "a;b", "eth*"}) {
        const std::string Expected = "\"" + Bad + "\" is not an interface name";
        EXPECT_EQ(RefusalOfVpn(R"("lan": [")" + Bad + "\"]"), "vpns[0].lan[0]: " + Expected);
        EXPECT_EQ(RefusalOfVpn(R"("wan": [{"name": ")" + Bad + "\"}]"), "vpns[0].wan[0].name: " + Expected);
    }
}

TEST(Configuration, RefusesAnInterfacePatternThatIsNeitherANameNorAPrefix)
{
    for (const std::string Bad : {"", "*", "**", "a*b", "..*", "fifteen_letters*"}) {
        const std::string Expected = "\"" + Bad + "\" is neither an interface name nor a prefix that ends in *";
        EXPECT_EQ(RefusalOf(R"("lan": [")" + Bad + "\"]"), "lan[0]: " + Expected);
        EXPECT_EQ(RefusalOf(R"("wan": [")" + Bad + "\"]"), "wan[0]: " + Expected);
        EXPECT_EQ(RefusalOf(R"("c2p": ["wg0", ")" + Bad + "\"]"), "c2p[1]: " + Expected);
    }
}

TEST(Configuration, RefusesANamespaceNameThatIsNotSafeInAPathOrACommand)
{
    EXPECT_EQ(RefusalOfVpn(R"("namespace": ")" + std::string(256, 'n') + "\""),
              "vpns[0].namespace: \"" + std::string(63, 'n') + "... is not a namespace name");
    for (const std::string Bad : {"", "-a", ".a", "a/b", "a;b", "a:b"}) {
        EXPECT_EQ(RefusalOfVpn(R"("namespace": ")" + Bad + "\""),
                  "vpns[0].namespace: \"" + Bad + "\" is not a namespace name");
    }
}

TEST(Configuration, RefusesARelativeOrTooLongPath)
{
    EXPECT_EQ(RefusalOf(R"("store": "agent.db")"), R"(store: expected an absolute path, not "agent.db")");
    EXPECT_EQ(RefusalOf(R"("store": "")"), R"(store: expected an absolute path, not "")");
    EXPECT_EQ(RefusalOf(R"("store": "/a\u0000b")"), R"(store: expected an absolute path, not "/a\u0000b")");
    EXPECT_EQ(RefusalOf(R"("socket": "agent.sock")"), R"(socket: expected an absolute path, not "agent.sock")");
    EXPECT_EQ(RefusalOf(R"("socket": "/)" + std::string(107, 's') + "\""), "socket: is longer than 107 bytes");
}

TEST(Configuration, RefusesTwoVpnsWithOneIdOrOneNamespace)
{
    EXPECT_EQ(RefusalOf(R"("vpns": [{"id": 7}, {"id": 8}, {"id": 7}])"), "vpns[2].id: 7 is configured twice");
    EXPECT_EQ(RefusalOf(R"("vpns": [{"id": 7}, {"id": 8, "namespace": "vpn_7"}])"),
              "vpns[1].namespace: \"vpn_7\" belongs to another VPN already");
}

TEST(Configuration, RefusalIsOneLineWhateverTheFileContains)
{
    EXPECT_EQ(RefusalOf(R"("a\nb": 1)"), "a?b: unknown key");
    EXPECT_EQ(RefusalOfVpn(R"("lan": ["a\u001bb"])"), R"(vpns[0].lan[0]: "a\u001bb" is not an interface name)");
}

TEST(Configuration, RefusesAFileThatCannotBeRead)
{
    try {
        kavel::agent::LoadConfig("/nonexistent/agent.json");
        FAIL() << "accepted";
    } catch (const ConfigError &Error) {
        EXPECT_STREQ(Error.what(), "cannot be read: No such file or directory");
    }
}

TEST(Configuration, LoadsTheExamples)
{
    const Config Cpe = kavel::agent::LoadConfig(KAVEL_EXAMPLES "/agent-cpe.json");
    EXPECT_EQ(Cpe.platform, Platform::kCpe);
    ASSERT_NE(Cpe.Find(7), nullptr);
    EXPECT_THAT(Cpe.Find(7)->lan, ElementsAre("lan0", "lan1"));
    EXPECT_EQ(kavel::agent::LoadConfig(KAVEL_EXAMPLES "/agent-pop.json").platform, Platform::kPop);
}

} // namespace
