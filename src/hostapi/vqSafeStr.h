/* Bounded strings and IPv4 text. An address is a number in host byte order with the first dotted octet as the most
 * significant byte: 10.0.0.1 is 10 * 2^24 + 1. */
#ifndef VQ_SAFE_STR_H
#define VQ_SAFE_STR_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Formats like snprintf into `Buffer` of `Size` bytes and always terminates it. Returns the length of the whole text
 * without the terminator: `Size` or more means that the text was cut. */
size_t VQ_SNPrintf(char *Buffer, size_t Size, const char *Format, ...) VQ_PRINTF_LIKE(3, 4);

/* Copies `Source` into `Target` of `Size` bytes and always terminates it. Returns the length of `Source`: `Size` or
 * more means that the copy was cut. */
size_t VQ_SafeStrCopy(char *Target, size_t Size, const char *Source);

/* Reads dotted IPv4 text of at most `Size` bytes and stores the address in `Ip`. Returns a pointer that is not null on
 * success. If the text is no address, it returns null and does not change `Ip`. */
char *VQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Ip);

/* Writes the dotted form of `Ip` and a terminator into `Buffer` of `Size` bytes. The host defines the meaning of
 * `Flag`; 0 selects the plain form. 0 or more on success, negative on failure. */
int VQ_IPNum2IPStr(const uint32_t Ip, const uint32_t Flag, char *Buffer, uint32_t Size);

VQ_EXTERN_C_END

#endif
