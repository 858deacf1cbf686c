// The check of message files without an agent.
#ifndef KAVEL_CTL_OFFLINE_CHECK_H
#define KAVEL_CTL_OFFLINE_CHECK_H

#include <string>
#include <vector>

#include "json_message.h"
#include "session.h"

namespace kavel::ctl {

// Reads each JSON file and prints what message it holds, and on `err` every error of every file. Names, lengths and
// counts are not checked: only the agent knows the limits. Returns kBadInput if there was an error, or else kDone.
int CheckOffline(const Session &session, const std::vector<std::string> &files, MessageFor target);

} // namespace kavel::ctl

#endif
