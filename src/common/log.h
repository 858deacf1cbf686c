// The log of a daemon: one line per event on standard error. A line that standard error cannot take at the moment,
// because its reader has stopped or its disk is full, is lost: nothing waits for it. The next line that can be written
// is preceded by a warning with the number of lines that were lost.
#ifndef KAVEL_COMMON_LOG_H
#define KAVEL_COMMON_LOG_H

#include <cstdarg>
#include <optional>
#include <string>
#include <string_view>

namespace kavel {

// In order of importance: the most important first.
enum class LogLevel { kError, kWarning, kNotice, kDebug };

// The level called `name` ("error", "warning", "notice", "debug"); nothing when there is none.
[[nodiscard]] std::optional<LogLevel> LogLevelByName(std::string_view name);

// Its name in the configuration.
[[nodiscard]] std::string_view NameOf(LogLevel level);

// Lines that are less important than `threshold` are not written. Until the first call the threshold is kNotice. Also
// checks whether standard error is the journal, whose lines carry their level as "<3>".
void ConfigureLog(LogLevel threshold);

// Whether lines of `level` are written.
[[nodiscard]] bool IsLogged(LogLevel level);

// Writes one line if its level is logged. A trailing line feed in the text is neither needed nor doubled.
void Log(LogLevel level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Writes one line whatever the threshold is. It is as Printable() gives it, and every line of the text after the first
// is indented: a text from outside cannot forge a line.
void WriteLogLine(LogLevel level, std::string_view text);

// Writes the name of the program, as in "vqagent: ", and the text as one line without a level, for an error that ends
// it.
void WriteFinalLine(std::string_view program, std::string_view text);

// The text of a printf format; the format itself when it cannot be formatted.
[[nodiscard]] __attribute__((format(printf, 1, 0))) std::string FormatText(const char *format, va_list arguments);

} // namespace kavel

#endif
