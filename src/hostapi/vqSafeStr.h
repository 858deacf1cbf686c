/* Bounded strings and IPv4 text. Addresses are numbers in host byte order, the first dotted octet in the most
 * significant byte: 10.0.0.1 is 10 * 2^24 + 1. */
#ifndef VQ_SAFE_STR_H
#define VQ_SAFE_STR_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Formats like snprintf into `Buffer` of `Size` bytes, always terminated. Returns the length of the whole text: `Size`
 * or more means that it did not fit. */
size_t VQ_SNPrintf(char *Buffer, size_t Size, const char *Format, ...) VQ_PRINTF_LIKE(3, 4);

/* Copies `Source` into `Target` of `Size` bytes, cut where needed and always terminated. Returns the length of
 * `Source`: `Size` or more means that it was cut. */
size_t VQ_SafeStrCopy(char *Target, size_t Size, const char *Source);

/* Reads dotted IPv4 text of at most `Size` bytes into `Ip`. Non-null on success; null, with `Ip` untouched, on bad
 * text. */
char *VQ_SafeStrGetIp4Addr(const char *Text, size_t Size, uint32_t *Ip);

/* Writes the dotted form of `Ip` into `Buffer` of `Size` bytes. `Flag` belongs to the host; 0 asks for the plain form.
 * Negative on failure. */
int VQ_IPNum2IPStr(const uint32_t Ip, const uint32_t Flag, char *Buffer, uint32_t Size);

VQ_EXTERN_C_END

#endif
