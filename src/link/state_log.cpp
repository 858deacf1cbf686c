#include "state_log.h"

#include <utility>

namespace kavel::link {

void StateLog::Write(Time now, LogLevel level, const std::string &line)
{
    std::erase_if(written_, [now](const auto &entry) { return entry.second + kInterval <= now; });
    if (std::exchange(last_, line) == line || written_.contains(line)) {
        return;
    }
    written_[line] = now;
    Log(level, "%s", line.c_str());
}

} // namespace kavel::link
