// A supervised box without namespaces: what it serves is VPN 0, the box itself. The module's part is to start and to
// end programs that look like instances.
#ifndef KAVEL_TESTS_AGENT_SUPERVISOR_FIXTURE_H
#define KAVEL_TESTS_AGENT_SUPERVISOR_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "base/child_reaper.h"
#include "instances/controller_message.h"
#include "services/host.h"
#include "supervision/supervisor.h"
#include "test_box.h"

namespace kavel::agent {

class SupervisorTest : public testing::Test {
  protected:
    explicit SupervisorTest(const std::function<void(Config &)> &change = {}) : host_(Settings(change))
    {
        instances_.CreateBoxDirectory();
        host_.conversions.DnsmasqStrToConf = ConvertStoredText;
        module_.onRecover = [this] {
            VQ_PersistentConfList *list = host_.store.List(VQ_SQL_CONF_CPE_DNSMASQ);
            const bool isReboot =
                list->Count == 1 &&
                reinterpret_cast<const VQ_DnsmasqConfNode *>(list->Head.next)->Dnsmasq.Op == VQ_DNSMASQ_OP_REBOOT;
            VQ_SqliteConfListRelease(list);
            if (isReboot) {
                Launch();
            }
            return 0;
        };
        module_.onRestart = [this] {
            Launch();
            return 0;
        };
    }

    Config Settings(const std::function<void(Config &)> &change) const
    {
        Config config = box_.Configuration();
        config.vpns.resize(1);
        if (change) {
            change(config);
        }
        return config;
    }

    // Starts what looks like an instance of VPN 0, with its pid file.
    FakeInstance &Run()
    {
        FakeInstance &instance = running_.emplace_back(box_, 0, OwnProgram());
        box_.WritePidFile(0, std::to_string(instance.Pid()) + "\n");
        return instance;
    }

    // What the module does when it starts VPN 0.
    void Launch()
    {
        launches_.emplace_back(EventLoop::Clock::now());
        const int output = host_.launchOutputs.Begin(0);
        if (failure_.empty()) {
            Run();
        } else {
            EXPECT_EQ(::write(output, failure_.data(), failure_.size()), static_cast<ssize_t>(failure_.size()));
        }
    }

    void Start()
    {
        bool isStarted = false;
        supervisor_.Start([&] { isStarted = true; });
        EXPECT_TRUE(RunUntil(loop_, [&] { return isStarted; }));
        TakeDirectoryCalls();
    }

    // The other VPNs have no namespace. The start makes the directory of each of them, once, and nothing else of it.
    void TakeDirectoryCalls()
    {
        for (const Vpn &vpn : host_.config.vpns) {
            EXPECT_EQ(std::erase(module_.calls, "init " + std::to_string(vpn.id)), 1U) << vpn.id;
        }
    }

    // A message was applied by the module. If it launches an instance, that one runs.
    void Apply(std::uint32_t vpnId, bool enables, std::uint32_t operation,
               const std::optional<std::string> &revision = std::nullopt)
    {
        const Bytes bytes = PackCpe(vpnId, enables, operation, [this](DnsmasqConf &message) {
            message.has_persistentflag = message.persistentflag = isKept_ ? 1 : 0;
        });
        const auto message = UnpackControllerMessage(Platform::kCpe, bytes);
        ASSERT_TRUE(message);
        supervisor_.Applied(*message, bytes, revision);
        if (message->launches) {
            pending_.Add(vpnId, std::chrono::seconds(2), [](LaunchOutcome /*outcome*/) {});
        }
    }

    bool isKept_ = false; // whether the messages ask to be stored

    // VPN 0 is in force, and its instance runs. The agent has started before.
    FakeInstance &Serve()
    {
        FakeInstance &instance = Run();
        Apply(0, true, VQ_DNSMASQ_OP_REBOOT, "r1");
        EXPECT_FALSE(pending_.IsPending(0));
        return instance;
    }

    [[nodiscard]] VpnStatus Described(std::uint32_t vpnId = 0) const
    {
        VpnStatus status;
        status.fields.vpn = vpnId;
        supervisor_.Describe(status);
        return status;
    }

    [[nodiscard]] std::size_t Calls(const std::string &call) const
    {
        return static_cast<std::size_t>(std::ranges::count(module_.calls, call));
    }

    [[nodiscard]] bool IsPending() const { return pending_.IsPending(0); }

    // Until the n-th launch of the module has ended.
    [[nodiscard]] bool RunUntilLaunched(std::size_t count)
    {
        return RunUntil(loop_, [&] { return launches_.size() >= count && !IsPending(); });
    }

    // Dispatches for this time.
    void RunFor(std::chrono::milliseconds time)
    {
        EXPECT_FALSE(RunUntil(
            loop_, [] { return false; }, time));
    }

    // Asks for a repair, and runs until it is answered.
    Supervisor::RepairReport RepairNow(const std::vector<std::uint32_t> &vpnIds = {0})
    {
        std::optional<Supervisor::RepairReport> answered;
        supervisor_.RepairNow(vpnIds, [&](const Supervisor::RepairReport &report) { answered = report; });
        EXPECT_TRUE(RunUntil(loop_, [&] { return answered.has_value(); }));
        return answered.value_or(Supervisor::RepairReport());
    }

    const ChildScope children_;
    TestBox box_;
    LogCapture log_;
    Host host_;
    EventLoop loop_;
    const Instances instances_{box_.Root(), OwnIdentity()};
    FakeModule module_;
    PendingLaunches pending_{loop_, instances_, host_.launchOutputs};
    ChildReaper reaper_{loop_};
    std::list<FakeInstance> running_;
    std::vector<EventLoop::Clock::time_point> launches_; // by the module
    std::string failure_;                                // what a launched instance writes instead of running
    Supervisor supervisor_{loop_, host_, instances_, module_.functions, pending_, reaper_};
};

} // namespace kavel::agent

#endif
