// The questions themselves need a network namespace: what is tested here is a probe that can ask nobody.
#include "instances/dns_probe.h"

#include <gtest/gtest.h>

#include "services/host.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;

class DnsProbeTest : public testing::Test {
  protected:
    // Asks these VPNs, with a timeout that no test waits for. Whether the probe ended by itself, without an answer.
    bool EndsWithoutAnswers(const std::vector<std::uint32_t> &vpnIds)
    {
        int ended = 0;
        const DnsProbe probe(loop_, namespaces_, vpnIds, 10min, [&](const std::set<std::uint32_t> &answering) {
            ++ended;
            EXPECT_TRUE(answering.empty());
        });
        EXPECT_EQ(ended, 0) << "the loop tells it";
        const bool hasEnded = RunUntil(loop_, [&] { return ended > 0; });
        DispatchReady(loop_);
        return hasEnded && ended == 1;
    }

    TestBox box_;
    const Config config_ = box_.Configuration();
    const Namespaces namespaces_{config_};
    EventLoop loop_;
};

TEST_F(DnsProbeTest, EndsWithoutVpns)
{
    EXPECT_TRUE(EndsWithoutAnswers({}));
}

TEST_F(DnsProbeTest, EndsWhenNoNamespaceCanBeEntered)
{
    EXPECT_TRUE(EndsWithoutAnswers({0, TestVpn(1), TestVpn(9)}));
}

TEST_F(DnsProbeTest, EndsSilentlyWhenItIsDestroyed)
{
    int ended = 0;
    {
        const DnsProbe probe(loop_, namespaces_, {}, 10min, [&](const std::set<std::uint32_t> &) { ++ended; });
    }
    DispatchReady(loop_);
    EXPECT_EQ(ended, 0);
}

TEST_F(DnsProbeTest, LogsForDebuggingWhomItCannotAsk)
{
    LogCapture log;
    ConfigureLog(LogLevel::kDebug);
    EXPECT_TRUE(EndsWithoutAnswers({TestVpn(1)}));
    ConfigureLog(LogLevel::kNotice);
    EXPECT_NE(log.Take().find("DEBUG vpn " + std::to_string(TestVpn(1)) + ": cannot ask its instance: "),
              std::string::npos);
}

} // namespace
} // namespace kavel::agent
