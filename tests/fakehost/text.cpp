#include <algorithm>
#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "host.h"
#include "vqSafeStr.h"

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Host;
using fakehost::Quoted;

namespace {

// The length that says of any text that it did not fit `Size` bytes.
size_t TooLong(size_t Size, size_t Length)
{
    return std::max(Size, Length);
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
    const bool Fails =
        Here.Enter(EntryKind::Text, "VQ_SNPrintf", Size, Quoted{Size == 0 ? nullptr : Buffer}).has_value();
    return Fails ? TooLong(Size, Length) : Length;
}

size_t VQ_SafeStrCopy(char *Target, size_t Size, const char *Source)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const bool Fails = Here.Enter(EntryKind::Text, "VQ_SafeStrCopy", Size, Quoted{Source}).has_value();
    const size_t Length = std::strlen(Source);
    if (Size > 0) {
        const size_t Copied = std::min(Length, Size - 1);
        std::memcpy(Target, Source, Copied);
        Target[Copied] = '\0';
    }
    return Fails ? TooLong(Size, Length) : Length;
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
    static_cast<void>(
        std::snprintf(Buffer, Size, "%u.%u.%u.%u", Ip >> 24U, (Ip >> 16U) & 255U, (Ip >> 8U) & 255U, Ip & 255U));
    return Here.Success("VQ_IPNum2IPStr");
}
