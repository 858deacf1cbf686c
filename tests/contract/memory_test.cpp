#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>

#include "contract_test.h"
#include "vqDnsmasqConf.h"
#include "vqMemory.h"

// By default a sanitizer's allocator aborts if a request is too large; others return null.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace kavel::contract {
namespace {

using testing::IsNull;
using testing::NotNull;

bool IsZero(const void *memory, std::size_t size)
{
    return std::ranges::all_of(std::span(static_cast<const unsigned char *>(memory), size),
                               [](unsigned char byte) { return byte == 0; });
}

class Memory : public ContractTest {};

// From the second round on, the memory may be reused, and was written to.
TEST_F(Memory, ZeroedMemoryIsZeroAlsoIfReused)
{
    PROMISE(kMemoryZeroed);
    PROMISE(kMemoryZeroedAgain);
    for (const std::size_t size : {std::size_t{1}, std::size_t{24}, std::size_t{4096}, sizeof(VQ_DNSMASQ_CONF)}) {
        for (int round = 0; round < 3; ++round) {
            void *const memory = VQ_AgentMemZeroAlloc(size);
            ASSERT_THAT(memory, NotNull());
            EXPECT_TRUE(IsZero(memory, size)) << size;
            std::memset(memory, 0xFF, size);
            VQ_AgentMemFree(memory);
        }
    }
}

TEST_F(Memory, RecordsCanBeAllocated)
{
    PROMISE(kMemoryRecord);
    void *const first = VQ_AgentMemAlloc(sizeof(VQ_DNSMASQ_CONF));
    void *const second = VQ_AgentMemAlloc(sizeof(VQ_DNSMASQ_CONF));
    ASSERT_THAT(first, NotNull());
    ASSERT_THAT(second, NotNull());
    std::memset(first, 1, sizeof(VQ_DNSMASQ_CONF));
    std::memset(second, 0, sizeof(VQ_DNSMASQ_CONF));
    EXPECT_EQ(static_cast<unsigned char *>(first)[sizeof(VQ_DNSMASQ_CONF) - 1], 1U);
    VQ_AgentMemFree(first);
    VQ_AgentMemFree(second);
}

TEST_F(Memory, AllocationsDoNotOverlap)
{
    PROMISE(kMemoryWritable);
    void *const first = VQ_AgentMemAlloc(4096);
    void *const second = VQ_AgentMemAlloc(4096);
    ASSERT_THAT(first, NotNull());
    ASSERT_THAT(second, NotNull());
    std::memset(first, 1, 4096);
    std::memset(second, 0, 4096);
    EXPECT_TRUE(IsZero(second, 4096));
    EXPECT_EQ(static_cast<unsigned char *>(first)[4095], 1U);
    VQ_AgentMemFree(first);
    VQ_AgentMemFree(second);
}

TEST_F(Memory, IsAlignedForAnyObject)
{
    PROMISE(kMemoryAligned);
    for (const auto allocate : {&VQ_AgentMemAlloc, &VQ_AgentMemZeroAlloc}) {
        void *const memory = allocate(1);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0U);
        VQ_AgentMemFree(memory);
    }
}

// Null would mean that memory is exhausted.
TEST_F(Memory, SizeZeroIsNotNull)
{
    PROMISE(kMemorySizeZero);
    for (const auto allocate : {&VQ_AgentMemAlloc, &VQ_AgentMemZeroAlloc}) {
        void *const memory = allocate(0);
        EXPECT_THAT(memory, NotNull());
        VQ_AgentMemFree(memory);
    }
}

TEST_F(Memory, TooLargeRequestReturnsNull)
{
    PROMISE(kMemoryExhausted);
    // More than half of any address space: no object is that large.
    constexpr std::size_t kTooMuch = std::numeric_limits<std::size_t>::max() / 4 * 3;
    EXPECT_THAT(VQ_AgentMemAlloc(kTooMuch), IsNull());
    EXPECT_THAT(VQ_AgentMemZeroAlloc(kTooMuch), IsNull());
}

TEST_F(Memory, ReleasingNullIsAllowed)
{
    PROMISE(kMemoryFreeNull);
    world().AllowUnusualUse();
    VQ_AgentMemFree(nullptr);
    void *const memory = VQ_AgentMemZeroAlloc(24);
    EXPECT_THAT(memory, NotNull());
    VQ_AgentMemFree(memory);
}

} // namespace
} // namespace kavel::contract
