// The log macros: one per level.
//
// An error is written as a line and formatted into the flex-log buffer of the host. If the host wants a dump, the
// buffer is written as a second line. Then the buffer is reset. The flex-log steps also run if the line itself is
// filtered out. The macros that end in _AS take the function name for the prefix: a helper logs under the name of the
// function that called it.
#ifndef VQ_CTRL_ADVANCED_DNS_LOG_H
#define VQ_CTRL_ADVANCED_DNS_LOG_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vqLog.h"
#include "vqPlatform.h"

// Level text, module name, thread name with its brackets, function, source line.
#define VQ_CTRL_LOG_PREFIX "<%s%s>%s[%s:%d] "

#define VQ_CTRL_LOG_NOTICE(...) VQ_CTRL_LOG_NOTICE_AS(__func__, __VA_ARGS__)
#define VQ_CTRL_LOG_VERBOSE(...) VQ_CTRL_LOG_AT(VQ_LOG_LEVEL_VERBOSE, __func__, __VA_ARGS__)
#define VQ_CTRL_LOG_WARNING(...) VQ_CTRL_LOG_WARNING_AS(__func__, __VA_ARGS__)
#define VQ_CTRL_LOG_ERROR(...) VQ_CTRL_LOG_ERROR_AS(__func__, __VA_ARGS__)

#define VQ_CTRL_LOG_NOTICE_AS(Function, ...) VQ_CTRL_LOG_AT(VQ_LOG_LEVEL_NOTICE, Function, __VA_ARGS__)
#define VQ_CTRL_LOG_WARNING_AS(Function, ...) VQ_CTRL_LOG_AT(VQ_LOG_LEVEL_WARNING, Function, __VA_ARGS__)

#define VQ_CTRL_LOG_AT(Level, Function, ...) \
    (VQ_CTRL_CHECK_FORMAT(__VA_ARGS__),      \
     advanceddns::LogLine({(Function), __LINE__}, (Level), VQ_CTRL_LOG_PREFIX __VA_ARGS__))

#define VQ_CTRL_LOG_ERROR_AS(Function, ...) \
    (VQ_CTRL_CHECK_FORMAT(__VA_ARGS__), advanceddns::LogError({(Function), __LINE__}, VQ_CTRL_LOG_PREFIX __VA_ARGS__))

// The compiler's check of a format and its arguments, none of which is evaluated.
#define VQ_CTRL_CHECK_FORMAT(...) static_cast<void>(sizeof(advanceddns::CheckFormat(__VA_ARGS__)))

// A message in a table, with the prefix before it.
#define VQ_CTRL_LOG_TEXT(Message) VQ_CTRL_LOG_PREFIX Message

// The macros for messages in a table. `Text` is a TableFormat.
#define VQ_CTRL_LOG_NOTICE_TEXT(Function, Text) \
    advanceddns::LogLine({(Function), __LINE__}, VQ_LOG_LEVEL_NOTICE, (Text).Get())
#define VQ_CTRL_LOG_ERROR_TEXT(Function, ...) advanceddns::LogTableError({(Function), __LINE__}, __VA_ARGS__)

// The two arguments of "(%d:%s)" for a negative result.
#define VQ_CTRL_LOG_REASON(Result) advanceddns::ErrorNumber(Result), std::strerror(advanceddns::ErrorNumber(Result))

namespace advanceddns {

struct LogSite {
    const char *Function;
    int Line;
};

// The values of the prefix. `Impl` is null if the host has no log implementation or no `Log` operation.
class LogPrefix {
  public:
    explicit LogPrefix(uint32_t Level);

    const VQ_LOG_IMPL_ITEM *Impl;
    const char *LevelText = "";
    const char *ModuleName = "";
    // '[', then 15 characters and a terminator from the host. ']' replaces that terminator.
    char ThreadName[18] = {};
};

// The positive error number of a negative result. The smallest number gives itself, because its negation does not fit.
inline int ErrorNumber(VQ_ERR_T Result)
{
    return static_cast<int>(0U - static_cast<uint32_t>(Result));
}

// Declared and never defined: the compiler checks its arguments.
int CheckFormat(const char *Format, ...) VQ_PRINTF_LIKE(1, 2);

// A format in a table. The compiler does not see such a format at the call, so its conversions are checked when the
// table is compiled. `Conversions` are the letters that the format must have, in order.
template <char... Conversions>
class TableFormat {
  public:
    // cppcheck-suppress noExplicitConstructor ; a table reads best as plain texts
    consteval TableFormat(const char *Format) : Format_(Format)
    {
        // cppcheck-suppress constStatement ; a pack, not the comma operator
        constexpr char kWanted[] = {Conversions..., '\0'};
        std::size_t Found = 0;
        for (const char *At = Format; *At != '\0'; ++At) {
            if (*At == '%' && *++At != kWanted[Found++]) {
                ConversionsDiffer();
            }
        }
        if (kWanted[Found] != '\0') {
            ConversionsDiffer();
        }
    }

    [[nodiscard]] constexpr const char *Get() const { return Format_; }

  private:
    // Never defined: a call at compile time is a compile error.
    static void ConversionsDiffer();

    const char *Format_;
};

// The five conversions of the prefix, then those of the message.
using PlainText = TableFormat<'s', 's', 's', 's', 'd'>;
using CountText = TableFormat<'s', 's', 's', 's', 'd', 'u'>;
using FailureText = TableFormat<'s', 's', 's', 's', 'd', 'd', 's'>;

// The formats below were checked by VQ_CTRL_CHECK_FORMAT or by TableFormat.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

inline bool IsWanted(LogSite Site, uint32_t Level, BOOL Flag)
{
    return VQ_LogTest(VQ_LOG_MODULE_ADVANCED_DNS, Level, Flag, Site.Function) != FALSE;
}

template <typename... Args>
void WriteLine(LogSite Site, uint32_t Level, const char *PrefixedFormat, Args... Arguments)
{
    const LogPrefix Prefix(Level);
    if (Prefix.Impl != nullptr) {
        Prefix.Impl->Log(VQ_AgentLogGetTag(), Level, PrefixedFormat, Prefix.LevelText, Prefix.ModuleName,
                         Prefix.ThreadName, Site.Function, Site.Line, Arguments...);
    }
}

template <typename... Args>
void LogLine(LogSite Site, uint32_t Level, const char *PrefixedFormat, Args... Arguments)
{
    if (IsWanted(Site, Level, TRUE)) {
        WriteLine(Site, Level, PrefixedFormat, Arguments...);
    }
}

template <typename... Args>
void LogError(LogSite Site, const char *PrefixedFormat, Args... Arguments)
{
    constexpr std::size_t kPrefixLength = sizeof(VQ_CTRL_LOG_PREFIX) - 1;

    LogLine(Site, VQ_LOG_LEVEL_ERROR, PrefixedFormat, Arguments...);
    if (VQ_FlexLogSetFormatData(PrefixedFormat + kPrefixLength, Arguments...) >= 0 &&
        IsWanted(Site, VQ_LOG_LEVEL_ERROR, FALSE)) {
        WriteLine(Site, VQ_LOG_LEVEL_ERROR, VQ_CTRL_LOG_PREFIX "dump flexlog:\n%s", VQ_FlexLogGetFormatBuff());
    }
    VQ_FlexLogDataReset();
}

template <typename Text, typename... Args>
void LogTableError(LogSite Site, Text Message, Args... Arguments)
{
    LogError(Site, Message.Get(), Arguments...);
}

#pragma GCC diagnostic pop

} // namespace advanceddns

#endif
