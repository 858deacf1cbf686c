// What the command line of vqctl takes, as its own description tells it.
#ifndef KAVEL_CTL_USAGE_H
#define KAVEL_CTL_USAGE_H

#include <CLI/CLI.hpp>

#include <vector>

#include "completion.h"

namespace kavel::ctl {

// The type name of a value that is the name of a column.
inline constexpr const char *kColumns = "COLUMN";

// The program, and every visible command behind the one that it is below.
[[nodiscard]] std::vector<CommandUsage> UsagesOf(const CLI::App &program);

} // namespace kavel::ctl

#endif
