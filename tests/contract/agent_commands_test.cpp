// The shell that runs the module's commands, and which processes the agent kills.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "contract_test.h"
#include "failure.h"
#include "process_lab.h"
#include "services/launch_mark.h"
#include "unique_fd.h"
#include "vqNetns.h"
#include "vqProcess.h"

namespace kavel::contract {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr const char *kOutput = "/etc/kavel/dnsmasq/output";

std::int32_t Execute(std::string command)
{
    return VQ_CmdExec(command.data());
}

// A command that keeps running in the background after its shell has exited. Between fork and exec it is still a shell
// that redirects its streams: the constructor waits for the exec.
class Background {
  public:
    // `before` is a command line in front of the one in the background.
    explicit Background(World &world, const std::string &before = "")
    {
        EXPECT_EQ(Execute(before + "sleep infinity & echo $! > " + kOutput), 0);
        pid_ = std::stoi(world.ReadFile(kOutput).value_or("0"));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (world.ReadFile(Proc("comm")) != "sleep\n" && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(world.ReadFile(Proc("comm")), "sleep\n");
    }
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;
    ~Background() { End(); }

    void End() const
    {
        if (pid_ > 1) {
            ::kill(pid_, SIGKILL);
        }
    }

    [[nodiscard]] bool IsRunning() const { return ProcessLab::IsRunning(pid_); }
    [[nodiscard]] std::string Proc(const std::string &name) const
    {
        return "/proc/" + std::to_string(pid_) + "/" + name;
    }
    [[nodiscard]] std::vector<std::string> Descriptors() const
    {
        std::vector<std::string> found;
        for (const auto &entry : std::filesystem::directory_iterator(Proc("fd"))) {
            std::error_code isClosed; // since the directory was read
            const std::string target = std::filesystem::read_symlink(entry, isClosed).string();
            if (!isClosed) {
                found.push_back(entry.path().filename().string() + " " + target);
            }
        }
        std::ranges::sort(found);
        return found;
    }
    // A signal mask from /proc/PID/status.
    [[nodiscard]] std::uint64_t Signals(const std::string &set) const
    {
        std::ifstream status(Proc("status"));
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with(set + ":")) {
                return std::stoull(line.substr(set.size() + 1), nullptr, 16);
            }
        }
        ADD_FAILURE() << "no " << set;
        return 0;
    }

  private:
    pid_t pid_ = 0;
};

class Commands : public ContractTest {};

TEST_F(Commands, FailedCommandReturnsEio)
{
    PROMISE(kProcessCmdFailure);
    for (const char *const command : {"false", "exit 3", "exit 255", "no-such-command", "if", "kill -KILL $$"}) {
        EXPECT_EQ(Execute(command), -EIO) << command;
    }
}

TEST_F(Commands, CommandThatCannotStartReturnsItsErrno)
{
    EXPECT_EQ(Execute("true " + std::string(300000, 'x')), -E2BIG);
    EXPECT_EQ(VQ_CmdExec(nullptr), -EINVAL);
}

