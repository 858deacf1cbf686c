#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "vqSafeStr.h"

extern "C" {

size_t VQ_SNPrintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        return static_cast<size_t>(length);
    }
    // A text that cannot be formatted is reported as one that does not fit: callers know that failure only.
    if (size > 0) {
        buffer[0] = '\0';
    }
    return size;
}

size_t VQ_SafeStrCopy(char *target, size_t size, const char *source)
{
    const size_t length = source == nullptr ? 0 : std::strlen(source);
    if (size > 0) {
        const size_t copied = std::min(length, size - 1);
        if (copied > 0) {
            std::memcpy(target, source, copied);
        }
        target[copied] = '\0';
    }
    return length;
}

char *VQ_SafeStrGetIp4Addr(const char *text, size_t size, uint32_t *ip)
{
    std::array<char, INET_ADDRSTRLEN> copy{};
    const size_t length = text == nullptr ? 0 : strnlen(text, size);
    if (length == 0 || length >= copy.size() || ip == nullptr) {
        return nullptr;
    }
    std::memcpy(copy.data(), text, length);
    in_addr address{};
    if (::inet_pton(AF_INET, copy.data(), &address) != 1) {
        return nullptr;
    }
    *ip = ntohl(address.s_addr);
    return const_cast<char *>(text); // NOLINT(cppcoreguidelines-pro-type-const-cast): the interface asks for it
}

int VQ_IPNum2IPStr(const uint32_t ip, const uint32_t flag, char *buffer, uint32_t size)
{
    if (flag != 0 || buffer == nullptr) {
        return -EINVAL;
    }
    std::array<char, INET_ADDRSTRLEN> text{};
    const in_addr address{htonl(ip)};
    if (::inet_ntop(AF_INET, &address, text.data(), static_cast<socklen_t>(text.size())) == nullptr) {
        return -errno;
    }
    const size_t length = std::strlen(text.data());
    if (length >= size) {
        return -EOVERFLOW;
    }
    std::memcpy(buffer, text.data(), length + 1);
    return 0;
}
}
