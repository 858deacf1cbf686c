// Whole files in and out. Each throws InputError, whose text does not name the file.
#ifndef KAVEL_CTL_FILES_H
#define KAVEL_CTL_FILES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace kavel::ctl {

// Far above what a message of the largest size takes as JSON; keeps a wrong file (a device, a log) out of memory.
inline constexpr std::size_t kFileMax = std::size_t{64} * 1024 * 1024;

// The content of the file `name`; `-` is standard input.
std::string ReadInput(const std::string &name);

// Creates or replaces the file `name`.
void WriteOutput(const std::string &name, std::span<const std::uint8_t> bytes);

// Writes to standard output; refuses a terminal, which raw bytes would upset.
void WriteStandardOutput(std::span<const std::uint8_t> bytes);

} // namespace kavel::ctl

#endif
