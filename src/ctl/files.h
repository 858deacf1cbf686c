// Reading and writing whole files. Each function throws InputError, whose text does not name the file.
#ifndef KAVEL_CTL_FILES_H
#define KAVEL_CTL_FILES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

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

// Writes to standard output. Refuses a terminal, because raw bytes can change its settings.
void WriteStandardOutput(std::span<const std::uint8_t> bytes);

} // namespace kavel::ctl

#endif
