#include "instances/query_way.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace kavel::agent {
namespace {

using Steps = std::vector<std::string>;

const std::vector<QueryFile> kQueryFiles = {
    {"/d/hosts", {"192.0.2.1 one.example", "192.0.2.2 two.example TWO", "2001:db8::2 two.example"}},
    {"/d/resolv.conf", {"# comment", "nameserver 10.0.0.1", "nameserver 10.0.0.2"}},
    {"/d/dnsmasq.d/Mxhost.conf", {"mx-host=mail.example,mx.example,10", "mx-host=mail.example,mx2.example,20"}},
    {"/d/dnsmasq.d/ServerMap.conf", {"server=10.0.0.2@wan0"}},
    {"/d/dnsmasq.d/DnsProxy.conf",
     {"server=/corp.example/lab.example/10.0.0.3", "server=/b.example/10.0.0.3#53", "server=/corp.example/10.0.0.1"}},
};

Steps WayOf(const std::vector<std::string> &lines)
{
    std::vector<QueryLogLine> log;
    for (const std::string &line : lines) {
        log.push_back({"1 127.0.0.1/4711 " + line, std::chrono::milliseconds(12)});
    }
    return WayOfQuery(log, kQueryFiles);
}

TEST(WayOfQuery, NamesTheLineOfAHost)
{
    EXPECT_EQ(WayOf({"query[A] two.example from 127.0.0.1", "/d/hosts two.example is 192.0.2.2"}),
              Steps{"/d/hosts, line 2: 192.0.2.2 two.example TWO"});
    EXPECT_EQ(WayOf({"/d/hosts Two is 192.0.2.2"}), Steps{"/d/hosts, line 2: 192.0.2.2 two.example TWO"});
    EXPECT_EQ(WayOf({"/d/hosts 192.0.2.1 is one.example"}), Steps{"/d/hosts, line 1: 192.0.2.1 one.example"});
    EXPECT_EQ(WayOf({"/d/hosts one.example is 192.0.2.9"}), Steps{"/d/hosts one.example is 192.0.2.9"});
    EXPECT_EQ(WayOf({"/d/other one.example is 192.0.2.1"}), Steps{"/d/other one.example is 192.0.2.1"});
}

TEST(WayOfQuery, NamesTheLinesOfTheConfigurationOnce)
{
    const Steps lines = {"/d/dnsmasq.d/Mxhost.conf, line 1: mx-host=mail.example,mx.example,10",
                         "/d/dnsmasq.d/Mxhost.conf, line 2: mx-host=mail.example,mx2.example,20"};
    EXPECT_EQ(WayOf({"config mail.example is <MX>", "config mail.example is <MX>"}), lines);
    EXPECT_EQ(WayOf({"config other.example is NODATA-IPv4"}), Steps{"config other.example is NODATA-IPv4"});
}

TEST(WayOfQuery, NamesTheLineOfAForward)
{
    EXPECT_EQ(
        WayOf({"forwarded a.CORP.example to 10.0.0.3"}),
        Steps{"forwarded to 10.0.0.3 (/d/dnsmasq.d/DnsProxy.conf, line 1: server=/corp.example/lab.example/10.0.0.3)"});
    EXPECT_EQ(WayOf({"forwarded b.example to 10.0.0.3"}),
              Steps{"forwarded to 10.0.0.3 (/d/dnsmasq.d/DnsProxy.conf, line 2: server=/b.example/10.0.0.3#53)"});
    EXPECT_EQ(WayOf({"forwarded xb.example to 10.0.0.3"}), Steps{"forwarded to 10.0.0.3"});
}

TEST(WayOfQuery, NamesEachLineOfAnUpstreamServer)
{
    EXPECT_EQ(WayOf({"forwarded www.example to 10.0.0.2", "forwarded www.example to 10.0.0.1",
                     "forwarded www.example to 10.0.0.2", "forwarded www.example to 10.0.0.2"}),
              (Steps{"forwarded to 10.0.0.2 (/d/dnsmasq.d/ServerMap.conf, line 1: server=10.0.0.2@wan0)",
                     "forwarded to 10.0.0.1 (/d/resolv.conf, line 2: nameserver 10.0.0.1)",
                     "forwarded to 10.0.0.2 (/d/resolv.conf, line 3: nameserver 10.0.0.2)",
                     "forwarded to 10.0.0.2 (/d/resolv.conf, line 3: nameserver 10.0.0.2)"}));
}

TEST(WayOfQuery, SaysWhenAServerHasAnswered)
{
    EXPECT_EQ(WayOf({"reply www.example is <CNAME>", "reply other.example is 192.0.2.7", "reply error is SERVFAIL"}),
              (Steps{"answered after 12 ms: www.example is <CNAME>", "answered after 12 ms: other.example is 192.0.2.7",
                     "answered after 12 ms: SERVFAIL"}));
}

TEST(WayOfQuery, KeepsOtherLinesOfTheQueryAsTheyAre)
{
    EXPECT_EQ(WayOf({"nameserver 10.0.0.1 refused to do a recursive query\x1b"}),
              Steps{"nameserver 10.0.0.1 refused to do a recursive query?"});
    EXPECT_EQ(WayOfQuery({{"read /d/hosts - 3 names", {}}, {"", {}}, {"1 x", {}}, {"using nameserver 10.0.0.1#53", {}}},
                         kQueryFiles),
              Steps{});
}

} // namespace
} // namespace kavel::agent
