#include "base/program_files.h"

#include <filesystem>

namespace kavel::agent {

std::string ProgramFile(const std::string &directory, const std::string &file)
{
    std::error_code ignored;
    const auto here = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    const auto beside = here / file;
    return std::filesystem::exists(beside, ignored) ? beside : (here / directory / file).lexically_normal();
}

} // namespace kavel::agent
