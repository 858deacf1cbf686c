// Where the files that belong to this program are.
#ifndef KAVEL_AGENT_PROGRAM_FILES_H
#define KAVEL_AGENT_PROGRAM_FILES_H

#include <string>

namespace kavel::agent {

// The path of `file`: beside the program if it is there, as in the build tree; or else in the directory of the
// installation, which is given relative to the program's. Nobody looks whether it is in the second.
[[nodiscard]] std::string ProgramFile(const std::string &directory, const std::string &file);

} // namespace kavel::agent

#endif
