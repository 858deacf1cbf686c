#include "socket/receive_buffer.h"

#include <gtest/gtest.h>
#include <optional>
#include <utility>

#include "test_box.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kOwn = ReceiveBudget::kOwnBytes;

class ReceiveBufferTest : public testing::Test {
  protected:
    ReceiveBudget budget_{1000};
    ReceiveBuffer first_{budget_};
    ReceiveBuffer second_{budget_};
};

TEST_F(ReceiveBufferTest, KeepsWhatIsAppendedInItsOrder)
{
    EXPECT_TRUE(first_.IsEmpty());
    EXPECT_TRUE(first_.Append(Bytes{1, 2}));
    EXPECT_TRUE(first_.Append(Bytes{3}));
    EXPECT_EQ(Bytes(first_.Bytes().begin(), first_.Bytes().end()), (Bytes{1, 2, 3}));
    EXPECT_EQ(first_.TakeFront(2), (Bytes{1, 2}));
    EXPECT_EQ(Bytes(first_.Bytes().begin(), first_.Bytes().end()), Bytes{3});
    first_.Clear();
    EXPECT_TRUE(first_.IsEmpty());
}

TEST_F(ReceiveBufferTest, CountsWhatExceedsTheOwnBytesOfEach)
{
    EXPECT_TRUE(first_.Append(Bytes(kOwn)));
    EXPECT_EQ(budget_.Shared(), 0U);
    EXPECT_TRUE(first_.Append(Bytes(7)));
    EXPECT_EQ(budget_.Shared(), 7U);
    EXPECT_TRUE(second_.Append(Bytes(kOwn + 5)));
    EXPECT_EQ(budget_.Shared(), 12U);
    first_.Clear();
    EXPECT_EQ(budget_.Shared(), 5U);
    first_.Clear();
    EXPECT_EQ(budget_.Shared(), 5U);
}

TEST_F(ReceiveBufferTest, RefusesWhatExceedsTheBudgetAndStaysAsItIs)
{
    EXPECT_TRUE(first_.Append(Bytes(kOwn + 400)));
    EXPECT_TRUE(second_.Append(Bytes(kOwn + 599)));
    EXPECT_FALSE(first_.Append(Bytes(2)));
    EXPECT_EQ(first_.Size(), kOwn + 400);
    EXPECT_EQ(budget_.Shared(), 999U);
    EXPECT_TRUE(first_.Append(Bytes(1)));
    EXPECT_FALSE(second_.Append(Bytes(1)));
    EXPECT_EQ(budget_.Shared(), 1000U);
}

TEST_F(ReceiveBufferTest, ItsOwnBytesFitIntoAFullBudget)
{
    EXPECT_TRUE(first_.Append(Bytes(kOwn + 1000)));
    EXPECT_TRUE(second_.Append(Bytes(kOwn)));
    EXPECT_FALSE(second_.Append(Bytes(1)));
}

TEST_F(ReceiveBufferTest, WhatIsTakenLeavesTheBudget)
{
    EXPECT_TRUE(first_.Append(Bytes(kOwn + 1000)));
    EXPECT_EQ(first_.TakeFront(300).size(), 300U);
    EXPECT_EQ(budget_.Shared(), 700U);
    EXPECT_EQ(first_.TakeFront(kOwn).size(), kOwn);
    EXPECT_EQ(budget_.Shared(), 0U);
    EXPECT_EQ(first_.Size(), 700U);
    EXPECT_EQ(first_.TakeFront(700).size(), 700U);
    EXPECT_TRUE(second_.Append(Bytes(kOwn + 1000)));
}

TEST_F(ReceiveBufferTest, ABufferThatMovesIsCountedOnceUntilItsEnd)
{
    std::optional<ReceiveBuffer> third(budget_);
    EXPECT_TRUE(third->Append(Bytes(kOwn + 10)));
    {
        const ReceiveBuffer moved(*std::exchange(third, std::nullopt));
        EXPECT_EQ(moved.Size(), kOwn + 10);
        EXPECT_EQ(budget_.Shared(), 10U);
    }
    EXPECT_EQ(budget_.Shared(), 0U);
}

} // namespace
} // namespace kavel::agent
