#include "instances/instance_servers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class InstanceServersTest : public testing::Test {
  protected:
    static constexpr std::size_t kMost = 64;

    void Write(const std::string &file, const std::string &content) const
    {
        box_.Write("/etc/kavel/dnsmasq/vpn_7/" + file, content);
    }

    std::vector<std::string> Upstreams() const
    {
        std::vector<std::string> names;
        for (const InstanceServer &server : UpstreamsOf(instances_, 7)) {
            EXPECT_FALSE(server.IsForward());
            names.push_back(server.Name());
        }
        return names;
    }

    std::vector<std::string> Forwards(std::size_t most = kMost) const
    {
        std::vector<std::string> names;
        for (const InstanceServer &server : ForwardServersOf(instances_, 7, most)) {
            EXPECT_TRUE(server.IsForward());
            names.push_back(server.domain + ": " + server.address);
        }
        return names;
    }

    TestBox box_;
    Instances instances_{box_.Root()};
};

TEST_F(InstanceServersTest, AVpnWithoutFilesHasNone)
{
    EXPECT_THAT(Upstreams(), IsEmpty());
    EXPECT_THAT(Forwards(), IsEmpty());
}

TEST_F(InstanceServersTest, AnUpstreamIsToldOnceAndWithItsInterface)
{
    Write("resolv.conf", "nameserver 10.7.0.53\nnameserver 203.0.113.53\nnameserver 10.7.0.53\n");
    Write("dnsmasq.d/ServerMap.conf", "server=203.0.113.53@wan0\n");
    EXPECT_THAT(Upstreams(), ElementsAre("10.7.0.53", "203.0.113.53 through wan0"));
}

TEST_F(InstanceServersTest, WhatIsNoAddressIsLeftOut)
{
    Write("resolv.conf", "nameserver somewhere\n# a comment\nnameserver 10.7.0.53\n");
    Write("dnsmasq.d/DnsProxy.conf", "server=/a.example/nowhere\nserver=10.1.1.1\nserver=/a.example\nother\n");
    EXPECT_THAT(Upstreams(), ElementsAre("10.7.0.53"));
    EXPECT_THAT(Forwards(), IsEmpty());
}

TEST_F(InstanceServersTest, AServerOfForwardsIsToldOnceWithItsFirstDomain)
{
    Write("dnsmasq.d/DnsProxy.conf",
          "server=/a.example/10.7.0.54\nserver=/b.example/10.7.0.54\nserver=/b.example/2001:db8::1\n");
    EXPECT_THAT(Forwards(), ElementsAre("a.example: 10.7.0.54", "b.example: 2001:db8::1"));
    EXPECT_THAT(Forwards(1), ElementsAre("a.example: 10.7.0.54"));
}

TEST_F(InstanceServersTest, ATargetHasTheAddressAndTheInterface)
{
    const DnsTarget ipv4 = InstanceServer{"10.7.0.53", "wan0", ""}.Target(7);
    EXPECT_EQ(ipv4.vpnId, 7U);
    EXPECT_EQ(ipv4.address, 0x0A070035U);
    EXPECT_FALSE(ipv4.address6.has_value());
    EXPECT_EQ(ipv4.interface, "wan0");
    EXPECT_FALSE(ipv4.isInstance);
    const DnsTarget ipv6 = InstanceServer{"::1", "", "a.example"}.Target(7);
    ASSERT_TRUE(ipv6.address6.has_value());
    EXPECT_EQ(ipv6.address6->s6_addr[15], 1);
}

} // namespace
} // namespace kavel::agent
