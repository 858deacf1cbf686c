#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "contract_test.h"
#include "vqSafeStr.h"

namespace kavel::contract {
namespace {

constexpr std::string_view kText = "0123456789";
constexpr std::size_t kRoom = 16;

// A buffer of which only the first `size` bytes may be written.
struct Guarded {
    explicit Guarded(std::size_t usable) : size(usable) { bytes.fill('#'); }

    // The content of the buffer as a text; a buffer of size 0 is not read.
    [[nodiscard]] std::string Text() const { return size == 0 ? "" : bytes.data(); }
    [[nodiscard]] bool RestIsUntouched() const
    {
        return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(size), bytes.end(),
                           [](char byte) { return byte == '#'; });
    }

    std::size_t size;
    std::array<char, kRoom> bytes{};
};

class Strings : public ContractTest, public testing::WithParamInterface<std::size_t> {};

// Sizes below, at and above the ten characters with their terminator.
INSTANTIATE_TEST_SUITE_P(Sizes, Strings, testing::Values(0, 1, 2, 9, 10, 11, 12, 15));

TEST_P(Strings, FormattedTextIsTruncatedAndItsLengthReturned)
{
    PROMISE(kStringPrintLength);
    PROMISE(kStringPrintBounds);
    Guarded buffer(GetParam());
    EXPECT_EQ(VQ_SNPrintf(buffer.bytes.data(), buffer.size, "%s%u%c%c", "012345", 67U, '8', '9'), kText.size());
    EXPECT_EQ(buffer.Text(), kText.substr(0, buffer.size == 0 ? 0 : buffer.size - 1));
    EXPECT_TRUE(buffer.RestIsUntouched());
}

TEST_P(Strings, CopiedTextIsTruncatedAndItsLengthReturned)
{
    PROMISE(kStringCopy);
    PROMISE(kStringCopyBounds);
    Guarded buffer(GetParam());
    EXPECT_EQ(VQ_SafeStrCopy(buffer.bytes.data(), buffer.size, kText.data()), kText.size());
    EXPECT_EQ(buffer.Text(), kText.substr(0, buffer.size == 0 ? 0 : buffer.size - 1));
    EXPECT_TRUE(buffer.RestIsUntouched());
}

TEST_P(Strings, EmptyTextIsTerminated)
{
    Guarded formatted(GetParam());
    EXPECT_EQ(VQ_SNPrintf(formatted.bytes.data(), formatted.size, "%s", ""), 0U);
    EXPECT_EQ(formatted.Text(), "");
    EXPECT_TRUE(formatted.RestIsUntouched());
    Guarded copied(GetParam());
    EXPECT_EQ(VQ_SafeStrCopy(copied.bytes.data(), copied.size, ""), 0U);
    EXPECT_EQ(copied.Text(), "");
    EXPECT_TRUE(copied.RestIsUntouched());
}

class Formatting : public ContractTest {};

TEST_F(Formatting, WithoutABufferReturnsTheLength)
{
    EXPECT_EQ(VQ_SNPrintf(nullptr, 0, "%s", kText.data()), kText.size());
}

TEST_F(Formatting, SupportsTheConversionsThatTheModuleUses)
{
    PROMISE(kStringPrint);
    std::array<char, 128> text{};
    EXPECT_EQ(
        VQ_SNPrintf(text.data(), text.size(), "%u.%u %s %d %zu %c%%", 255U, 4294967295U, "x", -75, sizeof(char), 'y'),
        25U);
    EXPECT_STREQ(text.data(), "255.4294967295 x -75 1 y%");
}

TEST_F(Formatting, ReturnsTheLengthOfATextThatIsMuchTooLong)
{
    const std::string text(100000, 'x');
    Guarded formatted(8);
    EXPECT_EQ(VQ_SNPrintf(formatted.bytes.data(), formatted.size, "%s", text.c_str()), text.size());
    EXPECT_EQ(formatted.Text(), "xxxxxxx");
    Guarded copied(8);
    EXPECT_EQ(VQ_SafeStrCopy(copied.bytes.data(), copied.size, text.c_str()), text.size());
    EXPECT_EQ(copied.Text(), "xxxxxxx");
}

} // namespace
} // namespace kavel::contract
