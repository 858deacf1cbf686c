// Runs a function in a child process and traces its system calls. It can kill the child at any of them, as a crash
// would, or make one of them fail. Calls that only manage the memory and signals of the process are not counted: they
// have no lasting effect, and vary from run to run.
#ifndef CONTRACT_SYSCALL_TRACER_H
#define CONTRACT_SYSCALL_TRACER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kavel::contract {

struct SystemCall {
    std::string name;   // or its number, if the name is not known
    std::string path;   // of the file that the call is about
    std::string target; // of a rename
    std::int64_t result = 0;

    [[nodiscard]] bool Is(std::string_view wanted) const { return name == wanted; }
};

// What is done to the system call with index `at`, from 0.
struct Disturbance {
    enum class Kind {
        kNone,
        kCrashBefore, // the child is killed before the call is executed
        kCrashAfter,  // the child is killed right after the call
        kFail,        // the call is not executed and fails with `error`
        kShorten      // a write writes only the first byte
    };

    Kind kind = Kind::kNone;
    std::size_t at = 0;
    int error = 0; // errno
};

struct Outcome {
    bool crashed = false;
    int result = 0; // of the function: 0, or a negated errno
    std::vector<SystemCall> calls;
    // The open descriptors of the child before and after the function, with what each one refers to.
    std::vector<std::string> descriptorsBefore;
    std::vector<std::string> descriptorsAfter;
};

// Whether this processor's calls can be made to fail or to be shortened: that changes registers, whose names and use
// differ. Where it is false, RunTraced takes no disturbance but a crash.
extern const bool kCanChangeCalls;

// `work` returns 0 or more, or a negated errno. It runs in a forked copy of this process.
Outcome RunTraced(const std::function<int()> &work, const Disturbance &disturbance = {});

} // namespace kavel::contract

#endif
