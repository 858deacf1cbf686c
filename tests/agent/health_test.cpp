// What follows from queries that are not answered: in these tests nobody can be asked, so none ever is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "finding_texts.h"
#include "supervisor_fixture.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

// Only the queries of the test are sent.
class HealthTest : public SupervisorTest {
  protected:
    explicit HealthTest(const std::function<void(Watch &)> &change)
        : SupervisorTest([&](Config &config) {
              constexpr std::uint32_t kNever = 86400;
              config.watch.udpSeconds = config.watch.tcpSeconds = config.watch.upstreamSeconds = kNever;
              change(config.watch);
          })
    {
    }
};

class UdpHealthTest : public HealthTest {
  protected:
    UdpHealthTest() : HealthTest([](Watch &watch) { watch.udpSeconds = 1; }) {}
};

TEST_F(UdpHealthTest, AnInstanceThatDoesNotAnswerThreeQueriesIsStartedAgain)
{
    Start();
    const auto begin = EventLoop::Clock::now();
    (void)Serve();
    ASSERT_TRUE(RunUntilLaunched(1));
    EXPECT_GE(EventLoop::Clock::now() - begin, 3s);
    EXPECT_EQ(Described().lastEnd, "did not answer 3 queries over UDP");
    EXPECT_EQ(Described().fields.ends, 1U);
    EXPECT_TRUE(instances_.IsRunning(0));
}

class TcpHealthTest : public HealthTest {
  protected:
    TcpHealthTest()
        : HealthTest([](Watch &watch) {
              watch.tcpSeconds = 1;
              watch.repair = false;
          })
    {
    }
};

TEST_F(TcpHealthTest, WithoutRepairsAnInstanceThatDoesNotAnswerIsToldAlone)
{
    Start();
    const FakeInstance &instance = Serve();
    ASSERT_TRUE(RunUntil(loop_, [this] { return Described().fields.ends == 1; }));
    EXPECT_EQ(Described().lastEnd, "did not answer 3 queries over TCP");
    RunFor(1500ms);
    EXPECT_EQ(Described().fields.ends, 1U) << "it is told once";
    EXPECT_TRUE(instance.IsAlive());
    EXPECT_THAT(launches_, IsEmpty());
}

class UpstreamHealthTest : public HealthTest {
  protected:
    UpstreamHealthTest() : HealthTest([](Watch &watch) { watch.upstreamSeconds = 1; }) {}
};

TEST_F(UpstreamHealthTest, AnUpstreamThatDoesNotAnswerIsToldAndNothingIsStarted)
{
    Start();
    box_.Write("/etc/kavel/dnsmasq/resolv.conf", "nameserver 192.0.2.1\nnameserver 192.0.2.2\nnameserver none\n");
    box_.Write("/etc/kavel/dnsmasq/dnsmasq.d/ServerMap.conf", "server=192.0.2.2@wan0\nserver=/a/192.0.2.3\n");
    const FakeInstance &instance = Serve();
    ASSERT_TRUE(RunUntil(loop_, [this] { return !Described().problems.empty(); }));
    EXPECT_THAT(TextsOf(Described().problems), UnorderedElementsAre("upstream 192.0.2.1 does not answer",
                                                                    "upstream 192.0.2.2 through wan0 does not answer"));
    EXPECT_TRUE(instance.IsAlive());
    EXPECT_THAT(launches_, IsEmpty());
    EXPECT_EQ(Described().fields.ends, 0U);
    Apply(0, true, VQ_DNSMASQ_OP_RELOAD);
    EXPECT_THAT(TextsOf(Described().problems), IsEmpty()) << "the new message may have other servers";
    EXPECT_THAT(log_.Take(), HasSubstr("WARNING vpn 0: upstream 192.0.2.1 does not answer"));
}

} // namespace
} // namespace kavel::agent
