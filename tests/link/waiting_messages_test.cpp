#include "waiting_messages.h"

#include <gtest/gtest.h>

namespace kavel::link {
namespace {

using namespace std::chrono_literals;

const WaitingMessages::Time kNow{std::chrono::hours(1)};
constexpr std::size_t kHalf = WaitingMessages::kBytesMax / 2;

Desired MessageOf(std::uint32_t vpn, broker::Revision revision, std::size_t size = 1)
{
    return {vpn, revision, std::nullopt, std::vector<std::uint8_t>(size)};
}

std::uint32_t NextVpn(WaitingMessages &waiting, WaitingMessages::Time now = kNow)
{
    const auto message = waiting.TakeNext(now);
    EXPECT_TRUE(message);
    return message ? message->vpn : 0;
}

TEST(WaitingMessagesTest, NothingWaitsAtFirst)
{
    WaitingMessages waiting;
    EXPECT_TRUE(waiting.IsEmpty());
    EXPECT_FALSE(waiting.TakeNext(kNow));
    EXPECT_FALSE(waiting.NextTime());
}

TEST(WaitingMessagesTest, TheNewestOfAVpnWaits)
{
    WaitingMessages waiting;
    EXPECT_TRUE(waiting.Put(MessageOf(7, 1)));
    EXPECT_TRUE(waiting.Put(MessageOf(7, 2)));
    EXPECT_EQ(waiting.Count(), 1U);
    EXPECT_EQ(waiting.TakeNext(kNow)->revision, 2U);
    EXPECT_TRUE(waiting.IsEmpty());
}

TEST(WaitingMessagesTest, VpnsTakeTurns)
{
    WaitingMessages waiting;
    for (const std::uint32_t vpn : {9U, 7U, 8U}) {
        EXPECT_TRUE(waiting.Put(MessageOf(vpn, 1)));
    }
    EXPECT_EQ(NextVpn(waiting), 7U);
    EXPECT_TRUE(waiting.Put(MessageOf(7, 2)));
    EXPECT_EQ(NextVpn(waiting), 8U);
    EXPECT_EQ(NextVpn(waiting), 9U);
    EXPECT_EQ(NextVpn(waiting), 7U);
}

TEST(WaitingMessagesTest, AFailedMessageWaitsWithBackOff)
{
    WaitingMessages waiting;
    auto delay = 1s;
    WaitingMessages::Time now = kNow;
    for (int i = 0; i < 10; ++i) {
        waiting.PutBack(MessageOf(7, 1), now);
        EXPECT_FALSE(waiting.TakeNext(now));
        EXPECT_GE(*waiting.NextTime(), now + delay / 2);
        EXPECT_LE(*waiting.NextTime(), now + delay);
        now = *waiting.NextTime();
        EXPECT_TRUE(waiting.TakeNext(now));
        delay = std::min(2 * delay, 60s);
    }
}

TEST(WaitingMessagesTest, AFailedMessageDoesNotDelayOtherVpns)
{
    WaitingMessages waiting;
    waiting.PutBack(MessageOf(7, 1), kNow);
    EXPECT_TRUE(waiting.Put(MessageOf(6, 1)));
    EXPECT_LE(*waiting.NextTime(), kNow);
    EXPECT_EQ(NextVpn(waiting), 6U);
    EXPECT_FALSE(waiting.TakeNext(kNow));
}

TEST(WaitingMessagesTest, ANewerMessageOfAFailedVpnWaitsAsLong)
{
    WaitingMessages waiting;
    waiting.PutBack(MessageOf(7, 1), kNow);
    EXPECT_TRUE(waiting.Put(MessageOf(7, 2)));
    EXPECT_FALSE(waiting.TakeNext(kNow));
    EXPECT_EQ(waiting.TakeNext(kNow + 1s)->revision, 2U);
}

TEST(WaitingMessagesTest, AFailedMessageDoesNotReplaceANewerOne)
{
    WaitingMessages waiting;
    EXPECT_TRUE(waiting.Put(MessageOf(7, 2)));
    waiting.PutBack(MessageOf(7, 1), kNow);
    EXPECT_EQ(waiting.Count(), 1U);
    EXPECT_EQ(waiting.TakeNext(kNow + 1s)->revision, 2U);
}

TEST(WaitingMessagesTest, AnAnswerEndsTheDelays)
{
    WaitingMessages waiting;
    waiting.PutBack(MessageOf(7, 1), kNow);
    EXPECT_TRUE(waiting.TakeNext(kNow + 1s));
    waiting.Answered(7);
    EXPECT_TRUE(waiting.Put(MessageOf(7, 2)));
    EXPECT_TRUE(waiting.TakeNext(kNow));
}

TEST(WaitingMessagesTest, TheBytesOfAllPayloadsAreLimited)
{
    WaitingMessages waiting;
    EXPECT_TRUE(waiting.Put(MessageOf(7, 1, kHalf)));
    EXPECT_TRUE(waiting.Put(MessageOf(8, 1, kHalf)));
    EXPECT_FALSE(waiting.Put(MessageOf(9, 1)));
    EXPECT_EQ(NextVpn(waiting), 7U);
    EXPECT_TRUE(waiting.Put(MessageOf(9, 1)));
    EXPECT_FALSE(waiting.Put(MessageOf(10, 1, kHalf)));
}

TEST(WaitingMessagesTest, WhatIsReplacedLeavesItsRoom)
{
    WaitingMessages waiting;
    EXPECT_TRUE(waiting.Put(MessageOf(7, 1, kHalf)));
    EXPECT_TRUE(waiting.Put(MessageOf(7, 2, 2 * kHalf)));
    EXPECT_FALSE(waiting.Put(MessageOf(8, 1)));
    EXPECT_FALSE(waiting.Put(MessageOf(7, 3, 2 * kHalf + 1)));
    EXPECT_TRUE(waiting.IsEmpty());
    EXPECT_TRUE(waiting.Put(MessageOf(8, 1, 2 * kHalf)));
}

} // namespace
} // namespace kavel::link
