// Answers of instances need a network namespace: here nobody can be asked.
#include "socket/why_query.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/child_reaper.h"
#include "finding_texts.h"
#include "supervision/supervisor.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::Contains;
using testing::Each;
using testing::Field;
using testing::HasSubstr;
using testing::SizeIs;

class WhyQueryTest : public testing::Test {
  protected:
    std::vector<VpnStatus> Ask(const StatusScope &scope)
    {
        Supervisor supervisor(loop_, host_, instances_, module_.functions, launches_, reaper_);
        std::vector<VpnStatus> result;
        int ended = 0;
        const WhyQuery query(loop_, host_, instances_, supervisor, scope, [&](std::vector<VpnStatus> statuses) {
            result = std::move(statuses);
            ++ended;
        });
        EXPECT_EQ(ended, 0) << "the loop tells it";
        EXPECT_TRUE(RunUntil(loop_, [&] { return ended > 0; }));
        EXPECT_EQ(ended, 1);
        return result;
    }

    const ChildScope children_;
    TestBox box_;
    Host host_{box_.Configuration()};
    Instances instances_{box_.Root()};
    EventLoop loop_;
    LaunchOutputs outputs_;
    PendingLaunches launches_{loop_, instances_, outputs_};
    FakeModule module_;
    ChildReaper reaper_{loop_};
};

TEST_F(WhyQueryTest, AVpnThatIsOffHasNoFindingsOfItsOwn)
{
    const auto statuses = Ask({{0}, false});
    ASSERT_THAT(statuses, SizeIs(1));
    EXPECT_THAT(statuses.front().problems, Each(Field(&Finding::fault, Fault::kKernelUnreadable)))
        << "an ordinary user cannot read routes and rules";
}

TEST_F(WhyQueryTest, AMissingNamespaceIsToldAndNothingIsAsked)
{
    instances_.SetMeantToRun(TestVpn(1), true);
    const auto statuses = Ask({{TestVpn(1)}, false});
    ASSERT_THAT(statuses, SizeIs(1));
    EXPECT_EQ(statuses.front().problems.front().fault, Fault::kNamespaceMissing);
}

TEST_F(WhyQueryTest, AServerThatRefusesIsSilent)
{
    std::filesystem::create_directories(box_.Path("/run/kavel"));
    box_.Write("/etc/kavel/dnsmasq/dnsmasq.d/DnsProxy.conf", "server=/a.example/127.0.0.9\n");
    instances_.SetMeantToRun(0, true);
    const auto statuses = Ask({{0}, false});
    ASSERT_THAT(statuses, SizeIs(1));
    EXPECT_THAT(TextsOf(statuses.front().problems),
                Contains("the server of the forward of a.example, 127.0.0.9, does not answer"));
}

TEST_F(WhyQueryTest, MoreVpnsThanOneBatch)
{
    Vpn vpn = host_.config.vpns.front();
    host_.config.vpns.clear();
    std::vector<std::uint32_t> vpnIds;
    for (vpn.id = 1; vpn.id <= 40; ++vpn.id) {
        host_.config.vpns.push_back(vpn);
        vpnIds.push_back(vpn.id);
    }
    EXPECT_THAT(Ask({vpnIds, false}), SizeIs(40));
}

} // namespace
} // namespace kavel::agent
