// Requests on a box without namespaces, with a module that does what a test says.
#ifndef KAVEL_TESTS_AGENT_REQUESTS_FIXTURE_H
#define KAVEL_TESTS_AGENT_REQUESTS_FIXTURE_H

#include <gtest/gtest.h>

#include <array>
#include <deque>

#include "base/child_reaper.h"
#include "services/host.h"
#include "socket/requests.h"
#include "supervision/supervisor.h"
#include "test_box.h"

namespace kavel::agent {

inline Bytes WithBadInterfaceName(std::uint32_t vpnId)
{
    return PackCpe(vpnId, true, VQ_DNSMASQ_OP_REBOOT, [](DnsmasqConf &message) {
        static std::array<char, 8> name{"a\nb"};
        static DnsServerItem server;
        static DnsServerItem *servers = &server;
        dns_server_item__init(&server);
        server.ifname = name.data();
        message.dnsservers = &servers;
        message.n_dnsservers = 1;
    });
}

class RequestsTest : public testing::Test {
  protected:
    // The supervisor has started.
    explicit RequestsTest(const std::function<void(Config &)> &change = {}) : host_(Settings(change))
    {
        bool isStarted = false;
        supervisor_.Start([&] { isStarted = true; });
        EXPECT_TRUE(RunUntil(loop_, [&] { return isStarted; }));
        for (const Vpn &vpn : host_.config.vpns) {
            EXPECT_EQ(std::erase(module_.calls, "init " + std::to_string(vpn.id)), 1U)
                << "the start makes its directory";
        }
    }

    Config Settings(const std::function<void(Config &)> &change) const
    {
        Config config = box_.Configuration();
        if (change) {
            change(config);
        }
        return config;
    }

    // Hands the request over. Its answers are collected where the result points to.
    const std::vector<Answer> &Send(const Bytes &packedRequest)
    {
        std::vector<Answer> &answers = answers_.emplace_back();
        requests_.Handle({FrameOf(packedRequest), kSender},
                         [&answers](const Answer &answer) { answers.push_back(answer); });
        return answers;
    }

    const std::vector<Answer> &SendApply(const Bytes &message, const std::optional<std::string> &revision = {})
    {
        return Send(PackRequest(KAVEL__REQUEST__VERB__APPLY, std::nullopt, message, revision));
    }

    // An answer that must be there already.
    static Answer AnswerIn(const std::vector<Answer> &answers)
    {
        EXPECT_EQ(answers.size(), 1U);
        return answers.empty() ? Refusal(-12345) : answers.front();
    }

    Answer Apply(const Bytes &message, const std::optional<std::string> &revision = {})
    {
        return AnswerIn(SendApply(message, revision));
    }

    [[nodiscard]] bool RunUntilAnswered(const std::vector<Answer> &answers)
    {
        return RunUntil(loop_, [&] { return !answers.empty(); });
    }

    void WritePid(std::uint32_t vpnId, const FakeInstance &instance) const
    {
        box_.WritePidFile(vpnId, std::to_string(instance.Pid()) + "\n");
    }

    static constexpr const char *kSender = "pid 42, uid 0 (test)";
    const std::uint32_t vpnId_ = TestVpn(1);
    const std::uint32_t other_ = TestVpn(2);
    const std::uint32_t unknown_ = TestVpn(9);
    const Bytes launch_ = PackCpe(vpnId_, true, VQ_DNSMASQ_OP_REBOOT);
    const Bytes reload_ = PackCpe(vpnId_, true, VQ_DNSMASQ_OP_RELOAD);
    const Bytes switchOff_ = PackCpe(vpnId_, false, VQ_DNSMASQ_OP_RELOAD);
    const ChildScope children_;
    TestBox box_;
    LogCapture log_;
    Host host_;
    Instances instances_{box_.Root()};
    EventLoop loop_;
    PendingLaunches launches_{loop_, instances_, host_.launchOutputs};
    FakeModule module_;
    std::deque<std::vector<Answer>> answers_;
    ChildReaper reaper_{loop_};
    Supervisor supervisor_{loop_, host_, instances_, module_.functions, launches_, reaper_};
    Requests requests_{loop_, host_, instances_, module_.functions, launches_, supervisor_, AgentFacts{"1.2", 3}};
};

} // namespace kavel::agent

#endif
