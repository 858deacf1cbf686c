#include "base/log_override.h"

#include <ctime>

namespace kavel::agent {

LogOverride::LogOverride(EventLoop &loop, LogLevel configured)
    : end_(loop.AddTimer([this] { End(); })), configured_(configured)
{
}

void LogOverride::Set(LogLevel level, std::optional<std::chrono::seconds> time, const std::string &by)
{
    chosen_ = level;
    until_.reset();
    end_.Disable();
    std::string text = "log level " + std::string(NameOf(level));
    if (time) {
        until_ = std::time(nullptr) + time->count();
        end_.ArmTimer(EventLoop::Clock::now() + *time);
        text += " for " + std::to_string(time->count()) + " s";
    }
    ConfigureLog(level);
    WriteLogLine(LogLevel::kNotice, text + ", by " + by);
}

void LogOverride::ConfigurationRead(LogLevel configured)
{
    configured_ = configured;
    if (!until_) {
        chosen_.reset();
    }
    ConfigureLog(Level());
}

void LogOverride::End()
{
    chosen_.reset();
    until_.reset();
    ConfigureLog(configured_);
    WriteLogLine(LogLevel::kNotice, "log level " + std::string(NameOf(configured_)) + " again");
}

} // namespace kavel::agent
