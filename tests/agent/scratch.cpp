#include "scratch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <system_error>

namespace kavel::agent {
namespace {

constexpr uid_t kNobody = 65534;

void Require(bool condition, const char *what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

} // namespace

ScratchDirectory::ScratchDirectory()
{
    std::string path = std::filesystem::temp_directory_path() / "vqagent_test.XXXXXX";
    Require(::mkdtemp(path.data()) != nullptr, "no scratch directory");
    Require(::chmod(path.c_str(), 0755) == 0, "no scratch directory");
    path_ = path;
}

ScratchDirectory::~ScratchDirectory()
{
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDirectory::Write(const std::string &name, std::string_view content) const
{
    const std::string path = File(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::vector<std::string> ScratchDirectory::Names() const
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(path_)) {
        names.push_back(entry.path().filename());
    }
    std::ranges::sort(names);
    return names;
}

std::string ContentOf(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

mode_t ModeOf(const std::string &path)
{
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & ALLPERMS;
}

CapturedStderr::CapturedStderr()
    : file_(::memfd_create("stderr", MFD_CLOEXEC)), own_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0))
{
    Require(file_ && own_ && ::dup2(file_.Get(), STDERR_FILENO) >= 0, "standard error cannot be captured");
}

CapturedStderr::~CapturedStderr()
{
    ::dup2(own_.Get(), STDERR_FILENO);
}

std::string CapturedStderr::Text() const
{
    struct stat info {};
    ::fstat(file_.Get(), &info);
    std::string text(static_cast<std::size_t>(info.st_size), '\0');
    const ssize_t size = ::pread(file_.Get(), text.data(), text.size(), 0);
    EXPECT_EQ(size, info.st_size);
    return text;
}

OrdinaryUser::OrdinaryUser()
{
    Require(::geteuid() != 0 || ::seteuid(kNobody) == 0, "root's rights cannot be given up");
}

OrdinaryUser::~OrdinaryUser()
{
    if (::getuid() == 0 && ::seteuid(0) != 0) {
        std::abort();
    }
}

ThrownError FailureOf(const std::function<void()> &work)
{
    try {
        work();
    } catch (const std::system_error &failure) {
        return {failure.code().value(), failure.what()};
    }
    return {};
}

void PrintTo(const ThrownError &failure, std::ostream *stream)
{
    *stream << "errno " << failure.error << ": " << failure.text;
}

WaitingProcess::WaitingProcess(const std::vector<std::string> &arguments)
{
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    Require(::pipe2(input.data(), O_CLOEXEC) == 0 && ::pipe2(output.data(), O_CLOEXEC) == 0, "no pipe");
    input_ = UniqueFd(input[1]);
    const UniqueFd childInput(input[0]);
    const UniqueFd childOutput(output[1]);
    const UniqueFd started(output[0]);

    std::vector<std::string> words{"sh", "-c", "echo started; read line"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> pointers;
    std::ranges::transform(words, std::back_inserter(pointers), [](std::string &word) { return word.data(); });
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childInput.Get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOutput.Get(), STDOUT_FILENO);
    const int error = posix_spawn(&pid_, "/bin/sh", &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    Require(error == 0, "no shell");
    char letter = 0;
    Require(::read(started.Get(), &letter, 1) == 1, "the shell did not start");
}

WaitingProcess::~WaitingProcess()
{
    Reap();
}

void WaitingProcess::End()
{
    input_ = UniqueFd();
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

void WaitingProcess::Reap()
{
    input_ = UniqueFd();
    if (pid_ != 0) {
        ::waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }
}

} // namespace kavel::agent
