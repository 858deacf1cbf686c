// Programs that vqctl runs for a bundle.
#ifndef KAVEL_CTL_BUNDLE_PROGRAMS_H
#define KAVEL_CTL_BUNDLE_PROGRAMS_H

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace kavel::ctl {

struct ProgramResult {
    std::string output;
    std::string problem; // why there is none, or not all of it; the first line of standard error of one that failed
};

// Runs a program of the system directories, without a shell and with no input. It is killed, with what it has started,
// when it takes longer than `timeout` or writes more than `most` bytes. Never throws for what the program does.
[[nodiscard]] ProgramResult RunProgram(const std::vector<std::string> &words, std::chrono::milliseconds timeout,
                                       std::size_t most);

// Has gzip read the file `from`, from its beginning, and write to `to`. Throws InputError.
void Compress(int from, int to);

} // namespace kavel::ctl

#endif
