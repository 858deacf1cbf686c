#include "vqFile.h"

#include <array>

#include "host.h"

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Fault;
using fakehost::Host;
using fakehost::Quoted;
using fakehost::Shortage;

namespace {

int32_t Write(const char *Service, const char *Path, const char *Text, size_t Length)
{
    Host &Here = Host::Current();
    const char *Shown = Text == nullptr ? "null" : "text";
    static constexpr std::array Known{Shortage::FewerBytes};
    const std::span<const Shortage> CanLack =
        Length > 1 ? std::span<const Shortage>(Known) : std::span<const Shortage>();
    const std::optional<Fault> How = Here.EnterWith(CanLack, EntryKind::World, Service, Quoted{Path}, Shown, Length);
    if (Text == nullptr && Length != 0) {
        Here.Violation(std::string(Service) + " of a null text with a length");
        return -EINVAL;
    }
    if (How.has_value() && How->Lack() == Shortage::None) {
        return How->Error();
    }
    const std::string_view Bytes = Text == nullptr ? std::string_view() : std::string_view(Text, Length);
    const std::string_view Kept = Bytes.substr(0, How.has_value() ? Length / 2 : Length);
    const int Result = Here.Files.Write(Path, Kept);
    if (Result >= 0 && How.has_value()) {
        return static_cast<int32_t>(Kept.size());
    }
    return Result < 0 ? Result : Here.Success(Service);
}

} // namespace

int32_t VQ_WriteSyncWithFilePath(const char *Path, const char *Text, size_t Length)
{
    const ErrnoKept Kept;
    return Write("VQ_WriteSyncWithFilePath", Path, Text, Length);
}

int32_t VQ_WriteWithFilePath(const char *Path, const char *Text, size_t Length)
{
    const ErrnoKept Kept;
    return Write("VQ_WriteWithFilePath", Path, Text, Length);
}

VQ_ERR_T VQ_CreateFilePath(const char *Path)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_CreateFilePath", Quoted{Path});
    if (Error.has_value()) {
        return *Error;
    }
    const int Result = Here.Files.Create(Path);
    return Result < 0 ? Result : Here.Success("VQ_CreateFilePath");
}

// NOLINTNEXTLINE(readability-non-const-parameter): the host interface fixes it.
VQ_ERR_T VQ_RemoveDirRecursion(char *Path)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_RemoveDirRecursion", Quoted{Path});
    if (Error.has_value()) {
        return *Error;
    }
    const int Result = Here.Files.RemoveTree(Path);
    return Result < 0 ? Result : Here.Success("VQ_RemoveDirRecursion");
}
