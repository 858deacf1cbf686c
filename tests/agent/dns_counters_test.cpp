// The answers of instances are read here; the questions themselves need a network namespace.
#include "instances/dns_counters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::Optional;

constexpr std::size_t kFlags = 2;
constexpr std::size_t kAnswers = 7; // the low byte of their number

// The question "hits.bind CH TXT", and one answer that points at its name and holds these strings.
Bytes TxtAnswer(const std::vector<std::string> &strings)
{
    Bytes message{0x12, 0x34, 0x85, 0x80, 0, 1,  0, 1, 0,    0,    0, 0,  4, 'h', 'i', 't', 's', 4, 'b',
                  'i',  'n',  'd',  0,    0, 16, 0, 3, 0xC0, 0x0C, 0, 16, 0, 3,   0,   0,   0,   0};
    Bytes content;
    for (const std::string &text : strings) {
        content.push_back(static_cast<std::uint8_t>(text.size()));
        content.insert(content.end(), text.begin(), text.end());
    }
    message.push_back(static_cast<std::uint8_t>(content.size() >> 8U));
    message.push_back(static_cast<std::uint8_t>(content.size()));
    message.insert(message.end(), content.begin(), content.end());
    return message;
}

TEST(TxtStrings, AreTheStringsOfTheAnswer)
{
    EXPECT_THAT(TxtStrings(TxtAnswer({"42"})), Optional(ElementsAre("42")));
    EXPECT_THAT(TxtStrings(TxtAnswer({"10.7.0.53#53 1 0", "", std::string(255, 'x')})),
                Optional(ElementsAre("10.7.0.53#53 1 0", "", std::string(255, 'x'))));
    EXPECT_THAT(TxtStrings(TxtAnswer({})), Optional(ElementsAre()));
}

TEST(TxtStrings, OtherRecordsHaveNone)
{
    Bytes message = TxtAnswer({"421"}); // four bytes, as of an address
    message[30] = 1;                    // an A record
    EXPECT_THAT(TxtStrings(message), Optional(ElementsAre()));
}

TEST(TxtStrings, NothingInAFailureOrATruncatedAnswer)
{
    Bytes refused = TxtAnswer({"42"});
    refused[kFlags + 1] |= 5U;
    EXPECT_EQ(TxtStrings(refused), std::nullopt);
    Bytes truncated = TxtAnswer({"42"});
    truncated[kFlags] |= 2U;
    EXPECT_EQ(TxtStrings(truncated), std::nullopt);
    EXPECT_TRUE(IsTruncated(truncated));
    EXPECT_FALSE(IsTruncated(TxtAnswer({"42"})));
    EXPECT_FALSE(IsTruncated(Bytes{0xFF, 0xFF}));
}

TEST(TxtStrings, NothingInAMalformedMessage)
{
    const Bytes whole = TxtAnswer({"42", "43"});
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_EQ(TxtStrings(std::span(whole).first(size)), std::nullopt) << size;
    }
    Bytes more = whole;
    more[kAnswers] = 2;
    EXPECT_EQ(TxtStrings(more), std::nullopt) << "it has one answer less than it says";
}

TEST(TxtStrings, AMessageWithAStringThatIsLongerThanItsRecordIsMalformed)
{
    Bytes message = TxtAnswer({"42"});
    message[39] = 200;
    EXPECT_EQ(TxtStrings(message), std::nullopt);
}

TEST(ReadUpstream, ReadsServerAndNumbers)
{
    EXPECT_EQ(ReadUpstream("10.7.0.53#53 12 3"), (UpstreamCounters{"10.7.0.53#53", 12, 3}));
    EXPECT_EQ(ReadUpstream("fe80::1%lan0#5353 4294967295 0 7 more"),
              (UpstreamCounters{"fe80::1%lan0#5353", 4294967295U, 0}));
    for (const char *text : {"", "10.7.0.53#53", "10.7.0.53#53 12", "10.7.0.53#53 x 3", "10.7.0.53#53 12 -3"}) {
        EXPECT_EQ(ReadUpstream(text), std::nullopt) << text;
    }
}

class DnsCountersQueryTest : public testing::Test {
  protected:
    TestBox box_;
    Host host_{box_.Configuration()};
    EventLoop loop_;
};

TEST_F(DnsCountersQueryTest, EndsWithoutCountersWhenNobodyCanBeAsked)
{
    std::vector<std::uint32_t> vpnIds(40, TestVpn(1));
    vpnIds.push_back(0);
    int ended = 0;
    const DnsCountersQuery query(loop_, host_, vpnIds, [&](const DnsCountersQuery::CountersByVpn &counters) {
        ++ended;
        EXPECT_FALSE(counters.contains(TestVpn(1)));
    });
    EXPECT_EQ(ended, 0) << "the loop tells it";
    EXPECT_TRUE(RunUntil(loop_, [&] { return ended > 0; }));
    DispatchReady(loop_);
    EXPECT_EQ(ended, 1);
}

} // namespace
} // namespace kavel::agent
