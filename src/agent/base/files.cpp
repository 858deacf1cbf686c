#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "failure.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

constexpr std::string_view kTemporarySuffix = ".XXXXXX";
constexpr mode_t kFileMode = 0644;

std::int64_t Nanoseconds(const timespec &time)
{
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

struct PathParts {
    std::string directory;
    std::string name;
};

PathParts Split(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return {".", path};
    }
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

// A temporary file in the directory of the file that it will replace. Removed by the destructor unless MoveTo() was
// called.
class TemporaryFile {
  public:
    // The leading dot keeps dnsmasq's conf-dir from reading a half-written file.
    explicit TemporaryFile(const PathParts &target) : path_(target.directory + "/." + target.name)
    {
        path_ += kTemporarySuffix;
        fd_ = UniqueFd(::mkostemp(path_.data(), O_CLOEXEC));
        if (!fd_) {
            ThrowLastErrno(path_);
        }
    }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    ~TemporaryFile()
    {
        if (!moved_) {
            ::unlink(path_.c_str());
        }
    }

    void Write(std::string_view content, mode_t mode) const
    {
        while (!content.empty()) {
            const ssize_t written = ::write(fd_.Get(), content.data(), content.size());
            if (written >= 0) {
                content.remove_prefix(static_cast<std::size_t>(written));
            } else if (errno != EINTR) {
                ThrowLastErrno(path_);
            }
        }
        if (::fchmod(fd_.Get(), mode) != 0 || ::fsync(fd_.Get()) != 0) {
            ThrowLastErrno(path_);
        }
    }

    void MoveTo(const std::string &target)
    {
        if (::rename(path_.c_str(), target.c_str()) != 0) {
            ThrowLastErrno(target);
        }
        moved_ = true;
    }

  private:
    std::string path_;
    UniqueFd fd_;
    bool moved_ = false;
};

// Whether `entry` is the temporary name under which a file called `name` is written.
bool IsTemporaryNameOf(std::string_view entry, std::string_view name)
{
    if (entry.size() != 1 + name.size() + kTemporarySuffix.size() || !entry.starts_with('.') ||
        entry.substr(1, name.size()) != name) {
        return false;
    }
    const std::string_view suffix = entry.substr(1 + name.size());
    return suffix.front() == '.' && std::all_of(suffix.begin() + 1, suffix.end(),
                                                [](unsigned char letter) { return std::isalnum(letter) != 0; });
}

} // namespace

FileIdentity IdentityOfFile(const std::string &path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? FileIdentity{info.st_dev, info.st_ino} : FileIdentity{};
}

FileMark MarkOfFile(const std::string &path)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return {};
    }
    return {info.st_ino, static_cast<std::uint64_t>(info.st_size), Nanoseconds(info.st_mtim),
            Nanoseconds(info.st_ctim)};
}

void SyncDirectory(const std::string &path)
{
    const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || ::fsync(directory.Get()) != 0) {
        ThrowLastErrno(path);
    }
}

void ReplaceFile(const std::string &path, std::string_view content, mode_t mode)
{
    const PathParts parts = Split(path);
    TemporaryFile file(parts);
    file.Write(content, mode);
    file.MoveTo(path);
    SyncDirectory(parts.directory);
}

void CreateFile(const std::string &path)
{
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    if (!file && errno == EEXIST) {
        return;
    }
    // The mode of open() is cut by the umask.
    if (!file || ::fchmod(file.Get(), kFileMode) != 0) {
        ThrowLastErrno(path);
    }
}

void RemoveTree(const std::string &path)
{
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        ThrowLastErrno(path);
    }
    if (!S_ISDIR(info.st_mode)) {
        ThrowErrno(ENOTDIR, path);
    }
    std::filesystem::remove_all(path);
}

void RemoveTemporaryFiles(const std::filesystem::path &directory, std::span<const std::string_view> names)
{
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(directory, ignored)) {
        const std::string found = entry.path().filename().string();
        if (std::ranges::any_of(names, [&](std::string_view name) { return IsTemporaryNameOf(found, name); })) {
            std::filesystem::remove(entry.path(), ignored);
        }
    }
}

} // namespace kavel::agent
