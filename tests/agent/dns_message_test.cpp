#include "base/dns_message.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "dns_types.h"

namespace kavel::agent {
namespace {

using Wire = std::vector<std::uint8_t>;

constexpr std::uint16_t kId = 0x1234;

Wire Text(const std::string &text)
{
    return {text.begin(), text.end()};
}

Wire Join(const std::vector<Wire> &parts)
{
    Wire all;
    for (const Wire &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// The header of an answer with one question, and the question: "a.b" of any type.
Wire AnswerTo(std::uint8_t records, std::uint8_t rcode = 0, std::uint8_t flags = 0x80)
{
    return Join({{0x12, 0x34, flags, rcode, 0, 1, 0, records, 0, 0, 0, 0}, {1, 'a', 1, 'b', 0, 0, 1, 0, 1}});
}

// A record of "a.b", whose name is a pointer to the question.
Wire Record(std::uint16_t type, const Wire &data)
{
    return Join({{0xC0, 12, static_cast<std::uint8_t>(type >> 8U), static_cast<std::uint8_t>(type), 0, 1, 0, 0, 0, 60},
                 {static_cast<std::uint8_t>(data.size() >> 8U), static_cast<std::uint8_t>(data.size())},
                 data});
}

std::string OnlyRecord(std::uint16_t type, const Wire &data)
{
    const auto answer = DecodeDnsAnswer(Join({AnswerTo(1), Record(type, data)}), kId);
    return answer ? answer->records.at(0) : "malformed";
}

TEST(EncodeDnsQuestion, IsAHeaderAndTheQuestion)
{
    EXPECT_EQ(EncodeDnsQuestion("a.bc", 15, kId),
              (Wire{0x12, 0x34, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, 'a', 2, 'b', 'c', 0, 0, 15, 0, 1}));
    EXPECT_EQ(EncodeDnsQuestion("a.bc.", 15, kId), EncodeDnsQuestion("a.bc", 15, kId));
    EXPECT_EQ(EncodeDnsQuestion(".", 2, kId), (Wire{0x12, 0x34, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 1}));
}

TEST(EncodeDnsQuestion, RefusesWhatIsNoDomainName)
{
    const std::string longest(63, 'x');
    const std::string three = longest + "." + longest + "." + longest + ".";
    EXPECT_TRUE(EncodeDnsQuestion(longest, 1, kId));
    EXPECT_TRUE(EncodeDnsQuestion(three + std::string(61, 'x'), 1, kId));
    for (const std::string &name : {std::string(), std::string(".."), std::string("a..b"), std::string(".a"),
                                    std::string("a.."), longest + "x", three + std::string(62, 'x')}) {
        EXPECT_FALSE(EncodeDnsQuestion(name, 1, kId)) << name;
    }
}

TEST(DecodeDnsAnswer, ReadsEveryKnownType)
{
    EXPECT_EQ(OnlyRecord(1, {192, 0, 2, 1}), "a.b A 192.0.2.1");
    EXPECT_EQ(OnlyRecord(28, {0x20, 1, 0xD, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), "a.b AAAA 2001:db8::1");
    EXPECT_EQ(OnlyRecord(15, {0, 10, 1, 'm', 0xC0, 12}), "a.b MX 10 m.a.b");
    EXPECT_EQ(OnlyRecord(5, {1, 'c', 0}), "a.b CNAME c");
    EXPECT_EQ(OnlyRecord(2, {0}), "a.b NS .");
    EXPECT_EQ(OnlyRecord(12, {0xC0, 14}), "a.b PTR b");
    EXPECT_EQ(OnlyRecord(16, Join({{3}, Text("a \""), {2}, {0x07, 0xFF}})), R"(a.b TXT "a \"" "\007\255")");
    EXPECT_EQ(OnlyRecord(33, {0, 1, 0, 2, 0, 53, 1, 's', 0}), "a.b SRV 1 2 53 s");
    EXPECT_EQ(OnlyRecord(6, {1, 'n', 0, 1, 'h', 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 1, 0, 0}),
              "a.b SOA n h 1 2 3 4 65536");
    EXPECT_EQ(OnlyRecord(65, {1, 2, 3}), "a.b TYPE65 (3 bytes)");
    EXPECT_EQ(OnlyRecord(255, {}), "a.b ANY (0 bytes)");
}

TEST(DecodeDnsAnswer, EscapesWhatANameMayHold)
{
    EXPECT_EQ(OnlyRecord(5, {3, '.', '\\', ' ', 2, 0x1B, 0xC3, 0}), R"(a.b CNAME \.\\\032.\027\195)");
}

TEST(DecodeDnsAnswer, ReadsTheCode)
{
    const auto answer = DecodeDnsAnswer(AnswerTo(0, 0x83), kId);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->rcode, kNoSuchName);
    EXPECT_TRUE(answer->records.empty());
    EXPECT_FALSE(answer->isTruncated);
}

TEST(DecodeDnsAnswer, SaysWhetherItIsTruncated)
{
    const auto answer = DecodeDnsAnswer(AnswerTo(7, 0, 0x82), kId);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->isTruncated);
}

TEST(DecodeDnsAnswer, RefusesOtherMessages)
{
    EXPECT_TRUE(DecodeDnsAnswer(AnswerTo(0), kId));
    EXPECT_FALSE(DecodeDnsAnswer(AnswerTo(0), kId + 1));
    EXPECT_FALSE(DecodeDnsAnswer(AnswerTo(0, 0, 0), kId));
    EXPECT_FALSE(DecodeDnsAnswer({}, kId));
}

TEST(DecodeDnsAnswer, RefusesAMessageThatEndsEarly)
{
    const Wire whole = Join({AnswerTo(2), Record(15, {0, 10, 1, 'm', 0xC0, 12}), Record(16, {1, 'x'})});
    EXPECT_TRUE(DecodeDnsAnswer(whole, kId));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(DecodeDnsAnswer(std::span(whole).first(size), kId)) << size;
    }
}

TEST(DecodeDnsAnswer, RefusesWrongLengthsAndPointers)
{
    EXPECT_EQ(OnlyRecord(1, {192, 0, 2}), "malformed");
    EXPECT_EQ(OnlyRecord(1, {192, 0, 2, 1, 0}), "malformed");
    EXPECT_EQ(OnlyRecord(15, {0, 10}), "malformed");
    EXPECT_EQ(OnlyRecord(16, {5, 'x'}), "malformed");
    EXPECT_EQ(OnlyRecord(5, {0x40, 0}), "malformed");
    EXPECT_EQ(OnlyRecord(5, {0xC0, 33}), "malformed") << "a pointer to itself";
    EXPECT_EQ(OnlyRecord(5, {0xC0, 60}), "malformed") << "a pointer beyond the end";
    EXPECT_EQ(OnlyRecord(5, {1, 'x', 0xC0, 33}), "malformed") << "a pointer to its own name";
}

// Every byte in turn takes every value: nothing but an answer or a refusal may come of it.
TEST(DecodeDnsAnswer, EndsForEveryChangedByte)
{
    const Wire whole = Join({AnswerTo(3), Record(6, {1, 'n', 0xC0, 12, 1, 'h', 0xC0, 14, 0, 0, 0, 1, 0, 0,
                                                     0, 2,   0,    0,  0, 3,   0,    0,  0, 4, 0, 0, 0, 5}),
                             Record(16, {1, 'x', 0}), Record(33, {0, 1, 0, 2, 0, 53, 0xC0, 12})});
    std::size_t answers = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (unsigned value = 0; value <= 0xFF; ++value) {
            Wire changed = whole;
            changed[at] = static_cast<std::uint8_t>(value);
            answers += DecodeDnsAnswer(changed, kId) ? 1 : 0;
        }
    }
    EXPECT_GT(answers, whole.size());
}

TEST(DnsTypes, HaveNamesAndNumbers)
{
    EXPECT_EQ(DnsTypeNumber("MX"), 15);
    EXPECT_EQ(DnsTypeNumber("aaaa"), 28);
    EXPECT_EQ(DnsTypeNumber("type65"), 65);
    EXPECT_EQ(DnsTypeNumber("ANY"), 255);
    for (const char *text : {"", "TYPE", "TYPE65536", "TYPE-1", "65", "B"}) {
        EXPECT_EQ(DnsTypeNumber(text), std::nullopt) << text;
    }
    for (const NamedDnsType &one : kDnsTypes) {
        EXPECT_EQ(DnsTypeNumber(DnsTypeName(static_cast<std::uint16_t>(one.type))),
                  static_cast<std::uint16_t>(one.type));
    }
    EXPECT_EQ(DnsTypeName(65), "TYPE65");
}

} // namespace
} // namespace kavel::agent
