#include "base/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstdlib>
#include <string>

#include "scratch.h"

namespace kavel::agent {
namespace {

using testing::Optional;

constexpr std::array<LogLevel, 4> kLevels{LogLevel::kError, LogLevel::kWarning, LogLevel::kNotice, LogLevel::kDebug};

// A variable of the environment for a scope.
class Variable {
  public:
    Variable(const char *name, const std::string &value) : name_(name)
    {
        const char *const before = std::getenv(name);
        wasSet_ = before != nullptr;
        before_ = wasSet_ ? before : "";
        ::setenv(name, value.c_str(), 1);
    }
    Variable(const Variable &) = delete;
    Variable &operator=(const Variable &) = delete;
    ~Variable()
    {
        if (wasSet_) {
            ::setenv(name_, before_.c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

  private:
    const char *name_;
    bool wasSet_ = false;
    std::string before_;
};

// Of standard error, as a service manager gives it in JOURNAL_STREAM.
std::string StreamOfStderr(ino_t inodeOffset = 0)
{
    struct stat info {};
    ::fstat(STDERR_FILENO, &info);
    return std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino + inodeOffset);
}

class LogTest : public testing::Test {
  protected:
    LogTest() { ConfigureLog(LogLevel::kNotice); }
    ~LogTest() override { ConfigureLog(LogLevel::kNotice); }
};

std::string LineOf(std::string_view text)
{
    const CapturedStderr captured;
    WriteLogLine(LogLevel::kNotice, text);
    return captured.Text();
}

__attribute__((format(printf, 1, 2))) std::string Formatted(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = FormatText(format, arguments);
    va_end(arguments);
    return text;
}

TEST_F(LogTest, LevelsHaveNames)
{
    EXPECT_THAT(LogLevelByName("error"), Optional(LogLevel::kError));
    EXPECT_THAT(LogLevelByName("warning"), Optional(LogLevel::kWarning));
    EXPECT_THAT(LogLevelByName("notice"), Optional(LogLevel::kNotice));
    EXPECT_THAT(LogLevelByName("debug"), Optional(LogLevel::kDebug));
    for (const char *name : {"", "Error", "err", "errors", "info"}) {
        EXPECT_EQ(LogLevelByName(name), std::nullopt) << name;
    }
}

TEST_F(LogTest, LinesBelowTheThresholdAreNotWritten)
{
    const std::array<std::string, 4> expected{"ERROR line 0\n", "ERROR line 0\nWARNING line 1\n",
                                              "ERROR line 0\nWARNING line 1\nNOTICE line 2\n",
                                              "ERROR line 0\nWARNING line 1\nNOTICE line 2\nDEBUG line 3\n"};
    for (std::size_t threshold = 0; threshold < kLevels.size(); ++threshold) {
        const CapturedStderr captured;
        ConfigureLog(kLevels.at(threshold));
        for (std::size_t level = 0; level < kLevels.size(); ++level) {
            EXPECT_EQ(IsLogged(kLevels.at(level)), level <= threshold);
            Log(kLevels.at(level), "line %zu", level);
        }
        EXPECT_EQ(captured.Text(), expected.at(threshold));
    }
}

TEST_F(LogTest, WriteLogLineIgnoresTheThreshold)
{
    ConfigureLog(LogLevel::kError);
    const CapturedStderr captured;
    WriteLogLine(LogLevel::kDebug, "line");
    EXPECT_EQ(captured.Text(), "DEBUG line\n");
}

TEST_F(LogTest, ALineEndsInOneLineFeed)
{
    for (const char *text : {"line", "line\n", "line\n\n\n"}) {
        EXPECT_EQ(LineOf(text), "NOTICE line\n");
    }
    EXPECT_EQ(LineOf(""), "NOTICE \n");
    EXPECT_EQ(LineOf("\n"), "NOTICE \n");
}

// A text from outside cannot forge a line of the log.
TEST_F(LogTest, FurtherLinesOfATextAreIndented)
{
    EXPECT_EQ(LineOf("first\nERROR second\n\nfourth"), "NOTICE first\n    ERROR second\n    \n    fourth\n");
}

TEST_F(LogTest, ControlCharactersBecomeQuestionMarks)
{
    EXPECT_EQ(LineOf("a\x1b[2Jb\rc\td\x7f"), "NOTICE a?[2Jb?c?d?\n");
    EXPECT_EQ(LineOf(std::string_view("a\0b", 3)), "NOTICE a?b\n");
    EXPECT_EQ(LineOf("a\xC2\x9B"
                     "b\xC3\xA9"),
              "NOTICE a?b\xC3\xA9\n");
    EXPECT_EQ(LineOf("a\x9B"
                     "b\u202Ec\u2028d"),
              "NOTICE a?b?c?d\n");
}

TEST_F(LogTest, LinesOfTheJournalCarryTheirLevelAsANumber)
{
    const CapturedStderr captured;
    const Variable stream("JOURNAL_STREAM", StreamOfStderr());
    ConfigureLog(LogLevel::kDebug);
    for (const LogLevel level : kLevels) {
        Log(level, "line");
    }
    EXPECT_EQ(captured.Text(), "<3>line\n<4>line\n<5>line\n<7>line\n");
}

// A process below a service inherits the variable, and may have another standard error.
TEST_F(LogTest, AnotherStreamInTheEnvironmentDoesNotCount)
{
    for (const ino_t offset : {ino_t{1}, ino_t{2}}) {
        const CapturedStderr captured;
        const Variable stream("JOURNAL_STREAM", StreamOfStderr(offset));
        ConfigureLog(LogLevel::kNotice);
        Log(LogLevel::kError, "line");
        EXPECT_EQ(captured.Text(), "ERROR line\n");
    }
    for (const char *value : {"", ":", "text"}) {
        const CapturedStderr captured;
        const Variable stream("JOURNAL_STREAM", value);
        ConfigureLog(LogLevel::kNotice);
        Log(LogLevel::kError, "line");
        EXPECT_EQ(captured.Text(), "ERROR line\n") << value;
    }
}

TEST_F(LogTest, AFormatMayGiveAnyLength)
{
    const std::string large(100'000, 'x');
    EXPECT_EQ(Formatted("%s %d", large.c_str(), 7), large + " 7");
    EXPECT_EQ(Formatted("%s", ""), "");
    const CapturedStderr captured;
    Log(LogLevel::kError, "%s", large.c_str());
    EXPECT_EQ(captured.Text(), "ERROR " + large + "\n");
}

// The C locale has no byte for this character.
TEST_F(LogTest, AFormatThatFailsIsTheText)
{
    ASSERT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C");
    EXPECT_EQ(Formatted("vpn %d: %ls", 7, L"\u20AC"), "vpn %d: %ls");
}

} // namespace
} // namespace kavel::agent
