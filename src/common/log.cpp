#include "log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "printable.h"
#include "unique_fd.h"

namespace kavel {
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

struct LostLines {
    std::size_t count = 0;
    bool endsInALine = false; // a part of the last line was written, without its end
};

LostLines lostLines;

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

// A terminal may take a part of a write and wait for its reader with the rest. Opened again it has flags of its own,
// and can be one that never waits. Nothing for any other standard error, and for a terminal that cannot be opened.
UniqueFd OpenTerminal()
{
    constexpr int kFlags = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    return UniqueFd(::isatty(STDERR_FILENO) == 1 ? ::open("/proc/self/fd/2", kFlags) : -1);
}

// Whether a write of PIPE_BUF bytes does not block, terminals aside. If that cannot be asked, which happens while the
// process may have no descriptors, the line is worth the attempt.
bool IsWritable(int descriptor)
{
    pollfd waited{descriptor, POLLOUT, 0};
    int ready = 0;
    do {
        ready = ::poll(&waited, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready < 0 || (waited.revents & POLLOUT) != 0;
}

// Writes what can be written without blocking. Returns the rest. Standard error is not made a descriptor that never
// blocks: other processes share it and its flags. A line of up to PIPE_BUF bytes is one write, so that lines of several
// processes on one stream stay whole.
std::string_view WriteToStderr(std::string_view text)
{
    const UniqueFd terminal = OpenTerminal();
    const int descriptor = terminal ? terminal.Get() : STDERR_FILENO;
    while (!text.empty() && IsWritable(descriptor)) {
        const ssize_t size = ::write(descriptor, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (size >= 0) {
            text.remove_prefix(static_cast<std::size_t>(size));
        } else if (errno != EINTR) {
            break;
        }
    }
    return text;
}

// Writes a line, or counts it as lost.
void WriteOrLose(std::string line)
{
    line.push_back('\n');
    if (lostLines.endsInALine) {
        line.insert(0, "\n");
    }
    const std::size_t left = WriteToStderr(line).size();
    if (left > 0) {
        ++lostLines.count;
    }
    if (left < line.size()) {
        lostLines.endsInALine = left > 0;
    }
}

std::string LostText(std::size_t count)
{
    return count == 1 ? "1 line of the log was lost" : std::to_string(count) + " lines of the log were lost";
}

void WriteLine(std::string_view prefix, std::string_view text)
{
    if (const std::size_t lost = lostLines.count; lost > 0) {
        lostLines.count = 0;
        WriteOrLose(std::string(Prefix(LogLevel::kWarning)) + LostText(lost));
        if (lostLines.count > 0) {
            lostLines.count = lost + 1; // the warning was not written, nor is the line
            return;
        }
    }
    while (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    WriteOrLose(std::string(prefix) + PrintableLines(text));
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

std::string_view NameOf(LogLevel level)
{
    return kLevels.at(static_cast<std::size_t>(level)).name;
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

void WriteLogLine(LogLevel level, std::string_view text)
{
    WriteLine(Prefix(level), text);
}

void WriteFinalLine(std::string_view program, std::string_view text)
{
    WriteLine(std::string(program) + ": ", text);
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

} // namespace kavel
