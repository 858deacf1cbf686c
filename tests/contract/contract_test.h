// The base of every contract test: a fresh world, and no complaint of the host at the end.
#ifndef CONTRACT_CONTRACT_TEST_H
#define CONTRACT_CONTRACT_TEST_H

#include <cstdint>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "promise_names.h"
#include "world.h"

namespace kavel::contract {

constexpr std::uint32_t Ip(std::uint32_t first, std::uint32_t second, std::uint32_t third, std::uint32_t fourth)
{
    return first << 24U | second << 16U | third << 8U | fourth;
}

// Says which promise of the host interface the rest of a test checks: a failure names it. One use per line.
#define PROMISE(name) SCOPED_TRACE(promises::name) // NOLINT(cppcoreguidelines-macro-usage): it is one statement

class ContractTest : public testing::Test {
  protected:
    void TearDown() override
    {
        EXPECT_THAT(world_->Complaints(), testing::IsEmpty());
        world_->CleanUp();
    }

    [[nodiscard]] World &world() const { return *world_; }

  private:
    std::unique_ptr<World> world_ = MakeWorld();
};

} // namespace kavel::contract

#endif
