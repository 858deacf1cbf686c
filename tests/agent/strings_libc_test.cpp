#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <string>

#include "vqSafeStr.h"

namespace kavel::agent {
namespace {

TEST(StringsLibc, FormatsWithinTheBuffer)
{
    std::array<char, 8> buffer{};
    buffer.fill('#');
    EXPECT_EQ(VQ_SNPrintf(buffer.data(), 4, "%s", "abcdef"), 6U);
    EXPECT_STREQ(buffer.data(), "abc");
    EXPECT_EQ(buffer[4], '#');
    EXPECT_EQ(VQ_SNPrintf(buffer.data(), buffer.size(), "%d", 7), 1U);
    EXPECT_STREQ(buffer.data(), "7");
}

// The C locale has no byte for this character.
TEST(StringsLibc, AFormatThatFailsCountsAsOneThatDoesNotFit)
{
    std::array<char, 8> buffer{"before"};
    EXPECT_EQ(VQ_SNPrintf(buffer.data(), buffer.size(), "%ls", L"\u20AC"), buffer.size());
    EXPECT_STREQ(buffer.data(), "");
    EXPECT_EQ(VQ_SNPrintf(nullptr, 0, "%ls", L"\u20AC"), 0U);
}

TEST(StringsLibc, CopiesWhatFits)
{
    std::array<char, 8> buffer{};
    EXPECT_EQ(VQ_SafeStrCopy(buffer.data(), 4, "abcdef"), 6U);
    EXPECT_STREQ(buffer.data(), "abc");
    EXPECT_EQ(VQ_SafeStrCopy(buffer.data(), 4, nullptr), 0U);
    EXPECT_STREQ(buffer.data(), "");
    buffer.fill('#');
    EXPECT_EQ(VQ_SafeStrCopy(buffer.data(), 0, "abc"), 3U);
    EXPECT_EQ(buffer[0], '#');
}

TEST(StringsLibc, ReadsAnIpv4Address)
{
    std::uint32_t address = 0;
    const char *const text = "10.1.2.255 more";
    EXPECT_EQ(VQ_SafeStrGetIp4Addr(text, 10, &address), text);
    EXPECT_EQ(address, 0x0A0102FFU);
}

TEST(StringsLibc, LeavesTheAddressWhenTheTextIsNone)
{
    std::uint32_t address = 7;
    for (const char *text : {"", "10.1.2", "10.1.2.256", "10.1.2.3 ", "1000.1.2.3.4.5.6", "::1"}) {
        EXPECT_EQ(VQ_SafeStrGetIp4Addr(text, 100, &address), nullptr) << text;
    }
    EXPECT_EQ(VQ_SafeStrGetIp4Addr(nullptr, 100, &address), nullptr);
    EXPECT_EQ(VQ_SafeStrGetIp4Addr("10.1.2.3", 100, nullptr), nullptr);
    EXPECT_EQ(address, 7U);
}

TEST(StringsLibc, WritesAnIpv4Address)
{
    std::array<char, 16> buffer{};
    EXPECT_EQ(VQ_IPNum2IPStr(0x0A0102FFU, 0, buffer.data(), 11), 0);
    EXPECT_STREQ(buffer.data(), "10.1.2.255");
    buffer.fill('#');
    EXPECT_EQ(VQ_IPNum2IPStr(0x0A0102FFU, 0, buffer.data(), 10), -EOVERFLOW);
    EXPECT_EQ(VQ_IPNum2IPStr(0x0A0102FFU, 1, buffer.data(), 16), -EINVAL);
    EXPECT_EQ(VQ_IPNum2IPStr(0x0A0102FFU, 0, nullptr, 16), -EINVAL);
    EXPECT_EQ(buffer[0], '#');
}

} // namespace
} // namespace kavel::agent
