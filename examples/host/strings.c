/* Bounded strings and addresses. The module detects what does not fit by the length that was needed. */
#include <arpa/inet.h>

#include "host.h"

size_t VQ_SNPrintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length < 0 ? size : (size_t)length; /* what cannot be formatted counts as cut */
}

size_t VQ_SafeStrCopy(char *target, size_t size, const char *source)
{
    return VQ_SNPrintf(target, size, "%s", source);
}

char *VQ_SafeStrGetIp4Addr(const char *text, size_t size, uint32_t *ip)
{
    char copy[INET_ADDRSTRLEN]; /* the text need not be terminated */
    struct in_addr address;
    const bool fits = VQ_SNPrintf(copy, sizeof(copy), "%.*s", (int)size, text) < sizeof(copy);
    const bool isAddress = fits && inet_pton(AF_INET, copy, &address) == 1;
    *ip = isAddress ? ntohl(address.s_addr) : *ip;
    return isAddress ? (char *)text : NULL;
}

int VQ_IPNum2IPStr(const uint32_t ip, const uint32_t flag, char *buffer, uint32_t size)
{
    const struct in_addr address = {.s_addr = htonl(ip)};
    return flag == 0 && inet_ntop(AF_INET, &address, buffer, size) != NULL ? 0 : -EOVERFLOW;
}
