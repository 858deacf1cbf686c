#include "base/program_files.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace kavel::agent {
namespace {

TEST(ProgramFilesTest, AFileBesideTheProgramComesFirst)
{
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(ProgramFile("../lib", program.filename()), program.string());
}

TEST(ProgramFilesTest, AnotherOneIsThatOfTheInstallation)
{
    const std::filesystem::path above = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
    EXPECT_EQ(ProgramFile("../lib/kavel", "no-such-file"), (above / "lib/kavel/no-such-file").string());
}

} // namespace
} // namespace kavel::agent
