#include "drop_log.h"

#include "log.h"

namespace kavel::link {

void DropLog::Write(Time now, const std::string &line)
{
    if (now >= begin_ + kInterval) {
        if (lines_ > kLinesMax) {
            Log(LogLevel::kWarning, "%u more messages were dropped", lines_ - kLinesMax);
        }
        begin_ = now;
        lines_ = 0;
    }
    ++lines_;
    if (lines_ <= kLinesMax) {
        Log(LogLevel::kWarning, "%s", line.c_str());
    }
}

} // namespace kavel::link
