// Answers of instances need a network namespace: here nobody can be asked.
#include "finding_texts.h"
#include "socket/status_query.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>

#include "base/child_reaper.h"
#include "supervision/supervisor.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class StatusQueryTest : public testing::Test {
  protected:
    StatusQueryTest() : config_(Settings(box_.Configuration())) {}

    static Config Settings(Config config)
    {
        config.persistence = true;
        return config;
    }

    std::vector<VpnStatus> Query(const StatusScope &scope)
    {
        Host host(config_);
        Supervisor supervisor(loop_, host, instances_, module_.functions, launches_, reaper_);
        host.conversions.DnsmasqStrToConf = ConvertStoredText;
        std::vector<VpnStatus> result;
        int ended = 0;
        LogCapture log;
        const StatusQuery query(loop_, host, instances_, supervisor, scope, [&](std::vector<VpnStatus> statuses) {
            result = std::move(statuses);
            ++ended;
        });
        EXPECT_EQ(ended, 0) << "the loop tells it";
        EXPECT_TRUE(RunUntil(loop_, [&] { return ended > 0; }));
        return result;
    }

    // Without the instances of other tests that run at the same time.
    static std::vector<std::uint32_t> VpnsOf(const std::vector<VpnStatus> &statuses)
    {
        std::vector<std::uint32_t> vpnIds;
        for (const VpnStatus &status : statuses) {
            if (!IsTestVpnOfOthers(status.fields.vpn)) {
                vpnIds.push_back(status.fields.vpn);
            }
        }
        return vpnIds;
    }

    const ChildScope children_;
    TestBox box_;
    Config config_;
    Instances instances_{box_.Root()};
    EventLoop loop_;
    LaunchOutputs outputs_;
    PendingLaunches launches_{loop_, instances_, outputs_};
    FakeModule module_;
    ChildReaper reaper_{loop_};
};

TEST_F(StatusQueryTest, GivesTheStatusOfTheVpnsInTheirOrder)
{
    EXPECT_THAT(VpnsOf(Query({{TestVpn(1)}, false})), ElementsAre(TestVpn(1)));
    EXPECT_THAT(VpnsOf(Query({{TestVpn(2), 0, TestVpn(1)}, false})), ElementsAre(TestVpn(2), 0U, TestVpn(1)));
}

TEST_F(StatusQueryTest, AllIncludesInstancesOfVpnsThatAreNotConfigured)
{
    const FakeInstance stray(box_, TestVpn(9));
    EXPECT_THAT(VpnsOf(Query({{0}, true})), Contains(TestVpn(9)));
    EXPECT_THAT(VpnsOf(Query({{0}, false})), ElementsAre(0U));
}

TEST_F(StatusQueryTest, AllIncludesTheBoxOnACpeOnlyIfThereIsSomethingToTell)
{
    const VpnStatus box = Query({{0}, false}).front();
    EXPECT_EQ(VpnsOf(Query({{0}, true})).empty(), IsIdleBox(box));
    instances_.SetMeantToRun(0, true);
    EXPECT_THAT(VpnsOf(Query({{0}, true})), ElementsAre(0U));
}

TEST_F(StatusQueryTest, AllIncludesTheBoxOfAPop)
{
    config_.platform = Platform::kPop;
    EXPECT_THAT(VpnsOf(Query({{0}, true})), ElementsAre(0U));
}

// Between two iterations of the loop everything else is dispatched.
TEST_F(StatusQueryTest, ManyVpnsAreReadInSeveralIterations)
{
    Vpn vpn = config_.vpns.front();
    config_.vpns.clear();
    for (vpn.id = 1; vpn.id <= 40; ++vpn.id) {
        config_.vpns.push_back(vpn);
    }
    Host host(config_);
    Supervisor supervisor(loop_, host, instances_, module_.functions, launches_, reaper_);
    const auto iterations = [&](const std::vector<std::uint32_t> &vpnIds) {
        std::vector<VpnStatus> result;
        const StatusQuery query(loop_, host, instances_, supervisor, {vpnIds, false},
                                [&](std::vector<VpnStatus> statuses) { result = std::move(statuses); });
        int count = 0;
        EXPECT_TRUE(RunUntil(loop_, [&] {
            ++count;
            return !result.empty();
        }));
        EXPECT_EQ(VpnsOf(result), vpnIds);
        return count;
    };
    std::vector<std::uint32_t> many(40);
    std::iota(many.begin(), many.end(), 1U);
    EXPECT_EQ(iterations(many), iterations({1}) + 2);
}

