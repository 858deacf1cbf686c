// Runs the commands against a fake agent, with standard output and standard error in strings.
#ifndef KAVEL_TESTS_CTL_COMMANDS_FIXTURE_H
#define KAVEL_TESTS_CTL_COMMANDS_FIXTURE_H

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "fake_agent.h"

namespace kavel::ctl {

// A reply about a VPN. An empty text is not sent.
inline Bytes ReplyFor(std::uint32_t vpn, std::int32_t result, std::string reason = {}, std::string text = {})
{
    return PackReply(result, [&](Kavel__Reply &reply) {
        reply.has_vpn = 1;
        reply.vpn = vpn;
        reply.reason = reason.empty() ? nullptr : reason.data();
        reply.text = text.empty() ? nullptr : text.data();
    });
}

// The refusal of a request that names a VPN which is not configured.
inline Bytes UnknownVpnReply(std::uint32_t vpn)
{
    return PackReply(-2, [vpn](Kavel__Reply &reply) {
        static std::string text;
        text = "vpn " + std::to_string(vpn) + " is not configured";
        reply.has_unknown_vpn = reply.unknown_vpn = reply.has_vpn = 1;
        reply.vpn = vpn;
        reply.text = text.data();
    });
}

class CommandsTest : public testing::Test {
  protected:
    void Answer(std::vector<Bytes> replies, std::function<void(std::size_t)> onRequest = {})
    {
        agent_ = std::make_unique<FakeAgent>(std::move(replies), std::move(onRequest));
        session_.socket = agent_->Socket();
    }

    int Go(const std::function<int()> &command) { return kavel::ctl::Run(session_, command); }
    int GoApply(const Messages &messages)
    {
        return Go([&] { return Apply(session_, messages); });
    }
    int GoCheck(const Messages &messages)
    {
        return Go([&] { return Check(session_, messages); });
    }

    RequestPtr Request(std::size_t index) { return DecodeRequest(agent_->Requests().at(index)); }

    std::ostringstream out_;
    std::ostringstream err_;
    Session session_{out_, err_, "/nonexistent/agent.sock"};
    std::unique_ptr<FakeAgent> agent_;
    TempDir dir_;
};

} // namespace kavel::ctl

#endif
