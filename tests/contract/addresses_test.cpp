#include <array>
#include <cstring>
#include <string>

#include "contract_test.h"
#include "vqSafeStr.h"

namespace kavel::contract {
namespace {

using testing::NotNull;

constexpr std::uint32_t kTextSize = 19;
constexpr std::uint32_t kUntouched = 0xA5A5A5A5U;
constexpr std::array<std::uint32_t, 14> kOctets{0, 1, 9, 10, 99, 100, 127, 128, 199, 200, 249, 250, 254, 255};

std::string Dotted(std::uint32_t first, std::uint32_t second, std::uint32_t third, std::uint32_t fourth)
{
    return std::to_string(first) + '.' + std::to_string(second) + '.' + std::to_string(third) + '.' +
           std::to_string(fourth);
}

void ExpectConvertedBothWays(std::uint32_t address, const std::string &text)
{
    std::array<char, kTextSize> written{};
    ASSERT_GE(VQ_IPNum2IPStr(address, 0, written.data(), kTextSize), 0) << text;
    ASSERT_EQ(written.data(), text);
    std::uint32_t read = kUntouched;
    ASSERT_THAT(VQ_SafeStrGetIp4Addr(text.c_str(), text.size(), &read), NotNull()) << text;
    ASSERT_EQ(read, address) << text;
}

class Addresses : public ContractTest {};

TEST_F(Addresses, EveryOctetIsConvertedInEveryPlace)
{
    PROMISE(kStringAddressRead);
    PROMISE(kStringAddressWrite);
    for (const std::uint32_t first : kOctets) {
        for (const std::uint32_t second : kOctets) {
            for (const std::uint32_t third : kOctets) {
                for (const std::uint32_t fourth : kOctets) {
                    ExpectConvertedBothWays(Ip(first, second, third, fourth), Dotted(first, second, third, fourth));
                }
            }
        }
    }
}

TEST_F(Addresses, InvalidTextIsRefused)
{
    PROMISE(kStringAddressRefused);
    for (const std::string text :
         {"",           " ",          ".",         "...",       "1",          "1.2.3",       "1.2.3.",    ".1.2.3",
          "1..2.3",     "1.2.3.4.",   "1.2.3.4.5", "256.1.1.1", "1.256.1.1",  "1.1.256.1",   "1.1.1.256", "1.1.1.999",
          "1111.1.1.1", "1.1.1.1111", " 1.2.3.4",  "1.2.3.4 ",  "1.2.3.4\n",  "1.2.3.4x",    "x1.2.3.4",  "a.b.c.d",
          "-1.2.3.4",   "+1.2.3.4",   "1.2.3.-4",  "0x1.2.3.4", "01.2.3.4",   "1.2.3.04",    "1,2,3,4",   "1.2.3.4/8",
          "1.2.3.4:53", "::1",        "::1.2.3.4", "localhost", "4294967295", "1.2.3.4\xff", "1 .2.3.4",  "1.2.3. 4"}) {
        std::uint32_t address = kUntouched;
        EXPECT_EQ(VQ_SafeStrGetIp4Addr(text.c_str(), text.size() + 1, &address), nullptr) << '"' << text << '"';
        EXPECT_EQ(address, kUntouched) << '"' << text << '"';
    }
}

// Nothing after `size` bytes may be read.
TEST_F(Addresses, TextNeedsNoTerminator)
{
    PROMISE(kStringAddressSize);
    const std::string text = "192.168.200.25";
    const std::string exact(text.begin(), text.end());
    const auto unterminated = std::make_unique<char[]>(exact.size());
    std::memcpy(unterminated.get(), exact.data(), exact.size());
    std::uint32_t address = kUntouched;
    EXPECT_THAT(VQ_SafeStrGetIp4Addr(unterminated.get(), exact.size(), &address), NotNull());
    EXPECT_EQ(address, Ip(192, 168, 200, 25));
}

TEST_F(Addresses, TextMayBeTerminatedBeforeItsSize)
{
    for (const std::size_t size : {9U, 15U, 16U, 19U, 256U}) {
        std::array<char, 256> text{"127.0.0.1"};
        std::uint32_t address = kUntouched;
        EXPECT_THAT(VQ_SafeStrGetIp4Addr(text.data(), size, &address), NotNull()) << size;
        EXPECT_EQ(address, Ip(127, 0, 0, 1)) << size;
    }
}

TEST_F(Addresses, TextOfSizeZeroIsRefused)
{
    std::uint32_t address = kUntouched;
    EXPECT_EQ(VQ_SafeStrGetIp4Addr("1.2.3.4", 0, &address), nullptr);
    EXPECT_EQ(address, kUntouched);
}

// The shortest and the longest text, with every buffer size: text that does not fit is an error, never truncated.
TEST_F(Addresses, DottedFormFitsOrFails)
{
    PROMISE(kStringAddressBounds);
    world().AllowUnusualUse();
    for (const std::uint32_t address : {Ip(0, 0, 0, 0), Ip(10, 0, 0, 1), Ip(255, 255, 255, 255)}) {
        const std::string text = Dotted(address >> 24U, address >> 16U & 255U, address >> 8U & 255U, address & 255U);
        for (std::uint32_t size = 0; size <= kTextSize; ++size) {
            std::array<char, kTextSize + 1> buffer{};
            buffer.fill('#');
            const int result = VQ_IPNum2IPStr(address, 0, buffer.data(), size);
            if (size > text.size()) {
                EXPECT_GE(result, 0) << text << " in " << size;
                EXPECT_EQ(buffer.data(), text);
            } else {
                EXPECT_LT(result, 0) << text << " in " << size;
            }
            EXPECT_EQ(std::string(buffer.begin() + size, buffer.end()), std::string(buffer.size() - size, '#'))
                << text << " in " << size;
        }
    }
}

} // namespace
} // namespace kavel::contract
