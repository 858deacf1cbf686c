// Files that other programs read: replaced as a whole and durably. Failures throw std::system_error.
#ifndef KAVEL_AGENT_FILES_H
#define KAVEL_AGENT_FILES_H

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace kavel::agent {

// Tells whether a path still names the same file.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0; // 0: no such file
    bool operator==(const FileIdentity &) const = default;
};
[[nodiscard]] FileIdentity IdentityOfFile(const std::string &path);

// Changes whenever the file is written, replaced, or gets other rights.
struct FileMark {
    std::uint64_t inode = 0; // 0: no such file
    std::uint64_t size = 0;
    std::int64_t modified = 0; // nanoseconds
    std::int64_t changed = 0;
    bool operator==(const FileMark &) const = default;
};
[[nodiscard]] FileMark MarkOfFile(const std::string &path);

// Writes the directory's entries to the disk.
void SyncDirectory(const std::string &path);

// Replaces the file at `path`. After a crash the path holds the old bytes or the new ones.
void ReplaceFile(const std::string &path, std::string_view content, mode_t mode = 0644);

// Creates an empty file, mode 0644, unless one exists.
void CreateFile(const std::string &path);

// Removes a directory with its content. Throws ENOTDIR for anything else.
void RemoveTree(const std::string &path);

// Removes the temporary files that interrupted replacements of the files called `names` left in `directory`. Failures
// are ignored.
void RemoveTemporaryFiles(const std::filesystem::path &directory, std::span<const std::string_view> names);

} // namespace kavel::agent

#endif
