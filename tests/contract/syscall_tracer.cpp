#include "syscall_tracer.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <stdexcept>

#include "unique_fd.h"

namespace kavel::contract {
namespace {

constexpr int kSystemCallStop = SIGTRAP | 0x80;

struct Known {
    std::uint64_t number;
    const char *name;
    int pathArgument; // -1: the first argument is a descriptor
    int targetArgument;
};

// A processor has only some of these: newer ones have no open() but openat().
constexpr auto kKnown = std::to_array<Known>({
    {SYS_openat, "open", 1, -1},
#ifdef SYS_open
    {SYS_open, "open", 0, -1},
#endif
    {SYS_write, "write", -1, -1},
    {SYS_fchmod, "fchmod", -1, -1},
    {SYS_fsync, "fsync", -1, -1},
    {SYS_fdatasync, "fdatasync", -1, -1},
    {SYS_ftruncate, "ftruncate", -1, -1},
#ifdef SYS_ftruncate64
    {SYS_ftruncate64, "ftruncate", -1, -1},
#endif
#ifdef SYS_rename
    {SYS_rename, "rename", 0, 1},
#endif
    {SYS_renameat, "rename", 1, 3},
    {SYS_renameat2, "rename", 1, 3},
#ifdef SYS_unlink
    {SYS_unlink, "unlink", 0, -1},
#endif
    {SYS_unlinkat, "unlink", 1, -1},
#ifdef SYS_rmdir
    {SYS_rmdir, "unlink", 0, -1},
#endif
    {SYS_close, "close", -1, -1},
    {SYS_getdents64, "getdents", -1, -1},
#ifdef SYS_newfstatat
    {SYS_newfstatat, "stat", 1, -1},
#endif
#ifdef SYS_fstatat64
    {SYS_fstatat64, "stat", 1, -1},
#endif
#ifdef SYS_fstat64
    {SYS_fstat64, "stat", -1, -1},
#endif
    {SYS_statx, "stat", 1, -1},
    {SYS_fstat, "stat", -1, -1},
});

// Calls without lasting effect.
constexpr auto kIgnored = std::to_array<std::uint64_t>({
    SYS_brk,
#ifdef SYS_mmap
    SYS_mmap,
#endif
#ifdef SYS_mmap2
    SYS_mmap2,
#endif
    SYS_munmap,
    SYS_mprotect,
    SYS_mremap,
    SYS_madvise,
    SYS_futex,
#ifdef SYS_futex_time64
    SYS_futex_time64,
#endif
    SYS_getrandom,
    SYS_rt_sigprocmask,
    SYS_tgkill,
    SYS_gettid,
    SYS_rt_sigaction,
    SYS_rt_sigreturn,
    SYS_getpid,
    SYS_clock_gettime,
#ifdef SYS_clock_gettime64
    SYS_clock_gettime64,
#endif
    SYS_sigaltstack,
    SYS_sched_yield,
});

std::string TextAt(pid_t child, std::uint64_t address)
{
    const UniqueFd memory(::open(("/proc/" + std::to_string(child) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 512> bytes{};
    if (::pread(memory.Get(), bytes.data(), bytes.size() - 1, static_cast<off_t>(address)) <= 0) {
        throw std::runtime_error("the tracer cannot read a path");
    }
    return bytes.data();
}

std::string DescriptorOf(pid_t child, const std::string &number)
{
    std::error_code failure;
    return std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/fd/" + number, failure);
}

std::vector<std::string> DescriptorsOf(pid_t child)
{
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(child) + "/fd")) {
        const std::string number = entry.path().filename();
        found.push_back(number + " " + DescriptorOf(child, number));
    }
    std::ranges::sort(found);
    return found;
}

__ptrace_syscall_info ReadSystemCall(pid_t child)
{
    __ptrace_syscall_info info{};
    if (::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) <= 0) {
        throw std::runtime_error("the tracer cannot read a system call");
    }
    return info;
}

SystemCall Describe(pid_t child, const __ptrace_syscall_info &info)
{
    SystemCall call;
    const auto *const known = std::ranges::find(kKnown, info.entry.nr, &Known::number);
    if (known == kKnown.end()) {
        call.name = std::to_string(info.entry.nr);
        return call;
    }
    call.name = known->name;
    call.path = known->pathArgument < 0 ? DescriptorOf(child, std::to_string(info.entry.args[0]))
                                        : TextAt(child, info.entry.args[known->pathArgument]);
    if (known->targetArgument >= 0) {
        call.target = TextAt(child, info.entry.args[known->targetArgument]);
    }
    return call;
}

#ifdef __x86_64__
template <typename Change>
void ChangeRegisters(pid_t child, Change change)
{
    user_regs_struct registers{};
    ::ptrace(PTRACE_GETREGS, child, nullptr, &registers);
    change(registers);
    ::ptrace(PTRACE_SETREGS, child, nullptr, &registers);
}

// At the entry of a call: it is not executed.
void CancelCall(pid_t child)
{
    ChangeRegisters(child, [](user_regs_struct &registers) { registers.orig_rax = ~0ULL; });
}

// At the entry of a write: it is of one byte.
void ShortenWrite(pid_t child)
{
    ChangeRegisters(child, [](user_regs_struct &registers) { registers.rdx = 1; });
}

// At the exit of a call: it fails with `error`.
void SetError(pid_t child, int error)
{
    ChangeRegisters(child, [error](user_regs_struct &registers) {
        registers.rax = static_cast<unsigned long long>(-static_cast<long long>(error));
    });
}
#else
[[noreturn]] void ThrowNoRegisters()
{
    throw std::logic_error("the tracer cannot change calls on this processor");
}

void CancelCall(pid_t /*child*/)
{
    ThrowNoRegisters();
}

void ShortenWrite(pid_t /*child*/)
{
    ThrowNoRegisters();
}

void SetError(pid_t /*child*/, int /*error*/)
{
    ThrowNoRegisters();
}
#endif

class Tracer {
  public:
    Tracer(pid_t child, const Disturbance &disturbance) : child_(child), disturbance_(disturbance)
    {
        ::waitpid(child_, nullptr, 0);
        ::ptrace(PTRACE_SETOPTIONS, child_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
        outcome_.descriptorsBefore = DescriptorsOf(child_);
    }

    Outcome Run()
    {
        int signal = 0;
        for (;;) {
            ::ptrace(PTRACE_SYSCALL, child_, nullptr, signal);
            int status = 0;
            if (::waitpid(child_, &status, 0) != child_) {
                throw std::runtime_error("cannot wait for the traced child");
            }
            if (!WIFSTOPPED(status)) {
                return End(status);
            }
            signal = WSTOPSIG(status) == kSystemCallStop ? 0 : WSTOPSIG(status);
            if (signal == 0) {
                Handle(ReadSystemCall(child_));
            }
        }
    }

  private:
    using Kind = Disturbance::Kind;

    Outcome End(int status)
    {
        outcome_.crashed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL && killed_;
        if (!outcome_.crashed && !WIFEXITED(status)) {
            throw std::runtime_error("the traced child was killed by another signal");
        }
        outcome_.result = WIFEXITED(status) ? -WEXITSTATUS(status) : 0;
        return std::move(outcome_);
    }

    [[nodiscard]] bool IsDisturbed(Kind kind) const
    {
        return disturbance_.kind == kind && outcome_.calls.size() == disturbance_.at + 1;
    }

    void Handle(const __ptrace_syscall_info &info)
    {
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            Enter(info);
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
            Leave(info);
        }
    }

