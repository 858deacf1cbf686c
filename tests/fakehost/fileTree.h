// Files and directories in memory, and the open streams on them.
#ifndef FAKEHOST_FILE_TREE_H
#define FAKEHOST_FILE_TREE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <dirent.h>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "failures.h"

namespace fakehost {

class Host;

// An open directory, with the names at the time it was opened.
struct OpenDirectory {
    std::vector<std::string> Names;
    std::size_t Next = 0;
    dirent Current{};
};

class FileTree {
  public:
    // Creates the directories of the box: the configuration root with its drop-in directory, /proc and /var/run.
    explicit FileTree(Host &Owner);
    ~FileTree();
    FileTree(const FileTree &) = delete;
    FileTree &operator=(const FileTree &) = delete;
    FileTree(FileTree &&) = delete;
    FileTree &operator=(FileTree &&) = delete;

    void Put(const std::string &Path, std::string Content) { m_Files[Path] = std::move(Content); }
    void Drop(const std::string &Path) { m_Files.erase(Path); }
    void PutDirectory(const std::string &Path) { m_Directories.insert(Path); }
    void DropDirectory(const std::string &Path) { m_Directories.erase(Path); }
    // Creates the instance directory of a VPN with its drop-in directory.
    void PutInstance(uint32_t VpnId);
    // Creates a file that can be opened and whose reads fail.
    void FailReads(const std::string &Path) { m_Unreadable.insert(Path); }

    [[nodiscard]] bool IsDirectory(const std::string &Path) const { return m_Directories.contains(Path); }
    [[nodiscard]] bool Exists(const std::string &Path) const { return IsDirectory(Path) || m_Files.contains(Path); }
    // The content, or nothing if there is no such file.
    [[nodiscard]] std::optional<std::string> Content(const std::string &Path) const;
    [[nodiscard]] const std::map<std::string, std::string> &All() const { return m_Files; }
    // The paths that a file service wrote, in order.
    [[nodiscard]] const std::vector<std::string> &Written() const { return m_Written; }
    void KeepContent(bool Wanted) { m_KeepContent = Wanted; }

    // The results are negated errno values.
    int Write(const std::string &Path, std::string_view Content);
    int Create(const std::string &Path);
    int RemoveTree(const std::string &Path);
    int Remove(const std::string &Path);
    int MakeDirectory(const std::string &Path);

    // `Lack`: how reads of the content fail.
    std::FILE *Open(const std::string &Path, Shortage Lack);
    void Closed(std::FILE *Stream) { m_Streams.erase(Stream); }
    OpenDirectory *OpenDirectoryAt(const std::string &Path);
    OpenDirectory *Find(DIR *Handle);
    void Close(DIR *Handle);
    [[nodiscard]] std::size_t OpenStreams() const { return m_Streams.size(); }
    [[nodiscard]] std::size_t OpenDirectories() const { return m_OpenDirectories.size(); }
    void ReportLeaks();

  private:
    [[nodiscard]] bool ParentExists(const std::string &Path) const;

    Host &m_Host;
    bool m_KeepContent = true;
    std::map<std::string, std::string> m_Files;
    std::set<std::string> m_Directories;
    std::set<std::string> m_Unreadable;
    std::vector<std::string> m_Written;
    std::map<std::FILE *, std::string> m_Streams;
    std::map<OpenDirectory *, std::unique_ptr<OpenDirectory>> m_OpenDirectories;
};

} // namespace fakehost

#endif
