#include "services/memory_malloc.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "vqMemory.h"

namespace kavel::agent {
namespace {

// No multiple of a page.
constexpr std::size_t kSize = (std::size_t{4} << 20) + 1234;

class LargeObjectTest : public testing::Test {
  protected:
    LargeObjectTest() { std::memset(object_, 0xFF, kSize); }
    ~LargeObjectTest() override { VQ_AgentMemFree(object_); }

    [[nodiscard]] std::size_t CountOf(unsigned char value, std::size_t begin, std::size_t end) const
    {
        return static_cast<std::size_t>(std::count(object_ + begin, object_ + end, value));
    }

    unsigned char *const object_ = static_cast<unsigned char *>(VQ_AgentMemAlloc(kSize));
};

TEST_F(LargeObjectTest, IsZeroAfterItsPagesWereGivenBack)
{
    EXPECT_TRUE(ZeroInFreshPages(object_, kSize));
    EXPECT_EQ(CountOf(0, 0, kSize), kSize);
}

TEST_F(LargeObjectTest, IsZeroUpToTheSizeAndNotBehind)
{
    for (const std::size_t size : {kSize - 1, kSize - 1233, kSize - 1235, std::size_t{2} << 20}) {
        std::memset(object_, 0xFF, kSize);
        EXPECT_TRUE(ZeroInFreshPages(object_, size)) << size;
        EXPECT_EQ(CountOf(0, 0, size), size) << size;
        EXPECT_EQ(CountOf(0xFF, size, kSize), kSize - size) << size;
    }
}

TEST_F(LargeObjectTest, TakesNoMemoryWhenItIsZero)
{
    ASSERT_TRUE(ZeroInFreshPages(object_, kSize));
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(object_) + page - 1) / page * page;
    std::vector<unsigned char> resident(kSize / page - 1);
    ASSERT_EQ(::mincore(reinterpret_cast<void *>(first), resident.size() * page, resident.data()), 0);
    EXPECT_EQ(std::ranges::count_if(resident, [](unsigned char state) { return (state & 1U) != 0; }), 0);
}

TEST_F(LargeObjectTest, OtherMemoryIsLeftAlone)
{
    std::vector<unsigned char> other(kSize, 0xFF);
    EXPECT_FALSE(ZeroInFreshPages(other.data(), kSize));
    EXPECT_FALSE(ZeroInFreshPages(object_ + 1, kSize - 1));
    EXPECT_FALSE(ZeroInFreshPages(object_, kSize + 1));
    EXPECT_FALSE(ZeroInFreshPages(object_, std::size_t{1} << 20));
    EXPECT_EQ(CountOf(0xFF, 0, kSize), kSize);
    EXPECT_EQ(std::ranges::count(other, 0xFF), static_cast<std::ptrdiff_t>(kSize));
}

TEST_F(LargeObjectTest, AFreedObjectIsForgotten)
{
    void *const freed = VQ_AgentMemAlloc(kSize);
    VQ_AgentMemFree(freed);
    EXPECT_FALSE(ZeroInFreshPages(freed, kSize));
    EXPECT_FALSE(ZeroInFreshPages(object_, kSize)) << "only the newest one is known";
}

// Through the name that the module calls.
TEST_F(LargeObjectTest, MemsetWritesWhatItIsAsked)
{
    EXPECT_EQ(std::memset(object_, 0, kSize), object_);
    EXPECT_EQ(CountOf(0, 0, kSize), kSize);
    EXPECT_EQ(std::memset(object_, 7, kSize), object_);
    EXPECT_EQ(CountOf(7, 0, kSize), kSize);
    EXPECT_EQ(std::memset(object_ + 10, 0, 5), object_ + 10);
    EXPECT_EQ(CountOf(0, 0, kSize), 5U);
}

} // namespace
} // namespace kavel::agent
