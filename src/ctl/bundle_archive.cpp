#include "bundle_archive.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <numeric>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "bundle_programs.h"
#include "errors.h"
#include "unique_fd.h"

namespace kavel::ctl {

namespace {

constexpr std::size_t kTarBlock = 512;
constexpr mode_t kArchiveMode = 0600;

[[noreturn]] void ThrowArchiveError(int error)
{
    throw InputError("cannot be written: " + std::generic_category().message(error));
}

void WriteWhole(int to, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t put = ::write(to, bytes.data(), bytes.size());
        if (put < 0 && errno != EINTR) {
            ThrowArchiveError(errno);
        }
        bytes.remove_prefix(put > 0 ? static_cast<std::size_t>(put) : 0);
    }
}

// The header of a file, POSIX.1-1988 (ustar): text in fields of fixed width, numbers in octal.
class TarHeader {
  public:
    TarHeader(std::string_view prefix, std::string_view name, std::size_t size, std::uint64_t time)
    {
        Put(kName, name);
        Put(kMode, "0000600");
        Put(kUser, "0000000");
        Put(kGroup, "0000000");
        Put(kSize, Octal(size));
        Put(kTime, Octal(time));
        Put(kSum, "        ");
        Put(kType, "0");
        Put(kMagic, std::string_view("ustar\00000", 8));
        Put(kPrefix, prefix);
        const unsigned sum = std::accumulate(block_.begin(), block_.end(), 0U, [](unsigned so, char letter) {
            return so + static_cast<unsigned char>(letter);
        });
        std::array<char, 8> text{};
        std::snprintf(text.data(), text.size(), "%06o", sum);
        Put(kSum, {text.data(), 7});
    }

    [[nodiscard]] std::string_view Bytes() const { return {block_.data(), block_.size()}; }

    static constexpr std::size_t kNameMax = 100;
    static constexpr std::size_t kPrefixMax = 155;

  private:
    static constexpr std::size_t kName = 0;
    static constexpr std::size_t kMode = 100;
    static constexpr std::size_t kUser = 108;
    static constexpr std::size_t kGroup = 116;
    static constexpr std::size_t kSize = 124;
    static constexpr std::size_t kTime = 136;
    static constexpr std::size_t kSum = 148;
    static constexpr std::size_t kType = 156;
    static constexpr std::size_t kMagic = 257;
    static constexpr std::size_t kPrefix = 345;

    void Put(std::size_t at, std::string_view text) { text.copy(block_.data() + at, text.size()); }

    static std::string Octal(std::uint64_t number)
    {
        std::array<char, 12> text{};
        std::snprintf(text.data(), text.size(), "%011llo", static_cast<unsigned long long>(number));
        return text.data();
    }

    std::array<char, kTarBlock> block_{};
};

// The two parts of a path that the header has room for; nothing when they do not fit.
std::optional<std::pair<std::string_view, std::string_view>> SplitPath(std::string_view path)
{
    if (path.size() <= TarHeader::kNameMax) {
        return std::pair(std::string_view(), path);
    }
    // Without one it is npos, which is more than any limit.
    const std::size_t slash = path.find('/', path.size() - TarHeader::kNameMax - 1);
    if (slash > TarHeader::kPrefixMax) {
        return std::nullopt;
    }
    return std::pair(path.substr(0, slash), path.substr(slash + 1));
}

void WriteTarFile(int to, const std::string &path, std::string_view content, std::uint64_t time)
{
    const auto parts = SplitPath(path);
    const std::string shortened = path.substr(0, TarHeader::kNameMax);
    const auto [prefix, name] = parts.value_or(std::pair(std::string_view(), std::string_view(shortened)));
    WriteWhole(to, TarHeader(prefix, name, content.size(), time).Bytes());
    WriteWhole(to, content);
    const std::size_t beyond = content.size() % kTarBlock;
    WriteWhole(to, std::string(beyond == 0 ? 0 : kTarBlock - beyond, '\0'));
}

// Removes the file unless it was completed.
class NewFile {
  public:
    explicit NewFile(const std::string &path)
        : path_(path), fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kArchiveMode))
    {
        if (!fd_) {
            ThrowArchiveError(errno);
        }
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile()
    {
        if (!isComplete_) {
            ::unlink(path_.c_str());
        }
    }

    [[nodiscard]] int Fd() const { return fd_.Get(); }

    std::uint64_t Complete()
    {
        struct stat info {};
        if (::fsync(fd_.Get()) != 0 || ::fstat(fd_.Get(), &info) != 0) {
            ThrowArchiveError(errno);
        }
        isComplete_ = true;
        return static_cast<std::uint64_t>(info.st_size);
    }

  private:
    std::string path_;
    UniqueFd fd_;
    bool isComplete_ = false;
};

} // namespace

void CheckNewFile(const std::string &path)
{
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0) {
        ThrowArchiveError(EEXIST);
    }
    const std::string parent = std::filesystem::path(path).parent_path().string();
    if (::access(parent.empty() ? "." : parent.c_str(), W_OK | X_OK) != 0) {
        ThrowArchiveError(errno);
    }
}

std::uint64_t WriteArchive(const std::string &path, const std::string &directory, std::span<const BundleFile> files,
                           std::uint64_t time)
{
    const UniqueFd tar(::memfd_create("bundle", MFD_CLOEXEC));
    if (!tar) {
        ThrowArchiveError(errno);
    }
    for (const BundleFile &file : files) {
        WriteTarFile(tar.Get(), directory + "/" + file.name, file.content, time);
    }
    WriteWhole(tar.Get(), std::string(2 * kTarBlock, '\0'));
    NewFile archive(path);
    Compress(tar.Get(), archive.Fd());
    return archive.Complete();
}

} // namespace kavel::ctl