TEST_F(Commands, CallWaitsForTheCommandAndReapsIt)
{
    PROMISE(kProcessCmdWaits);
    PROMISE(kProcessCmdZombies);
    EXPECT_EQ(Execute(std::string("echo done > ") + kOutput), 0);
    EXPECT_EQ(world().ReadFile(kOutput), "done\n");
    siginfo_t info{};
    EXPECT_EQ(::waitid(P_ALL, 0, &info, WEXITED | WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(Commands, CommandIsAShellCommandLine)
{
    PROMISE(kProcessCmdShell);
    EXPECT_EQ(
        Execute(std::string("a='one two'; [ \"$a\" = 'one two' ] && true | cat; false || echo \"$a\" > ") + kOutput),
        0);
    EXPECT_EQ(world().ReadFile(kOutput), "one two\n");
}

// The module's buffer has 512 bytes.
TEST_F(Commands, LongCommandIsExecutedAsAWhole)
{
    PROMISE(kProcessCmdWhole);
    const std::string end = std::string("; echo end > ") + kOutput;
    EXPECT_EQ(Execute(": " + std::string(509 - end.size(), 'x') + end), 0);
    EXPECT_EQ(world().ReadFile(kOutput), "end\n");
}

TEST_F(Commands, CommandBehindThePrefixRunsInTheNamespaceOfTheSwitch)
{
    PROMISE(kNetnsPrefixEnters);
    PROMISE(kNetnsPrefixPid);
    std::array<char, 512> prefix{};
    ASSERT_GT(VQ_RtcGetNetNsExecCmdPrefix(kVpn, prefix.data(), prefix.size()), 0);
    EXPECT_EQ(Execute(std::string(prefix.data()) + "/bin/sh -c 'readlink /proc/self/ns/net /proc/self/ns/pid > " +
                      kOutput + "'"),
              0);
    int saved = -1;
    ASSERT_GE(VQ_RtcNetNsSaveAndSwitch(kVpn, &saved), 0);
    const std::string entered = std::filesystem::read_symlink("/proc/thread-self/ns/net").string();
    ASSERT_GE(VQ_RtcNetNsSwitchToDefault(&saved), 0);
    const std::string own = std::filesystem::read_symlink("/proc/self/ns/pid").string();
    EXPECT_EQ(world().ReadFile(kOutput), entered + "\n" + own + "\n");
}

TEST_F(Commands, CallDoesNotWaitForBackgroundCommands)
{
    PROMISE(kProcessCmdBackground);
    PROMISE(kProcessCmdSurvives);
    const Background sleeper(world());
    EXPECT_TRUE(sleeper.IsRunning());
}

TEST_F(Commands, CommandInheritsNoDescriptorsAndStreams)
{
    PROMISE(kProcessCmdDescriptors);
    PROMISE(kProcessCmdStreams);
    const UniqueFd inherited(::open("/etc/hostname", O_RDONLY));
    ASSERT_TRUE(inherited);
    const UniqueFd high(::fcntl(inherited.Get(), F_DUPFD, 700));
    ASSERT_TRUE(high);
    const Background sleeper(world());
    EXPECT_THAT(sleeper.Descriptors(), ElementsAre("0 /dev/null", "1 /dev/null", "2 /dev/null"));
}

// Whoever starts the agent again must be able to tell that the launch is under way.
TEST_F(Commands, LaunchOfAnInstanceHoldsItsMark)
{
    const std::string mark = "/run/kavel/vpn_7.launch";
    std::filesystem::create_directories("/run/kavel");
    std::filesystem::remove(mark);
    const Background other(world());
    EXPECT_FALSE(std::filesystem::exists(mark)) << "it is no launch";
    const Background launch(world(), ": dnsmasq --pid-file=/var/run/kvl_dns_vpn_7.pid ; ");
    EXPECT_THAT(launch.Descriptors(), Contains("3 " + mark));
    EXPECT_THAT(launch.Descriptors(), SizeIs(4)) << "the streams and the mark";
    EXPECT_TRUE(agent::IsLaunchMarkHeld(mark));
    launch.End();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (agent::IsLaunchMarkHeld(mark) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_FALSE(agent::IsLaunchMarkHeld(mark));
    EXPECT_TRUE(std::filesystem::remove(mark)) << "it stays";
}

TEST_F(Commands, OutputOfCommandsIsNotLogged)
{
    const std::string logged = world().LoggedBy([] { EXPECT_EQ(Execute("echo noise; echo noise >&2"), 0); });
    EXPECT_THAT(logged, Not(HasSubstr("noise")));
}

// What an instance writes while it starts is kept in a descriptor. Without one left, the instance is started all the
// same.
TEST_F(Commands, LaunchOfAnInstanceNeedsNoFreeDescriptor)
{
    try {
        ThrowErrno(EMFILE, "a sanitizer needs a descriptor when it sees an exception of this type for the first time");
    } catch (const std::system_error &failure) {
        EXPECT_STRNE(failure.what(), "");
    }
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit low{128, before.rlim_max};
    std::vector<UniqueFd> used;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    for (int descriptor = 0; (descriptor = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)) >= 0;) {
        used.emplace_back(descriptor);
    }
    const std::int32_t result = Execute(": dnsmasq --pid-file=/var/run/kvl_dns_vpn_7.pid");
    used.clear();
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(result, 0);
}

TEST_F(Commands, CommandInheritsNoSignalSettings)
{
    PROMISE(kProcessCmdSignals);
    PROMISE(kProcessCmdIgnored);
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &blocked, &before);
    const auto pipe = ::signal(SIGPIPE, SIG_IGN);
    const Background sleeper(world());
    ::signal(SIGPIPE, pipe);
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(sleeper.Signals("SigBlk"), 0U);
    EXPECT_EQ(sleeper.Signals("SigIgn") & (1ULL << (SIGPIPE - 1) | 1ULL << (SIGTERM - 1)), 0U);
}

TEST_F(Commands, CommandHasItsOwnSessionAndDirectory)
{
    PROMISE(kProcessCmdSession);
    EXPECT_EQ(Execute(std::string("ps -o sid= -p $$ > ") + kOutput + "; pwd >> " + kOutput), 0);
    std::istringstream words(world().ReadFile(kOutput).value_or(""));
    pid_t session = 0;
    std::string directory;
    words >> session >> directory;
    EXPECT_NE(session, ::getsid(0));
    EXPECT_EQ(directory, "/");
}

TEST_F(Commands, CommandDoesNotInheritTheNotifySocket)
{
    ::setenv("NOTIFY_SOCKET", "/run/nobody", 1);
    ::setenv("KAVEL_CONTRACT", "kept", 1);
    EXPECT_EQ(Execute(std::string("echo \"$NOTIFY_SOCKET-$KAVEL_CONTRACT\" > ") + kOutput), 0);
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("KAVEL_CONTRACT");
    EXPECT_EQ(world().ReadFile(kOutput), "-kept\n");
}

// The pid of a dead instance may have been reused by another process.
TEST_F(Commands, ProcessThatIsNoInstanceIsNotKilled)
{
    ProcessLab lab;
    const pid_t stranger = lab.StartStranger();
    EXPECT_EQ(VQ_KillPid(stranger), -ESRCH);
    EXPECT_TRUE(ProcessLab::IsRunning(stranger));
}

} // namespace
} // namespace kavel::contract
