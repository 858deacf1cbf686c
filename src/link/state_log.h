// The log of a connection that comes and goes: a broker or an agent that is not there is not worth a line per attempt.
#ifndef KAVEL_LINK_STATE_LOG_H
#define KAVEL_LINK_STATE_LOG_H

#include <chrono>
#include <map>
#include <string>

#include "log.h"

namespace kavel::link {

class StateLog {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::seconds kInterval{60};

    // Writes a line, unless it is what was said last, or was written less than kInterval ago.
    void Write(Time now, LogLevel level, const std::string &line);

  private:
    std::string last_;
    std::map<std::string, Time> written_; // those of the last kInterval
};

} // namespace kavel::link

#endif
