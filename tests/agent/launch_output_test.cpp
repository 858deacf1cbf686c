#include "services/launch_output.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>

namespace kavel::agent {
namespace {

constexpr std::uint32_t kVpn = 7;

class LaunchOutputTest : public testing::Test {
  protected:
    void Write(const std::string &text)
    {
        ASSERT_EQ(::write(output_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    LaunchOutputs outputs_;
    int output_ = outputs_.Begin(kVpn);
};

TEST_F(LaunchOutputTest, WithoutOutputThereIsNoReason)
{
    EXPECT_EQ(outputs_.Text(kVpn), "");
    EXPECT_EQ(outputs_.Reason(kVpn), "");
    EXPECT_FALSE(outputs_.HasFailed(kVpn));
    EXPECT_EQ(outputs_.Reason(kVpn + 1), "");
}

TEST_F(LaunchOutputTest, TheReasonIsWhatDnsmasqWroteLast)
{
    Write("sh: a warning\n\ndnsmasq: first\ndnsmasq: bad option at line 1 of /x\n\n");
    EXPECT_EQ(outputs_.Reason(kVpn), "dnsmasq: bad option at line 1 of /x");
    EXPECT_TRUE(outputs_.HasFailed(kVpn));
    EXPECT_EQ(outputs_.Text(kVpn), "sh: a warning\n\ndnsmasq: first\ndnsmasq: bad option at line 1 of /x");
}

TEST_F(LaunchOutputTest, WithoutDnsmasqTheReasonIsTheLastLine)
{
    Write("first\nnsenter: no such namespace\n");
    EXPECT_EQ(outputs_.Reason(kVpn), "nsenter: no such namespace");
    EXPECT_FALSE(outputs_.HasFailed(kVpn)) << "dnsmasq may still be started";
}

TEST_F(LaunchOutputTest, TellsWhichLaunchesAreBegun)
{
    EXPECT_TRUE(outputs_.IsBegun(kVpn)) << "also without output";
    EXPECT_FALSE(outputs_.IsBegun(kVpn + 1));
    outputs_.End(kVpn);
    EXPECT_FALSE(outputs_.IsBegun(kVpn));
}

TEST_F(LaunchOutputTest, TheNextLaunchBeginsAnew)
{
    Write("dnsmasq: old\n");
    output_ = outputs_.Begin(kVpn);
    EXPECT_FALSE(outputs_.HasFailed(kVpn));
    Write("dnsmasq: new\n");
    EXPECT_EQ(outputs_.Reason(kVpn), "dnsmasq: new");
    outputs_.End(kVpn);
    EXPECT_EQ(outputs_.Text(kVpn), "");
}

// An instance keeps the file for its life, and must not fill the memory.
TEST_F(LaunchOutputTest, TheOutputIsBounded)
{
    const std::string page(4096, 'x');
    std::size_t written = 0;
    for (ssize_t size = 0; (size = ::write(output_, page.data(), page.size())) > 0;) {
        written += static_cast<std::size_t>(size);
        ASSERT_LE(written, 65536U);
    }
    EXPECT_EQ(outputs_.Text(kVpn).size(), written);
    EXPECT_NE(::ftruncate(output_, 1 << 20), 0);
}

} // namespace
} // namespace kavel::agent
