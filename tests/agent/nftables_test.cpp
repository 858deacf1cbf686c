// What needs no rights and changes nothing.
#include "base/nftables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "emulator.h"
#include "scratch.h"

namespace kavel::agent {
namespace {

TEST(NftablesError, HasATextInAnyCase)
{
    EXPECT_STREQ(NftablesError(ENOENT, "Error: no table").what(), "Error: no table");
    EXPECT_STREQ(NftablesError(ENOENT, "").what(), "No such file or directory");
    EXPECT_EQ(NftablesError(ENOENT, "").code().value(), ENOENT);
}

TEST(NftablesContext, ACommandThatCannotBeReadFailsWithTheFirstLineOfItsError)
{
    KAVEL_SKIP_IF_EMULATED("netfilter sockets are not passed on");
    NftablesContext context;
    const CapturedStderr captured; // the library says there that an ordinary user may not ask the kernel
    const ThrownError failure = FailureOf([&] { (void)context.Run("add nonsense\n"); });
    EXPECT_NE(failure.error, 0);
    EXPECT_THAT(failure.text, testing::HasSubstr("Error: syntax error"));
    EXPECT_THAT(failure.text, testing::Not(testing::HasSubstr("\n")));
}

TEST(NftablesContext, NoCommandListsNothing)
{
    KAVEL_SKIP_IF_EMULATED("netfilter sockets are not passed on");
    NftablesContext context;
    EXPECT_EQ(context.Run(""), "");
}

TEST(NftablesContexts, AVpnThatIsNotConfiguredHasNone)
{
    const Config config;
    const Namespaces namespaces(config);
    NftablesContexts contexts(namespaces);
    EXPECT_EQ(FailureOf([&] { (void)contexts.Run(7, ""); }), (ThrownError{ENOENT, "vpn 7: No such file or directory"}));
    EXPECT_NO_THROW(contexts.CloseStale());
}

} // namespace
} // namespace kavel::agent
