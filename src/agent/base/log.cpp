#include "base/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "printable.h"

namespace kavel::agent {
namespace {

struct LevelText {
    LogLevel level;
    std::string_view name;
    std::string_view forPeople;
    std::string_view forJournal;
};

constexpr std::array<LevelText, 4> kLevels{{{LogLevel::kError, "error", "ERROR ", "<3>"},
                                            {LogLevel::kWarning, "warning", "WARNING ", "<4>"},
                                            {LogLevel::kNotice, "notice", "NOTICE ", "<5>"},
                                            {LogLevel::kDebug, "debug", "DEBUG ", "<7>"}}};

// The process has one standard error, and so one log: it must work before any other object exists.
struct LogSettings {
    LogLevel threshold = LogLevel::kNotice;
    bool writesToJournal = false;
};

LogSettings logSettings;

// JOURNAL_STREAM is inherited by every process below a service: it counts only if it names this standard error.
bool StderrIsJournal()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat info {};
    if (stream == nullptr || ::fstat(STDERR_FILENO, &info) != 0) {
        return false;
    }
    return stream == std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
}

std::string_view Prefix(LogLevel level)
{
    const LevelText &text = kLevels.at(static_cast<std::size_t>(level));
    return logSettings.writesToJournal ? text.forJournal : text.forPeople;
}

std::string PrintableLines(std::string_view text)
{
    std::string result;
    for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        result.append(Printable(text.substr(0, end))).append("\n    ");
        text.remove_prefix(end + 1);
    }
    return result.append(Printable(text));
}

} // namespace

std::optional<LogLevel> LogLevelByName(std::string_view name)
{
    for (const LevelText &text : kLevels) {
        if (text.name == name) {
            return text.level;
        }
    }
    return std::nullopt;
}

void ConfigureLog(LogLevel threshold)
{
    logSettings = {threshold, StderrIsJournal()};
}

bool IsLogged(LogLevel level)
{
    return level <= logSettings.threshold;
}

void Log(LogLevel level, const char *format, ...)
{
    if (!IsLogged(level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::string text = FormatText(format, arguments);
    va_end(arguments);
    WriteLogLine(level, text);
}

// One write per line, so that lines of several processes on one stream stay whole.
void WriteLogLine(LogLevel level, std::string_view text)
{
    while (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    std::string line(Prefix(level));
    line.append(PrintableLines(text)).push_back('\n');
    while (::write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

std::string FormatText(const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not see that va_copy initializes
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return format;
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

} // namespace kavel::agent
