// The wrapped C library calls on files and directories. Without a current host they call the real ones, which the test
// framework needs.
#include <array>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "host.h"

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Fault;
using fakehost::Host;
using fakehost::OpenDirectory;
using fakehost::Quoted;
using fakehost::Shortage;

extern "C" {
std::FILE *__real_fopen(const char *Path, const char *Mode);
DIR *__real_opendir(const char *Path);
dirent *__real_readdir(DIR *Handle);
int __real_closedir(DIR *Handle);
int __real_access(const char *Path, int Mode);
int __real_mkdir(const char *Path, mode_t Mode);
int __real_remove(const char *Path);
std::FILE *__wrap_fopen(const char *Path, const char *Mode);
DIR *__wrap_opendir(const char *Path);
dirent *__wrap_readdir(DIR *Handle);
int __wrap_closedir(DIR *Handle);
int __wrap_access(const char *Path, int Mode);
int __wrap_mkdir(const char *Path, mode_t Mode);
int __wrap_remove(const char *Path);
}

namespace {

// Returns a negated errno value in the way of the C library.
int Told(int Result)
{
    if (Result >= 0) {
        return Result;
    }
    errno = -Result;
    return -1;
}

} // namespace

std::FILE *__wrap_fopen(const char *Path, const char *Mode)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_fopen(Path, Mode);
    }
    if (std::string_view(Path) == "/proc/net/tcp") {
        Here->Netns.ShowTcpTable();
    }
    static constexpr std::array Known{Shortage::FewerBytes, Shortage::NoBytes, Shortage::ByteByByte,
                                      Shortage::ReadError};
    const std::span<const Shortage> CanLack =
        Here->Files.Content(Path).has_value() ? std::span<const Shortage>(Known) : std::span<const Shortage>();
    const std::optional<Fault> How = Here->EnterWith(CanLack, EntryKind::World, "fopen", Quoted{Path}, Quoted{Mode});
    if (!std::string_view(Mode).starts_with('r') || std::string_view(Mode).find('+') != std::string_view::npos) {
        Here->Violation(std::string("fopen for writing: ") + Path);
    }
    if (How.has_value() && How->Lack() == Shortage::None) {
        static_cast<void>(Told(How->Error()));
        return nullptr;
    }
    return Here->Files.Open(Path, How.value_or(Fault()).Lack());
}

DIR *__wrap_opendir(const char *Path)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_opendir(Path);
    }
    static constexpr std::array Known{Shortage::FewerNames};
    const std::optional<Fault> How = Here->EnterWith(Known, EntryKind::World, "opendir", Quoted{Path});
    if (How.has_value() && How->Lack() == Shortage::None) {
        static_cast<void>(Told(How->Error()));
        return nullptr;
    }
    OpenDirectory *Opened = Here->Files.OpenDirectoryAt(Path);
    if (How.has_value() && Opened != nullptr) {
        Opened->Names.resize(Opened->Names.size() / 2);
    }
    // DIR is opaque, so a pointer to our own type can take its place.
    return reinterpret_cast<DIR *>(Opened);
}

dirent *__wrap_readdir(DIR *Handle)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_readdir(Handle);
    }
    OpenDirectory *Opened = Here->Files.Find(Handle);
    if (Opened == nullptr || Opened->Next == Opened->Names.size()) {
        return nullptr;
    }
    const std::string &Name = Opened->Names[Opened->Next++];
    Opened->Current.d_type = DT_UNKNOWN;
    Opened->Current.d_name[Name.copy(Opened->Current.d_name, sizeof(Opened->Current.d_name) - 1)] = '\0';
    return &Opened->Current;
}

int __wrap_closedir(DIR *Handle)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_closedir(Handle);
    }
    const ErrnoKept Kept;
    Here->Note(EntryKind::World, "closedir");
    Here->Files.Close(Handle);
    return 0;
}

int __wrap_access(const char *Path, int Mode)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_access(Path, Mode);
    }
    const std::optional<int> Error = Here->Enter(EntryKind::World, "access", Quoted{Path}, Mode);
    return Told(Error.value_or(Here->Files.Exists(Path) ? 0 : -ENOENT));
}

int __wrap_mkdir(const char *Path, mode_t Mode)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_mkdir(Path, Mode);
    }
    constexpr unsigned DigitBits = 3;
    std::string Octal = "0";
    for (int Digit = 2; Digit >= 0; --Digit) {
        Octal += static_cast<char>('0' + ((Mode >> (DigitBits * static_cast<unsigned>(Digit))) & 7U));
    }
    const std::optional<int> Error = Here->Enter(EntryKind::World, "mkdir", Quoted{Path}, Octal);
    return Told(Error.has_value() ? *Error : Here->Files.MakeDirectory(Path));
}

int __wrap_remove(const char *Path)
{
    Host *Here = Host::CurrentOrNull();
    if (Here == nullptr) {
        return __real_remove(Path);
    }
    const std::optional<int> Error = Here->Enter(EntryKind::World, "remove", Quoted{Path});
    return Told(Error.has_value() ? *Error : Here->Files.Remove(Path));
}
