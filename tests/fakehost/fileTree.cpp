#include "fileTree.h"

#include <algorithm>
#include <cerrno>
#include <sys/types.h>

#include "host.h"

namespace fakehost {

namespace {

// The source of a stream, freed with the stream.
struct StreamContent {
    std::FILE *Stream;
    std::string Bytes;
    Shortage Lack;
    std::size_t Position;
};

ssize_t ReadContent(void *Cookie, char *Buffer, std::size_t Size)
{
    auto *Content = static_cast<StreamContent *>(Cookie);
    if (Content->Lack == Shortage::ReadError) {
        errno = EIO;
        return -1;
    }
    const std::size_t Most = Content->Lack == Shortage::ByteByByte ? std::min<std::size_t>(Size, 1) : Size;
    const std::size_t Length = std::min(Most, Content->Bytes.size() - Content->Position);
    std::copy_n(Content->Bytes.begin() + static_cast<std::ptrdiff_t>(Content->Position), Length, Buffer);
    Content->Position += Length;
    return static_cast<ssize_t>(Length);
}

int CloseContent(void *Cookie)
{
    const std::unique_ptr<StreamContent> Content(static_cast<StreamContent *>(Cookie));
    if (Host *Here = Host::CurrentOrNull(); Here != nullptr) {
        Here->Files.Closed(Content->Stream);
    }
    return 0;
}

} // namespace

FileTree::FileTree(Host &Owner)
    : m_Host(Owner), m_Directories{"/etc/kavel/dnsmasq", "/etc/kavel/dnsmasq/dnsmasq.d", "/proc", "/proc/net",
                                   "/var/run"}
{
}

FileTree::~FileTree()
{
    for (const auto &[Stream, Path] : std::exchange(m_Streams, {})) {
        static_cast<void>(std::fclose(Stream));
    }
}

void FileTree::PutInstance(uint32_t VpnId)
{
    const std::string Root = "/etc/kavel/dnsmasq/vpn_" + std::to_string(VpnId);
    PutDirectory(Root);
    PutDirectory(Root + "/dnsmasq.d");
}

std::optional<std::string> FileTree::Content(const std::string &Path) const
{
    const auto Found = m_Files.find(Path);
    return Found == m_Files.end() ? std::nullopt : std::optional(Found->second);
}

bool FileTree::ParentExists(const std::string &Path) const
{
    return IsDirectory(Path.substr(0, Path.rfind('/')));
}

int FileTree::Write(const std::string &Path, std::string_view Content)
{
    if (IsDirectory(Path)) {
        return -EISDIR;
    }
    if (!ParentExists(Path)) {
        return -ENOENT;
    }
    if (m_KeepContent) {
        m_Files[Path] = Content;
        m_Written.push_back(Path);
    }
    return 0;
}

int FileTree::Create(const std::string &Path)
{
    return Exists(Path) ? 0 : Write(Path, "");
}

int FileTree::RemoveTree(const std::string &Path)
{
    if (!IsDirectory(Path)) {
        return Exists(Path) ? -ENOTDIR : -ENOENT;
    }
    const std::string Below = Path + '/';
    std::erase_if(m_Files, [&](const auto &Each) { return Each.first.starts_with(Below); });
    std::erase_if(m_Directories, [&](const std::string &Each) { return Each == Path || Each.starts_with(Below); });
    return 0;
}

int FileTree::Remove(const std::string &Path)
{
    return m_Files.erase(Path) == 1 ? 0 : -ENOENT;
}

int FileTree::MakeDirectory(const std::string &Path)
{
    if (Exists(Path)) {
        return -EEXIST;
    }
    const std::string Parent = Path.substr(0, Path.rfind('/'));
    if (!IsDirectory(Parent)) {
        return m_Files.contains(Parent) ? -ENOTDIR : -ENOENT;
    }
    PutDirectory(Path);
    return 0;
}

std::FILE *FileTree::Open(const std::string &Path, Shortage Lack)
{
    std::optional<std::string> Bytes = Content(Path);
    if (!Bytes.has_value()) {
        errno = ENOENT;
        return nullptr;
    }
    if (Lack == Shortage::FewerBytes || Lack == Shortage::NoBytes) {
        Bytes->resize(Lack == Shortage::FewerBytes ? Bytes->size() / 2 : 0);
    }
    const Shortage Told = m_Unreadable.contains(Path) ? Shortage::ReadError : Lack;
    auto Cookie = std::make_unique<StreamContent>(StreamContent{nullptr, std::move(*Bytes), Told, 0});
    const cookie_io_functions_t Functions{ReadContent, nullptr, nullptr, CloseContent};
    std::FILE *Stream = fopencookie(Cookie.get(), "r", Functions);
    Cookie->Stream = Stream;
    m_Streams.emplace(Stream, Path);
    static_cast<void>(Cookie.release());
    return Stream;
}

OpenDirectory *FileTree::OpenDirectoryAt(const std::string &Path)
{
    if (!IsDirectory(Path)) {
        errno = ENOENT;
        return nullptr;
    }
    auto Opened = std::make_unique<OpenDirectory>();
    Opened->Names = Path == "/proc" ? m_Host.Proc.Names() : std::vector<std::string>{".", ".."};
    OpenDirectory *Handle = Opened.get();
    m_OpenDirectories.emplace(Handle, std::move(Opened));
    return Handle;
}

OpenDirectory *FileTree::Find(DIR *Handle)
{
    // DIR is opaque, so a pointer to our own type can take its place.
    const auto Found = m_OpenDirectories.find(reinterpret_cast<OpenDirectory *>(Handle));
    if (Found == m_OpenDirectories.end()) {
        m_Host.Violation("a directory used that is not open");
        return nullptr;
    }
    return Found->first;
}

void FileTree::Close(DIR *Handle)
{
    if (OpenDirectory *Opened = Find(Handle); Opened != nullptr) {
        m_OpenDirectories.erase(Opened);
    }
}

void FileTree::ReportLeaks()
{
    for (const auto &[Stream, Path] : m_Streams) {
        m_Host.Violation("never closed: " + Path);
    }
    if (!m_OpenDirectories.empty()) {
        m_Host.Violation("directories never closed: " + std::to_string(m_OpenDirectories.size()));
    }
}

} // namespace fakehost
