#include "base/procfs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "emulator.h"
#include "scratch.h"

namespace kavel::agent {
namespace {

using namespace std::string_literals;

// The seconds since the process started, from the clock that the kernel counts its start in.
double SecondsSinceStart(pid_t pid)
{
    const std::string stat = ContentOf("/proc/" + std::to_string(pid) + "/stat");
    unsigned long long start = 0;
    const int read =
        std::sscanf(stat.c_str() + stat.rfind(')') + 1,
                    "%*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu", &start);
    EXPECT_EQ(read, 1);
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<double>(now.tv_sec) - static_cast<double>(start) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// The name of this thread, which is the name of the process, for a scope.
class ProcessName {
  public:
    explicit ProcessName(const char *name)
    {
        ::prctl(PR_GET_NAME, before_.data());
        ::prctl(PR_SET_NAME, name);
    }
    ProcessName(const ProcessName &) = delete;
    ProcessName &operator=(const ProcessName &) = delete;
    ~ProcessName() { ::prctl(PR_SET_NAME, before_.data()); }

  private:
    std::array<char, 16> before_{};
};

TEST(InspectProcess, DescribesARunningProcess)
{
    const WaitingProcess child({"zero", "one two", "", "three"});
    const Process process = InspectProcess(child.Pid());
    EXPECT_TRUE(process.alive);
    EXPECT_EQ(process.name, "sh");
    EXPECT_EQ(process.executable, std::filesystem::canonical("/bin/sh"));
    EXPECT_EQ(process.commandLine, "sh\0-c\0echo started; read line\0zero\0one two\0\0three\0"s);
    EXPECT_GT(process.memoryBytes, 0U);
}

TEST(InspectProcess, TellsHowLongAProcessHasRun)
{
    for (const pid_t pid : {::getpid(), ::getppid()}) {
        EXPECT_NEAR(static_cast<double>(InspectProcess(pid).uptimeSeconds), SecondsSinceStart(pid), 2);
    }
}

TEST(InspectProcess, CountsResidentMemoryInBytes)
{
    KAVEL_SKIP_IF_EMULATED("MAP_POPULATE is not passed on");
    const std::uint64_t before = InspectProcess(::getpid()).memoryBytes;
    constexpr std::size_t kSize = std::size_t{32} << 20U;
    void *const pages =
        ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    const std::uint64_t after = InspectProcess(::getpid()).memoryBytes;
    ::munmap(pages, kSize);
    EXPECT_GE(after, before + kSize * 3 / 4);
    EXPECT_LE(after, before + kSize * 2);
}

TEST(InspectProcess, ReadsANameWithBlanksAndParentheses)
{
    KAVEL_SKIP_IF_EMULATED("a process sees the emulator's answer in /proc/self/stat");
    const ProcessName name("a) R (b c");
    const Process process = InspectProcess(::getpid());
    EXPECT_EQ(process.name, "a) R (b c");
    EXPECT_TRUE(process.alive);
}

TEST(InspectProcess, AZombieIsNotAlive)
{
    WaitingProcess child({});
    child.End();
    const Process process = InspectProcess(child.Pid());
    EXPECT_FALSE(process.alive);
    EXPECT_EQ(process.name, "sh");
    EXPECT_EQ(process.commandLine, "");
    EXPECT_EQ(ReadCommandLine(child.Pid()), "");
}

TEST(InspectProcess, AProcessThatDoesNotExistIsNotAlive)
{
    WaitingProcess child({});
    const pid_t pid = child.Pid();
    child.Reap();
    EXPECT_FALSE(InspectProcess(pid).alive);
    EXPECT_EQ(InspectProcess(pid).name, "");
    EXPECT_EQ(ReadCommandLine(pid), "");
}

TEST(InspectProcess, ANumberThatIsNoPidIsNotAlive)
{
    EXPECT_FALSE(InspectProcess(0).alive);
    EXPECT_FALSE(InspectProcess(-1).alive);
}

TEST(ReadCommandLine, KeepsEachArgumentWithItsTerminator)
{
    const WaitingProcess child({"zero", "--pid-file=/run/x y"});
    EXPECT_EQ(ReadCommandLine(child.Pid()), "sh\0-c\0echo started; read line\0zero\0--pid-file=/run/x y\0"s);
}

TEST(AllProcesses, HasEveryProcessOnce)
{
    WaitingProcess child({});
    std::vector<pid_t> pids = AllProcesses();
    EXPECT_EQ(std::ranges::count(pids, ::getpid()), 1);
    EXPECT_EQ(std::ranges::count(pids, child.Pid()), 1);
    EXPECT_THAT(pids, testing::Each(testing::Gt(0)));
    const pid_t pid = child.Pid();
    child.Reap();
    EXPECT_THAT(AllProcesses(), testing::Not(testing::Contains(pid)));
}

TEST(OwnMemory, IsTheResidentMemoryOfThisProcess)
{
    EXPECT_GT(OwnMemory(), std::uint64_t{1} << 20U);
    const std::vector<char> more(std::size_t{64} << 20U, 'x');
    EXPECT_GT(OwnMemory(), std::uint64_t{64} << 20U);
    EXPECT_EQ(more.back(), 'x');
}

} // namespace
} // namespace kavel::agent
