// Reading and writing whole files. Each function throws InputError, whose text does not name the file.
#ifndef KAVEL_CTL_FILES_H
#define KAVEL_CTL_FILES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "errors.h"

namespace kavel::ctl {

// The longest file that is read. The largest message is far smaller as JSON; a wrong file (a device, a log) must not
// fill the memory.
inline constexpr std::size_t kFileMax = std::size_t{64} * 1024 * 1024;

// What the output of vqctl calls the file: `-` is "standard input".
std::string DisplayName(const std::string &name);

// The content of the file `name`; `-` is standard input.
std::string ReadInput(const std::string &name);

// Creates or replaces the file `name`.
void WriteOutput(const std::string &name, std::span<const std::uint8_t> bytes);

// The same in one step: readers find the old content or the new one. Mode 0644.
void ReplaceOutput(const std::string &name, const std::string &content);

// Writes to standard output. Refuses a terminal, because raw bytes can change its settings.
void WriteStandardOutput(std::span<const std::uint8_t> bytes);

// Calls `work` and puts the file's name before the text of an InputError.
template <typename Work>
auto WithFileName(const std::string &name, Work work)
{
    try {
        return work();
    } catch (const InputError &error) {
        throw FileError(name, error.what());
    }
}

} // namespace kavel::ctl

#endif
