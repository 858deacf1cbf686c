#include "base/program_files.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace kavel::agent {
namespace {

TEST(ProgramFilesTest, AFileBesideTheProgramComesFirst)
{
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(BesideProgramOr("/opt/other", program.filename()), program.string());
}

TEST(ProgramFilesTest, AnotherOneIsThatOfTheInstallation)
{
    EXPECT_EQ(BesideProgramOr("/opt/other", "no-such-file"), "/opt/other/no-such-file");
}

} // namespace
} // namespace kavel::agent
