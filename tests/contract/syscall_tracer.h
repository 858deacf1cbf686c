// Runs a piece of work in a child and watches its system calls, one by one: it can end the child at any of them, as a
// crash would, or let one of them fail. Calls by which a process manages its own memory and signals do not count: they
// leave nothing behind, and vary from run to run.
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
    std::string name;   // or its number
    std::string path;   // of the file that it is about
    std::string target; // of a rename
    std::int64_t result = 0;

    [[nodiscard]] bool Is(std::string_view wanted) const { return name == wanted; }
};

// What happens to the system call number `at`, from 0.
struct Disturbance {
    enum class Kind {
        kNone,
        kCrashBefore, // the child is gone before the call has done anything
        kCrashAfter,  // and right after it has done its work
        kFail,        // the call does nothing and fails with `error`
        kShorten      // a write takes only the first byte
    };

    Kind kind = Kind::kNone;
    std::size_t at = 0;
    int error = 0; // errno
};

struct Outcome {
    bool crashed = false;
    int result = 0; // of the work: 0, or a negated errno
    std::vector<SystemCall> calls;
    // Of the child, before the work and after it: what each descriptor leads to.
    std::vector<std::string> descriptorsBefore;
    std::vector<std::string> descriptorsAfter;
};

// `work` gives 0 or more, or a negated errno. It runs in a copy of this process.
Outcome RunTraced(const std::function<int()> &work, const Disturbance &disturbance = {});

} // namespace kavel::contract

#endif
