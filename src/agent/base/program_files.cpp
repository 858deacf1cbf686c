#include "base/program_files.h"

#include <filesystem>

namespace kavel::agent {

std::string BesideProgramOr(const std::string &directory, const std::string &file)
{
    std::error_code ignored;
    const auto beside = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path() / file;
    return std::filesystem::exists(beside, ignored) ? beside.string() : directory + "/" + file;
}

} // namespace kavel::agent