TEST_F(StatusQueryTest, TellsWhatIsStored)
{
    {
        Host host(config_);
        host.store.Put(TestVpn(2), "on " + std::to_string(TestVpn(2)), VQ_SQL_CONF_CPE_DNSMASQ);
    }
    const auto statuses = Query({{TestVpn(1), TestVpn(2)}, false});
    ASSERT_EQ(statuses.size(), 2U);
    EXPECT_TRUE(statuses[0].fields.has_stored && !statuses[0].fields.stored);
    EXPECT_TRUE(statuses[1].fields.stored && statuses[1].fields.stored_enable);
}

TEST_F(StatusQueryTest, TellsOnceThatTheStoreCannotBeRead)
{
    box_.Write("/store", "a file in the place of the directory");
    const auto statuses = Query({{TestVpn(1), TestVpn(2)}, false});
    ASSERT_EQ(statuses.size(), 2U);
    EXPECT_THAT(TextsOf(statuses[0].problems), Contains(HasSubstr("the store cannot be read: ")));
    EXPECT_THAT(TextsOf(statuses[1].problems), Not(Contains(HasSubstr("the store cannot be read: "))));
}

TEST_F(StatusQueryTest, AnInstanceIsStartingWhileItsLaunchIsPending)
{
    const FakeInstance starting(box_, TestVpn(1));
    launches_.Add(TestVpn(1), 10min, [](LaunchOutcome) {});
    const auto statuses = Query({{TestVpn(1), TestVpn(2)}, false});
    ASSERT_EQ(statuses.size(), 2U);
    EXPECT_TRUE(statuses[0].fields.has_starting && statuses[0].fields.starting);
    EXPECT_FALSE(statuses[1].fields.has_starting);
}

TEST_F(StatusQueryTest, AnInstanceThatWasStartingWhenItWasAskedIsStarting)
{
    const FakeInstance starting(box_, TestVpn(1));
    launches_.Add(TestVpn(1), 10min, [](LaunchOutcome) {});
    Host host(config_);
    Supervisor supervisor(loop_, host, instances_, module_.functions, launches_, reaper_);
    std::vector<VpnStatus> result;
    const StatusQuery query(loop_, host, instances_, supervisor, {{TestVpn(1)}, false},
                            [&](std::vector<VpnStatus> statuses) { result = std::move(statuses); });
    launches_.CancelAll();
    EXPECT_TRUE(RunUntil(loop_, [&] { return !result.empty(); }));
    EXPECT_TRUE(result.front().fields.starting);
}

TEST_F(StatusQueryTest, EndsSilentlyWhenItIsDestroyed)
{
    int ended = 0;
    Host host(config_);
    Supervisor supervisor(loop_, host, instances_, module_.functions, launches_, reaper_);
    auto query = std::make_unique<StatusQuery>(loop_, host, instances_, supervisor, StatusScope{{TestVpn(1)}, false},
                                               [&](const std::vector<VpnStatus> &) { ++ended; });
    query.reset();
    DispatchReady(loop_);
    EXPECT_EQ(ended, 0);
}

TEST_F(StatusQueryTest, ItsEndMayDestroyIt)
{
    bool hasEnded = false;
    Host host(config_);
    Supervisor supervisor(loop_, host, instances_, module_.functions, launches_, reaper_);
    std::unique_ptr<StatusQuery> query;
    query = std::make_unique<StatusQuery>(loop_, host, instances_, supervisor, StatusScope{{TestVpn(1)}, false},
                                          [&](const std::vector<VpnStatus> &) {
                                              hasEnded = true;
                                              query.reset();
                                          });
    EXPECT_TRUE(RunUntil(loop_, [&] { return hasEnded; }));
    DispatchReady(loop_);
    EXPECT_EQ(query, nullptr);
}

} // namespace
} // namespace kavel::agent
