#include "base/log.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "base/failure.h"
#include "printable.h"
#include "vqLog.h"

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

constexpr const char *kTag = "vqagent";

LogLevel g_threshold = LogLevel::kNotice;
bool g_moduleIsSilent = false;

// JOURNAL_STREAM is inherited by everything below a service: it counts only when it names this standard error.
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
    static const bool journal = StderrIsJournal();
    const LevelText &text = kLevels.at(static_cast<std::size_t>(level));
    return journal ? text.forJournal : text.forPeople;
}

// Some lines quote what a controller sent: its line breaks must not begin entries of their own, nor its other control
// characters speak to a terminal.
std::string Harmless(std::string_view text)
{
    std::string result;
    for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        result.append(control::Printable(text.substr(0, end))).append("\n    ");
        text.remove_prefix(end + 1);
    }
    return result.append(control::Printable(text));
}

// One write per line, so that lines of several processes on one stream stay whole.
void WriteLine(LogLevel level, std::string_view text)
{
    while (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    std::string line(Prefix(level));
    line.append(Harmless(text)).push_back('\n');
    while (::write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

__attribute__((format(printf, 1, 0))) std::string FormatText(const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return format;
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

LogLevel FromModule(std::uint32_t level)
{
    switch (level) {
    case VQ_LOG_LEVEL_NOTICE:
        return LogLevel::kNotice;
    case VQ_LOG_LEVEL_VERBOSE:
        return LogLevel::kDebug;
    case VQ_LOG_LEVEL_WARNING:
        return LogLevel::kWarning;
    default:
        return LogLevel::kError;
    }
}

// Where "(<digits>:" stands at or after `from`; the digits alone in `digits`.
std::size_t FindErrorMark(std::string_view text, std::size_t from, std::string_view &digits)
{
    for (std::size_t open = text.find('(', from); open != std::string_view::npos; open = text.find('(', open + 1)) {
        std::size_t end = open + 1;
        while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) {
            ++end;
        }
        if (end > open + 1 && end < text.size() && text[end] == ':') {
            digits = text.substr(open + 1, end - open - 1);
            return open;
        }
    }
    return std::string_view::npos;
}

bool HasErrorMark(std::string_view text, std::string_view number)
{
    std::string_view digits;
    std::size_t at = FindErrorMark(text, 0, digits);
    while (at != std::string_view::npos && digits != number) {
        at = FindErrorMark(text, at + 1, digits);
    }
    return at != std::string_view::npos;
}

bool HasAnyErrorMark(std::string_view text)
{
    std::string_view digits;
    return FindErrorMark(text, 0, digits) != std::string_view::npos;
}

std::string &FlexLogBuffer()
{
    static std::string buffer;
    return buffer;
}

__attribute__((format(printf, 3, 0))) void ModuleLogValist(const char * /*tag*/, std::uint32_t level,
                                                           const char *format, va_list arguments)
{
    (void)WithoutExceptions([&] {
        WriteLine(FromModule(level), FormatText(format, arguments));
        return 0;
    });
}

__attribute__((format(printf, 3, 4))) void ModuleLog(const char *tag, std::uint32_t level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    ModuleLogValist(tag, level, format, arguments);
    va_end(arguments);
}

const char *ModuleLevelText(std::uint32_t level)
{
    switch (level) {
    case VQ_LOG_LEVEL_NOTICE:
        return "NOTICE:";
    case VQ_LOG_LEVEL_VERBOSE:
        return "VERBOSE:";
    case VQ_LOG_LEVEL_WARNING:
        return "WARNING:";
    default:
        return "ERROR:";
    }
}

std::int32_t KeepModuleError(std::string text)
{
    FlexLogBuffer() = text;
    ModuleErrors().Add(std::move(text));
    return static_cast<std::int32_t>(FlexLogBuffer().size());
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

void SetLogThreshold(LogLevel threshold)
{
    g_threshold = threshold;
}

void Log(LogLevel level, const char *format, ...)
{
    if (level > g_threshold) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::string text = FormatText(format, arguments);
    va_end(arguments);
    WriteLine(level, text);
}

ModuleSilence::ModuleSilence()
{
    g_moduleIsSilent = true;
}

ModuleSilence::~ModuleSilence()
{
    g_moduleIsSilent = false;
}

void ErrorTrail::Add(std::string message)
{
    while (message.ends_with('\n')) {
        message.pop_back();
    }
    if (messages_.size() == kMessagesMax) {
        messages_.pop_front();
    }
    messages_.push_back(std::move(message));
}

std::string ErrorTrail::Cause(std::int32_t result) const
{
    if (messages_.empty()) {
        return {};
    }
    const std::string number = std::to_string(-std::int64_t{result});
    std::size_t at = messages_.size() - 1;
    while (at > 0 && HasErrorMark(messages_[at], number)) {
        const std::string &previous = messages_[at - 1];
        const bool deeper =
            HasErrorMark(previous, number) || (!HasAnyErrorMark(previous) && !previous.ends_with("success"));
        if (!deeper) {
            break;
        }
        --at;
    }
    return messages_[at];
}

ErrorTrail &ModuleErrors()
{
    static ErrorTrail trail;
    return trail;
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

BOOL VQ_LogTest(uint32_t /*Module*/, uint32_t Level, BOOL Flag, const char * /*Function*/)
{
    // The dump of the flex log repeats the line before it: of use only to someone who debugs the logging itself.
    const LogLevel level = Flag == FALSE ? LogLevel::kDebug : FromModule(Level);
    return level <= g_threshold && !g_moduleIsSilent ? TRUE : FALSE;
}

const VQ_LOG_IMPL_ITEM *VQ_LogGetImplItem(uint32_t /*Module*/)
{
    static const VQ_LOG_IMPL_ITEM item = {ModuleLog, ModuleLogValist, ModuleLevelText};
    return &item;
}

const char *VQ_LogGetModuleName(uint32_t Module)
{
    return Module == VQ_LOG_MODULE_ADVANCED_DNS ? "advanceddns" : "unknown";
}

VQ_ERR_T VQ_ThreadGetName(char *Buffer, size_t Size)
{
    return Buffer == nullptr ? -EINVAL : -pthread_getname_np(pthread_self(), Buffer, Size);
}

const char *VQ_AgentLogGetTag(void)
{
    return kTag;
}

VQ_ERR_T VQ_FlexLogSetFormatData(const char *Format, ...)
{
    va_list arguments;
    va_start(arguments, Format);
    const VQ_ERR_T result = WithoutExceptions([&] { return KeepModuleError(FormatText(Format, arguments)); });
    va_end(arguments);
    return result;
}

char *VQ_FlexLogGetFormatBuff(void)
{
    return FlexLogBuffer().data();
}

void VQ_FlexLogDataReset(void)
{
    FlexLogBuffer().clear();
}
}
