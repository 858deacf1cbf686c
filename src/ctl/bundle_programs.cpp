#include "bundle_programs.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <iterator>
#include <optional>
#include <poll.h>
#include <span>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

// Older C libraries forgot to say that these are C functions.
extern "C" {
#include <sys/pidfd.h>
}

#include "deadline.h"
#include "errors.h"
#include "unique_fd.h"

namespace kavel::ctl {

namespace {

constexpr std::chrono::seconds kCompressTimeout{60};
constexpr std::chrono::seconds kKillTimeout{1};
constexpr std::size_t kChunk = 65536;

std::string ProgramErrno(int error)
{
    return std::generic_category().message(error);
}

// The user's own search path may lack them, or lead elsewhere.
std::optional<std::string> FindProgram(const std::string &name)
{
    for (const char *directory : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
        if (const std::string path = directory + name; ::access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return std::nullopt;
}

// A running program, in a process group of its own. The destructor ends the group.
class Child {
  public:
    // The descriptors become its standard ones. Throws std::system_error.
    Child(const std::string &path, const std::vector<std::string> &words, const std::array<int, 3> &descriptors)
    {
        posix_spawn_file_actions_t actions{};
        ::posix_spawn_file_actions_init(&actions);
        for (int target = 0; target < static_cast<int>(descriptors.size()); ++target) {
            ::posix_spawn_file_actions_adddup2(&actions, descriptors.at(static_cast<std::size_t>(target)), target);
        }
        posix_spawnattr_t attributes{};
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        std::vector<std::string> copies = words;
        std::vector<char *> arguments;
        std::ranges::transform(copies, std::back_inserter(arguments), [](std::string &word) { return word.data(); });
        arguments.push_back(nullptr);
        std::array<std::string, 2> variables = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8"};
        std::array<char *, 3> environment = {variables[0].data(), variables[1].data(), nullptr};
        const int error =
            ::posix_spawn(&pid_, path.c_str(), &actions, &attributes, arguments.data(), environment.data());
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            throw std::system_error(error, std::generic_category(), path);
        }
        handle_ = UniqueFd(::pidfd_open(pid_, 0));
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    // One that the kernel does not let end is left alone.
    ~Child()
    {
        if (!status_) {
            ::kill(-pid_, SIGKILL);
            (void)StatusWithin(kKillTimeout);
        }
    }

    [[nodiscard]] int Handle() const { return handle_.Get(); }

    // Its exit status as a shell tells it; nothing while it runs.
    std::optional<int> StatusWithin(std::chrono::milliseconds timeout)
    {
        const Deadline deadline(timeout);
        pollfd waited{handle_.Get(), POLLIN, 0};
        while (!status_ && ::poll(&waited, 1, deadline.PollTimeout()) < 0 && errno == EINTR) {
        }
        int status = 0;
        if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_) {
            constexpr int kSignalled = 128;
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : kSignalled + WTERMSIG(status);
        }
        return status_;
    }

  private:
    pid_t pid_ = -1;
    UniqueFd handle_;
    std::optional<int> status_;
};

struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

Pipe NewPipe()
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    Pipe pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
    ::fcntl(pipe.read.Get(), F_SETFL, O_NONBLOCK);
    return pipe;
}

// Reads what there is. Closes the descriptor at its end.
void ReadSome(UniqueFd &from, std::string &to)
{
    std::array<char, kChunk> chunk{};
    while (from) {
        const ssize_t got = ::read(from.Get(), chunk.data(), chunk.size());
        if (got > 0) {
            to.append(chunk.data(), static_cast<std::size_t>(got));
            return;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got == 0 || errno != EAGAIN) {
            from = UniqueFd();
        }
        return;
    }
}

std::string FirstLine(const std::string &text)
{
    return text.substr(0, text.find('\n'));
}

// Until both ends are closed, or the process has ended: what it has started may keep them open.
std::string CollectOutput(Child &child, std::array<UniqueFd, 2> &ends, std::array<std::string, 2> &texts,
                          const Deadline &deadline, std::size_t most)
{
    bool hasEnded = false;
    while (!hasEnded && (ends[0] || ends[1])) {
        std::array<pollfd, 3> waited = {pollfd{ends[0].Get(), POLLIN, 0}, pollfd{ends[1].Get(), POLLIN, 0},
                                        pollfd{child.Handle(), POLLIN, 0}};
        const int ready = ::poll(waited.data(), waited.size(), deadline.PollTimeout());
        if (ready == 0) {
            return "takes too long";
        }
        hasEnded = ready > 0 && waited[0].revents == 0 && waited[1].revents == 0 && waited[2].revents != 0;
        for (std::size_t i = 0; i < ends.size(); ++i) {
            if (waited.at(i).revents != 0) {
                ReadSome(ends.at(i), texts.at(i));
            }
        }
        if (texts[0].size() > most || texts[1].size() > most) {
            return "writes more than " + std::to_string(most) + " bytes";
        }
        if (deadline.HasPassed()) {
            return "takes too long";
        }
    }
    return "";
}

ProgramResult RunFound(const std::string &path, const std::vector<std::string> &words, const Deadline &deadline,
                       std::size_t most)
{
    const UniqueFd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Pipe out = NewPipe();
    Pipe err = NewPipe();
    Child child(path, words, {nothing.Get(), out.write.Get(), err.write.Get()});
    out.write = UniqueFd();
    err.write = UniqueFd();
    std::array<UniqueFd, 2> ends = {std::move(out.read), std::move(err.read)};
    std::array<std::string, 2> texts;
    ProgramResult result;
    result.problem = CollectOutput(child, ends, texts, deadline, most);
    result.output = std::move(texts[0]);
    if (result.output.size() > most) {
        result.output.resize(most);
    }
    if (result.problem.empty()) {
        const auto status = child.StatusWithin(deadline.Remaining());
        if (!status) {
            result.problem = "takes too long";
        } else if (*status != 0) {
            result.problem = "exit status " + std::to_string(*status) + ": " + FirstLine(texts[1]);
        }
    }
    return result;
}

} // namespace

ProgramResult RunProgram(const std::vector<std::string> &words, std::chrono::milliseconds timeout, std::size_t most)
{
    const auto path = FindProgram(words.front());
    if (!path) {
        return {"", "is not installed"};
    }
    try {
        return RunFound(*path, words, Deadline(timeout), most);
    } catch (const std::system_error &failure) {
        return {"", failure.what()};
    }
}

void Compress(int from, int to)
{
    const auto path = FindProgram("gzip");
    if (!path) {
        throw InputError("cannot be written: gzip is not installed");
    }
    if (::lseek(from, 0, SEEK_SET) != 0) {
        throw InputError("cannot be written: " + ProgramErrno(errno));
    }
    const UniqueFd quiet(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    std::optional<int> status;
    try {
        Child child(*path, {"gzip", "-c"}, {from, to, quiet.Get()});
        status = child.StatusWithin(kCompressTimeout);
    } catch (const std::system_error &failure) {
        throw InputError(std::string("cannot be written: ") + failure.what());
    }
    if (status != 0) {
        throw InputError(status ? "cannot be written: gzip failed" : "cannot be written: gzip takes too long");
    }
}

} // namespace kavel::ctl