    void Enter(const __ptrace_syscall_info &info)
    {
        if (info.entry.nr == SYS_exit_group) {
            outcome_.descriptorsAfter = DescriptorsOf(child_);
            return;
        }
        counts_ = std::ranges::find(kIgnored, info.entry.nr) == kIgnored.end();
        if (!counts_) {
            return;
        }
        outcome_.calls.push_back(Describe(child_, info));
        const SystemCall &call = outcome_.calls.back();
        if (IsDisturbed(Kind::kCrashBefore)) {
            Kill();
        } else if (IsDisturbed(Kind::kFail) && !call.Is("close")) {
            // A close that fails has closed the descriptor nevertheless.
            CancelCall(child_);
        } else if (IsDisturbed(Kind::kShorten) && call.Is("write")) {
            ShortenWrite(child_);
        }
    }

    void Leave(const __ptrace_syscall_info &info)
    {
        if (!counts_) {
            return;
        }
        SystemCall &call = outcome_.calls.back();
        call.result = info.exit.rval;
        if (IsDisturbed(Kind::kCrashAfter)) {
            Kill();
        } else if (IsDisturbed(Kind::kFail)) {
            call.result = -disturbance_.error;
            SetError(child_, disturbance_.error);
        }
    }

    void Kill()
    {
        killed_ = true;
        ::kill(child_, SIGKILL);
    }

    pid_t child_;
    Disturbance disturbance_;
    bool counts_ = false;
    bool killed_ = false;
    Outcome outcome_;
};

[[noreturn]] void RunAsChild(const std::function<int()> &work)
{
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    const int result = work();
    // Not exit(): that would run the handlers that the parent registered.
    ::_exit(result < 0 ? -result : 0);
}

} // namespace

#ifdef __x86_64__
const bool kCanChangeCalls = true;
#else
const bool kCanChangeCalls = false;
#endif

Outcome RunTraced(const std::function<int()> &work, const Disturbance &disturbance)
{
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::runtime_error("cannot fork");
    }
    if (child == 0) {
        RunAsChild(work);
    }
    return Tracer(child, disturbance).Run();
}

} // namespace kavel::contract
