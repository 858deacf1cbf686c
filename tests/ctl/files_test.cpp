#include "files.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "errors.h"
#include "fake_agent.h"

namespace kavel::ctl {
namespace {

template <typename Work>
std::string FailureOf(Work work)
{
    try {
        work();
    } catch (const InputError &error) {
        return error.what();
    }
    return "no failure";
}

TEST(ReadInput, ReturnsEveryByte)
{
    const TempDir dir;
    const std::string content = std::string(200'000, 'x') + '\0' + "end";
    EXPECT_EQ(ReadInput(dir.Write("file", content)), content);
    EXPECT_EQ(ReadInput(dir.Write("empty", "")), "");
}

TEST(ReadInput, ReportsTheReasonOfAFailure)
{
    EXPECT_EQ(FailureOf([] { ReadInput("/nonexistent"); }), "cannot be opened: No such file or directory");
    EXPECT_EQ(FailureOf([] { ReadInput("/"); }), "cannot be read: Is a directory");
}

TEST(ReadInput, RefusesAnEndlessFile)
{
    EXPECT_EQ(FailureOf([] { ReadInput("/dev/zero"); }), "is larger than 67108864 bytes");
}

TEST(WriteOutput, ReplacesTheFile)
{
    const TempDir dir;
    const std::string file = dir.Write("file", "something longer");
    WriteOutput(file, Bytes{'a', 0, 'b'});
    EXPECT_EQ(ReadInput(file), std::string("a\0b", 3));
}

TEST(WriteOutput, ReportsTheReasonOfAFailure)
{
    const TempDir dir;
    EXPECT_EQ(FailureOf([&] { WriteOutput(dir.File("none/file"), {}); }),
              "cannot be opened: No such file or directory");
    EXPECT_EQ(FailureOf([] { WriteOutput("/dev/full", Bytes{1}); }), "cannot be written: No space left on device");
}

} // namespace
} // namespace kavel::ctl
