#include "instances/dry_start.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "emulator.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

class DryStartTest : public testing::Test {
  protected:
    // What is told about a program in dnsmasq's place.
    std::optional<std::string> ReasonOf(const std::string &script)
    {
        const std::string program = box_.Path("/dnsmasq");
        box_.Write("/dnsmasq", "#!/bin/sh\n" + script + "\n");
        EXPECT_EQ(::chmod(program.c_str(), 0755), 0);
        std::optional<std::string> result = "nothing was told";
        bool isTold = false;
        const DryStart check(loop_, program.c_str(), "/the/file", [&](const std::optional<std::string> &reason) {
            result = reason;
            isTold = true;
        });
        EXPECT_TRUE(RunUntil(loop_, [&] { return isTold; }));
        return result;
    }

    TestBox box_;
    EventLoop loop_;
};

TEST_F(DryStartTest, FilesThatAreAccepted)
{
    EXPECT_EQ(ReasonOf("echo 'dnsmasq: syntax check OK.' >&2"), std::nullopt);
}

TEST_F(DryStartTest, TheReasonIsTheFirstLineThatIsNotEmpty)
{
    EXPECT_EQ(ReasonOf("printf '\\ndnsmasq: bad option\\nmore\\n' >&2; exit 1"), "dnsmasq: bad option");
}

TEST_F(DryStartTest, TheProgramGetsTheFile)
{
    EXPECT_EQ(ReasonOf("echo \"$*\""), "--test --conf-file=/the/file");
}

TEST_F(DryStartTest, AProgramThatDoesNotEndTellsNothing)
{
    EXPECT_EQ(ReasonOf("echo early; exec sleep 60"), std::nullopt);
}

TEST_F(DryStartTest, AProgramThatDoesNotExist)
{
    KAVEL_SKIP_IF_EMULATED("posix_spawn tells no failure of exec: the child does not share the memory");
    EXPECT_THROW(DryStart(loop_, "/no/such/program", "/the/file", [](const std::optional<std::string> &) {}),
                 std::system_error);
}

} // namespace
} // namespace kavel::agent
