#include "base/zeroed_pages.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

#include "base/procfs.h"

namespace kavel::agent {
namespace {

using Large = std::array<std::uint8_t, std::size_t{32} << 20U>;

TEST(ZeroedPages, TakeMemoryOnlyWhereTheyAreWritten)
{
    const std::uint64_t before = InspectProcess(::getpid()).memoryBytes;
    const auto large = MapZeroed<Large>();
    EXPECT_LT(InspectProcess(::getpid()).memoryBytes, before + large->size() / 4);
    std::memset(large->data(), 1, large->size());
    EXPECT_GT(InspectProcess(::getpid()).memoryBytes, before + large->size() / 2);
    ClearPages(*large);
    EXPECT_LT(InspectProcess(::getpid()).memoryBytes, before + large->size() / 4);
    const auto zeroes = std::make_unique<Large>();
    EXPECT_EQ(std::memcmp(large->data(), zeroes->data(), large->size()), 0);
}

} // namespace
} // namespace kavel::agent
