// The questions themselves need a network namespace: what is tested here is a probe that can ask nobody.
#include "instances/dns_probe.h"

#include <gtest/gtest.h>
#include <memory>

#include "services/host.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;

class DnsProbeTest : public testing::Test {
  protected:
    // Asks these servers, with a timeout that no test waits for. Whether the probe ended by itself, without an answer.
    bool EndsWithoutAnswers(const std::vector<DnsTarget> &targets)
    {
        int ended = 0;
        const DnsProbe probe(loop_, host_, targets, 10min, [&](const DnsAnswers &answering) {
            ++ended;
            EXPECT_TRUE(answering.empty());
        });
        EXPECT_EQ(ended, 0) << "the loop tells it";
        const bool hasEnded = RunUntil(loop_, [&] { return ended > 0; });
        DispatchReady(loop_);
        return hasEnded && ended == 1;
    }

    TestBox box_;
    Host host_{box_.Configuration()};
    EventLoop loop_;
};

TEST_F(DnsProbeTest, EndsWithoutServers)
{
    EXPECT_TRUE(EndsWithoutAnswers({}));
}

TEST_F(DnsProbeTest, EndsWhenNoNamespaceCanBeEntered)
{
    EXPECT_TRUE(EndsWithoutAnswers(DnsTarget::Instances({0, TestVpn(1), TestVpn(9)})));
    EXPECT_TRUE(EndsWithoutAnswers(DnsTarget::Instances({0, TestVpn(1), TestVpn(9)}, true)));
}

// It is destroyed by what it calls, as its owner does.
TEST_F(DnsProbeTest, MayBeDestroyedByItsEnd)
{
    std::unique_ptr<DnsProbe> probe;
    bool hasEnded = false;
    probe = std::make_unique<DnsProbe>(loop_, host_, std::vector<DnsTarget>(), 10min,
                                       [&](const DnsAnswers & /*answering*/) {
                                           probe.reset();
                                           hasEnded = true;
                                       });
    EXPECT_TRUE(RunUntil(loop_, [&] { return hasEnded; }));
    EXPECT_FALSE(probe);
}

TEST_F(DnsProbeTest, AnInstanceIsAskedAtItsLoopbackAddress)
{
    const std::vector<DnsTarget> targets = DnsTarget::Instances({7, 0}, true);
    ASSERT_EQ(targets.size(), 2U);
    EXPECT_EQ(targets[0].vpnId, 7U);
    EXPECT_EQ(targets[1].vpnId, 0U);
    for (const DnsTarget &target : targets) {
        EXPECT_TRUE(target.overTcp && target.isInstance);
        EXPECT_EQ(target.address, 0x7F000001U);
        EXPECT_EQ(target.interface, "");
    }
    EXPECT_FALSE(DnsTarget::Instances({7}).front().overTcp);
}

TEST_F(DnsProbeTest, EndsSilentlyWhenItIsDestroyed)
{
    int ended = 0;
    {
        const DnsProbe probe(loop_, host_, {}, 10min, [&](const DnsAnswers &) { ++ended; });
    }
    DispatchReady(loop_);
    EXPECT_EQ(ended, 0);
}

TEST_F(DnsProbeTest, LogsForDebuggingWhomItCannotAsk)
{
    LogCapture log;
    ConfigureLog(LogLevel::kDebug);
    EXPECT_TRUE(EndsWithoutAnswers(DnsTarget::Instances({TestVpn(1)})));
    ConfigureLog(LogLevel::kNotice);
    EXPECT_NE(log.Take().find("DEBUG vpn " + std::to_string(TestVpn(1)) + ": a DNS server cannot be asked: "),
              std::string::npos);
}

} // namespace
} // namespace kavel::agent
