#include "socket/request_queues.h"

#include <gtest/gtest.h>

#include "test_box.h"

namespace kavel::agent {
namespace {

// A request whose frame has `size` bytes, the first of which is `mark`.
ReceivedRequest Marked(std::uint8_t mark, std::size_t size = 1)
{
    ReceivedRequest request;
    request.frame.bytes.resize(size);
    request.frame.bytes[0] = mark;
    return request;
}

std::optional<int> TakeMark(RequestQueues &queues, std::uint32_t vpnId)
{
    const auto request = queues.Take(vpnId);
    return request ? std::optional<int>(request->frame.bytes.at(0)) : std::nullopt;
}

TEST(RequestQueues, GivesTheOldestRequestOfTheVpn)
{
    RequestQueues queues;
    queues.Add(7, Marked(1));
    queues.Add(8, Marked(2));
    queues.Add(7, Marked(3));
    EXPECT_EQ(TakeMark(queues, 7), 1);
    EXPECT_EQ(TakeMark(queues, 7), 3);
    EXPECT_EQ(TakeMark(queues, 7), std::nullopt);
    EXPECT_EQ(TakeMark(queues, 8), 2);
    EXPECT_EQ(TakeMark(queues, 9), std::nullopt);
}

TEST(RequestQueues, IsEmptyWithoutRequestsOfTheVpn)
{
    RequestQueues queues;
    EXPECT_TRUE(queues.IsEmpty(7));
    queues.Add(7, Marked(1));
    EXPECT_FALSE(queues.IsEmpty(7));
    EXPECT_TRUE(queues.IsEmpty(8));
    (void)queues.Take(7);
    EXPECT_TRUE(queues.IsEmpty(7));
}

TEST(RequestQueues, TakesSixteenRequestsPerVpn)
{
    RequestQueues queues;
    for (std::uint8_t count = 0; count < 16; ++count) {
        ASSERT_EQ(queues.Objection(7, 1), std::nullopt) << int{count};
        queues.Add(7, Marked(count));
    }
    EXPECT_EQ(queues.Objection(7, 1), "16 requests are waiting for vpn 7 already");
    EXPECT_EQ(queues.Objection(8, 1), std::nullopt);
    (void)queues.Take(7);
    EXPECT_EQ(queues.Objection(7, 1), std::nullopt);
}

TEST(RequestQueues, TakesSixtyFourMebibytesOfAllVpns)
{
    constexpr std::size_t kMebibyte = 1024 * 1024;
    const std::string objection = "the waiting requests would take more than 67108864 bytes";
    RequestQueues queues;
    EXPECT_EQ(queues.Objection(7, 64 * kMebibyte), std::nullopt);
    EXPECT_EQ(queues.Objection(7, 64 * kMebibyte + 1), objection);
    queues.Add(7, Marked(1, 40 * kMebibyte));
    queues.Add(8, Marked(2, 20 * kMebibyte));
    EXPECT_EQ(queues.Objection(9, 4 * kMebibyte), std::nullopt);
    EXPECT_EQ(queues.Objection(9, 4 * kMebibyte + 1), objection);
    (void)queues.Take(8);
    EXPECT_EQ(queues.Objection(9, 24 * kMebibyte), std::nullopt);
    EXPECT_EQ(queues.Objection(9, 24 * kMebibyte + 1), objection);
}

TEST(RequestQueues, TakeAllLeavesNothing)
{
    RequestQueues queues;
    queues.Add(8, Marked(3));
    queues.Add(7, Marked(1, RequestQueues::kBytesMax / 2));
    queues.Add(7, Marked(2));
    std::vector<int> marks;
    for (const ReceivedRequest &request : queues.TakeAll()) {
        marks.push_back(request.frame.bytes.at(0));
    }
    EXPECT_EQ(marks, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(queues.IsEmpty(7));
    EXPECT_TRUE(queues.IsEmpty(8));
    EXPECT_EQ(queues.Objection(7, RequestQueues::kBytesMax), std::nullopt);
}

TEST(RequestQueues, KeepsTheWayBackToTheClient)
{
    RequestQueues queues;
    std::int32_t result = 0;
    ReceivedRequest request = Marked(1);
    request.respond = [&](const Answer &answer) { result = answer.result; };
    queues.Add(7, std::move(request));
    queues.Take(7)->respond(Refusal(-5));
    EXPECT_EQ(result, -5);
}

} // namespace
} // namespace kavel::agent
