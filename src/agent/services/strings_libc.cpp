#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "vqSafeStr.h"

extern "C" {

size_t VQ_SNPrintf(char *Buffer, size_t Size, const char *Format, ...)
{
    va_list arguments;
    va_start(arguments, Format);
    const int length = std::vsnprintf(Buffer, Size, Format, arguments);
    va_end(arguments);
    if (length >= 0) {
        return static_cast<size_t>(length);
    }
    // A text that cannot be formatted is reported as one that does not fit: callers know that failure only.
    if (Size > 0) {
        Buffer[0] = '\0';
    }
    return Size;
}

size_t VQ_SafeStrCopy(char *Target, size_t Size, const char *Source)
{
    const size_t length = Source == nullptr ? 0 : std::strlen(Source);
    if (Size > 0) {
        const size_t copied = std::min(length, Size - 1);
        if (copied > 0) {
            std::memcpy(Target, Source, copied);
        }
        Target[copied] = '\0';
    }
    return length;
}

char *VQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Ip)
{
    std::array<char, INET_ADDRSTRLEN> copy{};
    const size_t length = Text == nullptr ? 0 : strnlen(Text, Size);
    if (length == 0 || length >= copy.size() || Ip == nullptr) {
        return nullptr;
    }
    std::memcpy(copy.data(), Text, length);
    in_addr address{};
    if (::inet_pton(AF_INET, copy.data(), &address) != 1) {
        return nullptr;
    }
    *Ip = ntohl(address.s_addr);
    return const_cast<char *>(Text); // NOLINT(cppcoreguidelines-pro-type-const-cast): the interface asks for it
}

int VQ_IPNum2IPStr(const uint32_t Ip, const uint32_t Flag, char *Buffer, uint32_t Size)
{
    if (Flag != 0 || Buffer == nullptr) {
        return -EINVAL;
    }
    std::array<char, INET_ADDRSTRLEN> text{};
    const in_addr address{htonl(Ip)};
    if (::inet_ntop(AF_INET, &address, text.data(), static_cast<socklen_t>(text.size())) == nullptr) {
        return -errno;
    }
    const size_t length = std::strlen(text.data());
    if (length >= Size) {
        return -EOVERFLOW;
    }
    std::memcpy(Buffer, text.data(), length + 1);
    return 0;
}
}
