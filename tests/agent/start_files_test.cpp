#include "instances/start_files.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class StartFilesTest : public testing::Test {
  protected:
    StartFilesTest()
    {
        Write("dnsmasq.conf", "cache-size=1000\n");
        Write("dnsmasq.d/Mxhost.conf", "mx-host=a.example,b.example,10\n");
        Write("dnsmasq.d/DnsProxy.conf", "");
        std::filesystem::create_directories(box_.Path("/run/kavel"));
    }

    void Write(const std::string &file, const std::string &content) const
    {
        box_.Write("/etc/kavel/dnsmasq/vpn_7/" + file, content);
    }

    std::vector<std::string> Changed() const { return ChangedSinceStart(instances_, 7); }

    TestBox box_;
    Instances instances_{box_.Root()};
};

TEST_F(StartFilesTest, WithoutAStartNothingIsKnown)
{
    EXPECT_THAT(Changed(), IsEmpty());
}

TEST_F(StartFilesTest, AFileThatIsWrittenAgainHasNotChanged)
{
    RememberStartFiles(instances_, 7);
    Write("dnsmasq.d/Mxhost.conf", "mx-host=a.example,b.example,10\n");
    EXPECT_THAT(Changed(), IsEmpty());
}

TEST_F(StartFilesTest, ChangedAddedAndRemovedFilesAreTold)
{
    RememberStartFiles(instances_, 7);
    Write("dnsmasq.d/Mxhost.conf", "mx-host=a.example,b.example,20\n");
    Write("dnsmasq.d/own.conf", "log-queries\n");
    EXPECT_THAT(Changed(), UnorderedElementsAre("Mxhost.conf", "own.conf"));
    std::filesystem::remove(box_.Path("/etc/kavel/dnsmasq/vpn_7/dnsmasq.d/own.conf"));
    std::filesystem::remove(box_.Path("/etc/kavel/dnsmasq/vpn_7/dnsmasq.conf"));
    EXPECT_THAT(Changed(), UnorderedElementsAre("Mxhost.conf", "dnsmasq.conf"));
}

TEST_F(StartFilesTest, AFileThatIsFilledOrEmptiedHasChanged)
{
    RememberStartFiles(instances_, 7);
    Write("dnsmasq.d/DnsProxy.conf", "server=/a.example/10.0.0.1\n");
    EXPECT_THAT(Changed(), ElementsAre("DnsProxy.conf"));
    RememberStartFiles(instances_, 7);
    Write("dnsmasq.d/DnsProxy.conf", "");
    EXPECT_THAT(Changed(), ElementsAre("DnsProxy.conf"));
}

TEST_F(StartFilesTest, WhatDnsmasqDoesNotReadAtAStartDoesNotCount)
{
    RememberStartFiles(instances_, 7);
    Write("hosts", "10.0.0.1 a.example\n");
    Write("resolv.conf", "nameserver 10.0.0.1\n");
    Write("dnsmasq.d/notes.txt", "notes\n");
    EXPECT_THAT(Changed(), IsEmpty());
}

TEST_F(StartFilesTest, AnAgentThatForgetsKnowsNothing)
{
    RememberStartFiles(instances_, 7);
    Write("dnsmasq.conf", "cache-size=2000\n");
    ForgetStartFiles(instances_, 7);
    EXPECT_THAT(Changed(), IsEmpty());
}

} // namespace
} // namespace kavel::agent
