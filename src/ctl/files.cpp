#include "files.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

#include "errors.h"
#include "unique_fd.h"

namespace kavel::ctl {

namespace {

constexpr mode_t kNewFileMode = 0666; // less what the umask removes

[[noreturn]] void ThrowErrno(const std::string &what)
{
    throw InputError(what + ": " + std::generic_category().message(errno));
}

std::string ReadAll(int fd)
{
    std::string content;
    std::array<char, std::size_t{64} * 1024> chunk{};
    while (true) {
        const ssize_t got = ::read(fd, chunk.data(), chunk.size());
        if (got == 0) {
            return content;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            ThrowErrno("cannot be read");
        }
        content.append(chunk.data(), static_cast<std::size_t>(got));
        if (content.size() > kFileMax) {
            throw InputError("is larger than " + std::to_string(kFileMax) + " bytes");
        }
    }
}

void WriteAll(int fd, std::span<const std::uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t put = ::write(fd, bytes.data(), bytes.size());
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put < 0) {
            ThrowErrno("cannot be written");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(put));
    }
}

} // namespace

std::string ReadInput(const std::string &name)
{
    if (name == "-") {
        return ReadAll(STDIN_FILENO);
    }
    const UniqueFd file(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        ThrowErrno("cannot be opened");
    }
    return ReadAll(file.Get());
}

void WriteOutput(const std::string &name, std::span<const std::uint8_t> bytes)
{
    const UniqueFd file(::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kNewFileMode));
    if (!file) {
        ThrowErrno("cannot be opened");
    }
    WriteAll(file.Get(), bytes);
}

void WriteStandardOutput(std::span<const std::uint8_t> bytes)
{
    if (::isatty(STDOUT_FILENO) == 1) {
        throw InputError("is a terminal: name a file with -o, or redirect the output");
    }
    WriteAll(STDOUT_FILENO, bytes);
}

std::string DisplayName(const std::string &file)
{
    return file == "-" ? "standard input" : file;
}

} // namespace kavel::ctl
