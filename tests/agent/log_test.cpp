#include "log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <string>

#include "scratch.h"

namespace kavel::agent {
namespace {

using testing::MatchesRegex;
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

TEST_F(LogTest, AFinalLineHasNoLevel)
{
    const CapturedStderr captured;
    WriteFinalLine("vqagent", "\u202Efirst\nsecond\n");
    EXPECT_EQ(captured.Text(), "vqagent: ?first\n    second\n");
}

// Standard error that takes no more than four pages until they are read.
class StoppedReaderTest : public LogTest {
  protected:
    StoppedReaderTest()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        reader_ = UniqueFd(ends[0]);
        const UniqueFd writer(ends[1]);
        EXPECT_EQ(::fcntl(writer.Get(), F_SETPIPE_SZ, static_cast<int>(kCapacity)), static_cast<int>(kCapacity));
        EXPECT_EQ(::fcntl(reader_.Get(), F_SETFL, O_NONBLOCK), 0);
        Use(writer.Get());
    }
    ~StoppedReaderTest() override
    {
        const CapturedStderr captured; // for what is still to be told
        WriteLogLine(LogLevel::kNotice, "end");
        Use(own_.Get());
    }

    static void Use(int descriptor) { EXPECT_EQ(::dup2(descriptor, STDERR_FILENO), STDERR_FILENO); }
    static void Fill()
    {
        const std::string bytes(kCapacity, 'x');
        EXPECT_EQ(::write(STDERR_FILENO, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // What is in the pipe.
    [[nodiscard]] std::string Drain() const
    {
        std::string text;
        std::array<char, 4096> bytes{};
        for (ssize_t size = 0; (size = ::read(reader_.Get(), bytes.data(), bytes.size())) > 0;) {
            text.append(bytes.data(), static_cast<std::size_t>(size));
        }
        EXPECT_EQ(errno, EAGAIN);
        return text;
    }

    static constexpr std::size_t kCapacity = 16384;
    UniqueFd own_{::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)};
    UniqueFd reader_;
};

TEST_F(StoppedReaderTest, LosesLinesAndTellsHowMany)
{
    Fill();
    for (int i = 0; i < 3; ++i) {
        Log(LogLevel::kError, "lost");
    }
    EXPECT_EQ(Drain(), std::string(kCapacity, 'x'));
    Log(LogLevel::kError, "next");
    Log(LogLevel::kError, "last");
    EXPECT_EQ(Drain(), "WARNING 3 lines of the log were lost\nERROR next\nERROR last\n");
}

TEST_F(StoppedReaderTest, TellsOneLostLineWhateverTheThresholdIs)
{
    ConfigureLog(LogLevel::kError);
    Fill();
    Log(LogLevel::kError, "lost");
    Log(LogLevel::kNotice, "below the threshold");
    (void)Drain();
    WriteFinalLine("vqagent", "next");
    EXPECT_EQ(Drain(), "WARNING 1 line of the log was lost\nvqagent: next\n");
}

TEST_F(StoppedReaderTest, NothingIsLostWhileTheReaderKeepsUp)
{
    std::string read;
    for (int i = 0; i < 1000; ++i) {
        Log(LogLevel::kError, "%s", std::string(500, 'a').c_str());
        read += Drain();
    }
    EXPECT_EQ(read.size(), 1000 * (500 + sizeof("ERROR ")));
}

TEST_F(StoppedReaderTest, ALineThatIsCutIsEndedBeforeTheNext)
{
    const std::string large(100'000, 'x');
    Log(LogLevel::kError, "%s", large.c_str());
    Log(LogLevel::kError, "lost");
    EXPECT_EQ(Drain(), ("ERROR " + large).substr(0, kCapacity));
    Log(LogLevel::kError, "next");
    EXPECT_EQ(Drain(), "\nWARNING 2 lines of the log were lost\nERROR next\n");
}

TEST_F(StoppedReaderTest, TheDescriptorKeepsItsFlags)
{
    const int before = ::fcntl(STDERR_FILENO, F_GETFL);
    Fill();
    Log(LogLevel::kError, "lost");
    EXPECT_EQ(::fcntl(STDERR_FILENO, F_GETFL), before);
    EXPECT_EQ(before & O_NONBLOCK, 0);
}

TEST_F(StoppedReaderTest, AFullDiskLosesLinesToo)
{
    const UniqueFd pipe(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(full);
    Use(full.Get());
    Log(LogLevel::kError, "lost");
    Use(pipe.Get());
    Log(LogLevel::kError, "next");
    EXPECT_EQ(Drain(), "WARNING 1 line of the log was lost\nERROR next\n");
}

TEST_F(StoppedReaderTest, AClosedStandardErrorLosesLinesToo)
{
    const UniqueFd pipe(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    ASSERT_EQ(::close(STDERR_FILENO), 0);
    Log(LogLevel::kError, "lost");
    Use(pipe.Get());
    Log(LogLevel::kError, "next");
    EXPECT_EQ(Drain(), "WARNING 1 line of the log was lost\nERROR next\n");
}

// A terminal whose other end is not read, for a scope.
class StoppedTerminal {
  public:
    StoppedTerminal() : reader_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK))
    {
        std::array<char, 64> name{};
        if (!reader_ || ::grantpt(reader_.Get()) != 0 || ::unlockpt(reader_.Get()) != 0 ||
            ::ptsname_r(reader_.Get(), name.data(), name.size()) != 0) {
            return;
        }
        terminal_ = UniqueFd(::open(name.data(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
        termios settings{};
        EXPECT_EQ(::tcgetattr(terminal_.Get(), &settings), 0);
        ::cfmakeraw(&settings);
        EXPECT_EQ(::tcsetattr(terminal_.Get(), TCSANOW, &settings), 0);
    }

    [[nodiscard]] int Fd() const { return terminal_.Get(); }
    // What was written to it, up to a text with this end.
    [[nodiscard]] std::string ReadUntil(const std::string &end, int timeoutMs = 10'000) const
    {
        std::string text;
        std::array<char, 4096> bytes{};
        pollfd waited{reader_.Get(), POLLIN, 0};
        while (!text.ends_with(end) && ::poll(&waited, 1, timeoutMs) == 1) {
            const ssize_t size = ::read(reader_.Get(), bytes.data(), bytes.size());
            if (size <= 0) {
                break;
            }
            text.append(bytes.data(), static_cast<std::size_t>(size));
        }
        return text;
    }

  private:
    UniqueFd reader_;
    UniqueFd terminal_;
};

TEST_F(StoppedReaderTest, ATerminalThatIsNotReadLosesLinesToo)
{
    const StoppedTerminal terminal;
    if (terminal.Fd() < 0) {
        GTEST_SKIP() << "no pseudo-terminal";
    }
    Use(terminal.Fd());
    for (int i = 0; i < 5000; ++i) {
        Log(LogLevel::kError, "%s", std::string(100, 'x').c_str());
    }
    Log(LogLevel::kError, "lost");
    EXPECT_FALSE(terminal.ReadUntil("lost\n", 500).ends_with("lost\n"));
    Log(LogLevel::kError, "next");
    EXPECT_THAT(terminal.ReadUntil("ERROR next\n"),
                MatchesRegex("\n?WARNING [0-9]+ lines of the log were lost\nERROR next\n"));
}

// The C locale has no byte for this character.
TEST_F(LogTest, AFormatThatFailsIsTheText)
{
    ASSERT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C");
    EXPECT_EQ(Formatted("vpn %d: %ls", 7, L"\u20AC"), "vpn %d: %ls");
}

} // namespace
} // namespace kavel::agent
