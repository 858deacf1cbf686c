#include "files.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "errors.h"
#include "unique_fd.h"

namespace kavel::ctl {

namespace {

constexpr mode_t kNewFileMode = 0666; // less what the umask removes
constexpr mode_t kReplacedMode = 0644;

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

std::string DisplayName(const std::string &name)
{
    return name == "-" ? "standard input" : name;
}

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

// The temporary file stands beside it: a rename does not leave a file system. Its name has no suffix that a collector
// of such files looks for.
void ReplaceOutput(const std::string &name, const std::string &content)
{
    const std::size_t slash = name.rfind('/');
    const std::size_t base = slash == std::string::npos ? 0 : slash + 1;
    std::string temporary = name.substr(0, base) + "." + name.substr(base) + ".XXXXXX";
    const UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file) {
        ThrowErrno("cannot be created");
    }
    try {
        WriteAll(file.Get(), {reinterpret_cast<const std::uint8_t *>(content.data()), content.size()});
        if (::fchmod(file.Get(), kReplacedMode) != 0 || ::rename(temporary.c_str(), name.c_str()) != 0) {
            ThrowErrno("cannot be replaced");
        }
    } catch (const InputError &) {
        ::unlink(temporary.c_str());
        throw;
    }
}

void WriteStandardOutput(std::span<const std::uint8_t> bytes)
{
    if (::isatty(STDOUT_FILENO) == 1) {
        throw InputError("is a terminal: name a file with -o, or redirect the output");
    }
    WriteAll(STDOUT_FILENO, bytes);
}

} // namespace kavel::ctl
