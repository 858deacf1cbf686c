// What a reply tells about a request, as JSON.
#ifndef KAVEL_CTL_RESULT_JSON_H
#define KAVEL_CTL_RESULT_JSON_H

#include <string>

#include "control.pb-c.h"
#include "json_reader.h"

namespace kavel::ctl {

// An array of the notes.
[[nodiscard]] JsonPtr NotesJson(const Kavel__Reply &reply);

// What the module, or else the agent, says beside the result; null: nothing.
[[nodiscard]] JsonPtr WhyJson(const Kavel__Reply &reply);

// What became of the message in `file`. `outcome` is "applied", "refused", "would apply" or "would be refused".
[[nodiscard]] JsonPtr MessageJson(const std::string &file, const Kavel__Reply &reply, const std::string &outcome);

} // namespace kavel::ctl

#endif
