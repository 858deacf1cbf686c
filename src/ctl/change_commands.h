// The commands that tell what a message changes, and that take a change back.
#ifndef KAVEL_CTL_CHANGE_COMMANDS_H
#define KAVEL_CTL_CHANGE_COMMANDS_H

#include <string>
#include <vector>

#include "session.h"

namespace kavel::ctl {

// Prints for each file what its message would change, and whether this needs a restart of the instance. If any file is
// bad, nothing is asked. Returns kRefused when something would change, or when a message would be refused.
int Diff(const Session &session, const std::vector<std::string> &files);

} // namespace kavel::ctl

#endif
