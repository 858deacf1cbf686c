#include "instances/controller_message.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "control.pb-c.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

struct Effect {
    bool enables;
    bool reloads;
    bool launches;
    bool operator==(const Effect &) const = default;
};

Effect EffectOf(const std::optional<ControllerMessage> &message)
{
    EXPECT_TRUE(message);
    return message ? Effect{message->enables, message->reloads, message->launches} : Effect{};
}

TEST(UnpackCpeMessage, TellsWhatApplyingItDoes)
{
    const auto effect = [](bool enable, std::uint32_t operation) {
        return EffectOf(UnpackControllerMessage(Platform::kCpe, PackCpe(7, enable, operation)));
    };
    EXPECT_EQ(effect(true, VQ_DNSMASQ_OP_RELOAD), (Effect{true, true, false}));
    EXPECT_EQ(effect(true, VQ_DNSMASQ_OP_REBOOT), (Effect{true, false, true}));
    EXPECT_EQ(effect(true, 2), (Effect{true, false, false})) << "another operation is not carried out";
    EXPECT_EQ(effect(false, VQ_DNSMASQ_OP_RELOAD), (Effect{false, false, false}));
    EXPECT_EQ(effect(false, VQ_DNSMASQ_OP_REBOOT), (Effect{false, false, false}));
}

TEST(UnpackCpeMessage, GivesTheMessageToTheModule)
{
    const auto message = UnpackControllerMessage(Platform::kCpe, PackCpe(7, true, 1));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->vpn, 7U);
    EXPECT_EQ(message->pointer.DnsmasqPbCPE->vpnid, 7U);
    EXPECT_EQ(reinterpret_cast<const ProtobufCMessage *>(message->pointer.DnsmasqPbCPE), message->content.get());
}

TEST(UnpackCpeMessage, AMessageWithoutVpnIsForTheBox)
{
    const auto message = UnpackControllerMessage(
        Platform::kCpe, PackCpe(7, true, 1, [](DnsmasqConf &content) { content.has_vpnid = 0; }));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->vpn, 0U);
}

TEST(UnpackPopMessage, TellsWhatApplyingItDoes)
{
    EXPECT_EQ(EffectOf(UnpackControllerMessage(Platform::kPop, PackPop(true))), (Effect{true, false, true}));
    EXPECT_EQ(EffectOf(UnpackControllerMessage(Platform::kPop, PackPop(false))), (Effect{false, false, false}));
}

TEST(UnpackPopMessage, IsAlwaysForTheBox)
{
    const auto message = UnpackControllerMessage(Platform::kPop, PackPop(true));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->vpn, 0U);
    EXPECT_TRUE(message->pointer.DnsmasqPbPOP->enable);
}

TEST(UnpackControllerMessage, GivesNothingForOtherBytes)
{
    for (const Platform platform : {Platform::kCpe, Platform::kPop}) {
        EXPECT_FALSE(UnpackControllerMessage(platform, {})) << "required fields are missing";
        EXPECT_FALSE(UnpackControllerMessage(platform, Bytes{0xFF, 0xFF, 0xFF}));
    }
    EXPECT_FALSE(UnpackControllerMessage(Platform::kPop, PackCpe(7, true, 1)));
    EXPECT_FALSE(UnpackControllerMessage(Platform::kCpe, PackPop(true)));
}

// Forwards without content: two bytes each on the wire.
Bytes WithEmptyForwards(std::size_t count)
{
    Bytes message = PackCpe(7, true, 1);
    message.reserve(message.size() + 2 * count);
    for (std::size_t i = 0; i < count; ++i) {
        message.push_back(6 << 3 | 2);
        message.push_back(0);
    }
    return message;
}

TEST(UnpackControllerMessage, TakesWhatFitsIntoTheMemoryLimit)
{
    const auto message = UnpackControllerMessage(Platform::kCpe, WithEmptyForwards(100'000));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->pointer.DnsmasqPbCPE->n_dnsproxies, 100'000U);
}

// Each takes at least its structure: one more than fit into 256 MiB.
TEST(UnpackControllerMessage, GivesNothingForAMessageOverTheMemoryLimit)
{
    const Bytes message = WithEmptyForwards(256 * 1024 * 1024 / sizeof(DnsProxyItemV2) + 1);
    EXPECT_LT(message.size(), 16U * 1024 * 1024) << "it fits into a frame";
    EXPECT_FALSE(UnpackControllerMessage(Platform::kCpe, message));
}

TEST(UnpackProtobuf, UnpacksTheTypeThatIsAskedFor)
{
    const Bytes packed = PackRequest(KAVEL__REQUEST__VERB__STATUS, 7);
    const ProtobufMessage message = UnpackProtobuf(kavel__request__descriptor, packed);
    ASSERT_TRUE(message);
    EXPECT_EQ(reinterpret_cast<const Kavel__Request *>(message.get())->vpn, 7U);
}

TEST(WithStart, AReloadBecomesAStart)
{
    const Bytes reload = PackCpe(7, true, VQ_DNSMASQ_OP_RELOAD);
    EXPECT_EQ(WithStart(Platform::kCpe, reload), PackCpe(7, true, VQ_DNSMASQ_OP_REBOOT));
}

TEST(WithStart, OtherMessagesStayAsTheyAre)
{
    for (const Bytes &bytes : {PackCpe(7, true, VQ_DNSMASQ_OP_REBOOT), PackCpe(7, false, VQ_DNSMASQ_OP_RELOAD),
                               PackCpe(7, true, 9), Bytes{1, 2, 3}}) {
        EXPECT_EQ(WithStart(Platform::kCpe, bytes), bytes);
    }
    EXPECT_EQ(WithStart(Platform::kPop, PackPop(true)), PackPop(true));
}

} // namespace
} // namespace kavel::agent
