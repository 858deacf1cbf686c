// Files of the instances: replaced whole and durably.
#ifndef KAVEL_AGENT_FILES_H
#define KAVEL_AGENT_FILES_H

#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace kavel::agent {

// Replaces the file at `path`, mode 0644: after a crash it holds the old bytes or the new ones. 0 or a negated errno.
int ReplaceFile(const std::string &path, std::string_view content);

// Removes what interrupted replacements of the files called `names` left in `directory`.
void RemoveLeftovers(const std::filesystem::path &directory, std::span<const std::string_view> names);

} // namespace kavel::agent

#endif
