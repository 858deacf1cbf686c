// Stopping an unconfirmed instance needs a namespace whose rules can be read: that is not reached here.
#include "instances/recovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <list>
#include <string_view>
#include <unistd.h>

#include "services/store.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class RecoveryTest : public testing::Test {
  protected:
    RecoveryTest() : host_(Settings())
    {
        host_.conversions.DnsmasqStrToConf = ConvertStoredText;
        // The module lists the records and applies them.
        module_.onRecover = [this] {
            VQ_SqliteConfListRelease(host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ));
            if (onApply_) {
                onApply_();
            }
            return 0;
        };
    }

    Config Settings() const
    {
        Config config = box_.Configuration();
        config.persistence = true;
        return config;
    }

    void Store(std::uint32_t number, const std::string &state)
    {
        host_.store.Put(TestVpn(number), state + " " + std::to_string(TestVpn(number)), VQ_SQL_CONF_CPE_DNSMASQ);
    }

    void Run(std::uint32_t number)
    {
        running_.emplace_back(box_, TestVpn(number));
        box_.WritePidFile(TestVpn(number), std::to_string(running_.back().Pid()));
    }

    bool Recover()
    {
        LogCapture log;
        const bool isRecovered = RecoverStored(loop_, host_, instances_, module_.functions, launches_);
        log_ = log.Take();
        return isRecovered;
    }

    TestBox box_;
    Host host_;
    Instances instances_{box_.Root()};
    EventLoop loop_;
    PendingLaunches launches_{loop_, instances_, host_.launchOutputs};
    FakeModule module_;
    std::function<void()> onApply_;
    std::list<FakeInstance> running_;
    std::string log_;
};

TEST_F(RecoveryTest, AnEmptyStoreRecoversNothing)
{
    EXPECT_TRUE(Recover());
    EXPECT_THAT(module_.calls, ElementsAre("recover"));
    EXPECT_THAT(log_, HasSubstr("NOTICE recovered: 0 stored, 0 running"));
}

TEST_F(RecoveryTest, MarksWhatIsMeantToRun)
{
    Store(1, "on");
    Store(2, "off");
    instances_.SetMeantToRun(TestVpn(2), true);
    instances_.SetMeantToRun(TestVpn(3), true);
    onApply_ = [this] { Run(1); };
    EXPECT_TRUE(Recover());
    EXPECT_TRUE(instances_.IsMeantToRun(TestVpn(1)));
    EXPECT_FALSE(instances_.IsMeantToRun(TestVpn(2)));
    EXPECT_TRUE(instances_.IsMeantToRun(TestVpn(3))) << "nothing is stored for it";
    EXPECT_THAT(log_, HasSubstr("recovered: 2 stored, 1 running"));
}

TEST_F(RecoveryTest, WaitsUntilTheInstancesRun)
{
    Store(1, "on");
    FakeInstance starting(box_, TestVpn(1));
    EventSource writer = loop_.AddDeferred([&] { box_.WritePidFile(TestVpn(1), std::to_string(starting.Pid())); });
    onApply_ = [&] { writer.Enable(); };
    EXPECT_TRUE(Recover());
    EXPECT_THAT(log_, HasSubstr("recovered: 1 stored, 1 running"));
}

TEST_F(RecoveryTest, LogsWhichInstanceDidNotComeUp)
{
    Store(1, "on");
    Store(2, "on");
    onApply_ = [this] { Run(2); };
    EXPECT_TRUE(Recover());
    EXPECT_THAT(log_, HasSubstr("ERROR vpn " + std::to_string(TestVpn(1)) + ": its instance did not come up again"));
    EXPECT_THAT(log_, HasSubstr("recovered: 2 stored, 1 running"));
}

TEST_F(RecoveryTest, LogsWhyAnInstanceDidNotComeUp)
{
    Store(1, "on");
    onApply_ = [this] {
        constexpr std::string_view kReason = "\ndnsmasq: Address already in use\n";
        EXPECT_GT(::write(host_.launchOutputs.Begin(TestVpn(1)), kReason.data(), kReason.size()), 0);
    };
    EXPECT_TRUE(Recover());
    EXPECT_THAT(log_, HasSubstr(": its instance did not come up again: dnsmasq: Address already in use"));
}

TEST_F(RecoveryTest, EndsWhenTheLoopIsToExit)
{
    Store(1, "on");
    const FakeInstance starting(box_, TestVpn(1));
    onApply_ = [this] { loop_.Exit(); };
    EXPECT_FALSE(Recover());
    EXPECT_TRUE(launches_.IsEmpty());
}

TEST_F(RecoveryTest, DoesNotStopAnInstanceWhoseRulesCannotBeRead)
{
    Store(1, "off");
    Run(1);
    EXPECT_TRUE(Recover());
    EXPECT_THAT(module_.calls, ElementsAre("recover"));
    EXPECT_THAT(log_, HasSubstr("WARNING vpn " + std::to_string(TestVpn(1)) + ": its rules cannot be read: "));
}

} // namespace
} // namespace kavel::agent
