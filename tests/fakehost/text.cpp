#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "host.h"
#include "vqSafeStr.h"

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Fault;
using fakehost::Host;
using fakehost::Quoted;
using fakehost::Shortage;

namespace {

// An injected error means that the text does not fit.
constexpr std::array kOtherLengths{Shortage::OneBelowSize, Shortage::OneAboveSize};

// The length that is reported for a text of `Length` characters and a buffer of `Size` bytes.
size_t Told(const std::optional<Fault> &How, size_t Size, size_t Length)
{
    if (!How.has_value()) {
        return Length;
    }
    if (How->Lack() == Shortage::OneBelowSize) {
        // A text that was cut must not be reported as one that fits.
        return Length < Size ? Size - 1 : Length;
    }
    return std::max(How->Lack() == Shortage::OneAboveSize ? Size + 1 : Size, Length);
}

} // namespace

size_t VQ_SNPrintf(char *Buffer, size_t Size, const char *Format, ...)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    va_list Args;
    va_start(Args, Format);
    const auto Length = static_cast<size_t>(std::vsnprintf(Buffer, Size, Format, Args));
    va_end(Args);
    const auto How =
        Here.EnterWith(kOtherLengths, EntryKind::Text, "VQ_SNPrintf", Size, Quoted{Size == 0 ? nullptr : Buffer});
    return Told(How, Size, Length);
}

size_t VQ_SafeStrCopy(char *Target, size_t Size, const char *Source)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const auto How = Here.EnterWith(kOtherLengths, EntryKind::Text, "VQ_SafeStrCopy", Size, Quoted{Source});
    const size_t Length = std::strlen(Source);
    if (Size > 0) {
        const size_t Copied = std::min(Length, Size - 1);
        std::memcpy(Target, Source, Copied);
        Target[Copied] = '\0';
    }
    return Told(How, Size, Length);
}

char *VQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Ip)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::string Bounded(Text, strnlen(Text, Size));
    in_addr Address{};
    if (Here.Enter(EntryKind::Text, "VQ_SafeStrGetIp4Addr", Quoted{Bounded.c_str()}, Size).has_value() ||
        inet_pton(AF_INET, Bounded.c_str(), &Address) != 1) {
        return nullptr;
    }
    *Ip = ntohl(Address.s_addr);
    return const_cast<char *>(Text) + Bounded.size(); // as strtoul does
}

int VQ_IPNum2IPStr(const uint32_t Ip, const uint32_t Flag, char *Buffer, uint32_t Size)
{
    const ErrnoKept Kept;
    constexpr uint32_t PromisedSize = 19;
    Host &Here = Host::Current();
    if (Flag != 0 || Size != PromisedSize) {
        Here.Violation("VQ_IPNum2IPStr with flag " + std::to_string(Flag) + " and size " + std::to_string(Size));
    }
    const std::optional<int> Error = Here.Enter(EntryKind::Text, "VQ_IPNum2IPStr", Ip, Flag, Size);
    if (Error.has_value()) {
        return *Error;
    }
    const int Length =
        std::snprintf(Buffer, Size, "%u.%u.%u.%u", Ip >> 24U, (Ip >> 16U) & 255U, (Ip >> 8U) & 255U, Ip & 255U);
    return static_cast<uint32_t>(Length) < Size ? Here.Success("VQ_IPNum2IPStr") : -EOVERFLOW;
}
