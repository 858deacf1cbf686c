/* The promises of vqMemory.h and vqSafeStr.h. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "checks.h"
#include "vqDnsmasqConf.h"
#include "vqMemory.h"
#include "vqSafeStr.h"

enum { kSmall = 24, kPage = 4096, kBufferSize = 64, kOctetBits = 8, kAddressTextSize = 19 };

typedef void *(*Allocate)(const size_t size);

static bool IsFilledWith(const void *memory, size_t size, unsigned char byte)
{
    const unsigned char *bytes = memory;
    return size == 0 || (bytes[0] == byte && memcmp(bytes, bytes + 1, size - 1) == 0);
}

static bool DoNotOverlap(Allocate allocate, size_t size)
{
    unsigned char *first = allocate(size);
    unsigned char *second = allocate(size);
    if (first == NULL || second == NULL) {
        return false;
    }
    memset(first, 1, size);
    memset(second, 2, size);
    const bool isWhole = IsFilledWith(first, size, 1) && IsFilledWith(second, size, 2);
    VQ_AgentMemFree(first);
    VQ_AgentMemFree(second);
    return isWhole;
}

void CheckMemoryWritable(Check *check)
{
    const size_t sizes[] = {1, kSmall, kPage, 1024 * 1024};
    for (size_t i = 0; i < sizeof(sizes) / sizeof(sizes[0]); ++i) {
        if (!DoNotOverlap(VQ_AgentMemAlloc, sizes[i]) || !DoNotOverlap(VQ_AgentMemZeroAlloc, sizes[i])) {
            Broken(check, "two allocations of %zu bytes: one is null, or they overlap", sizes[i]);
        }
    }
}

void CheckMemoryAligned(Check *check)
{
    for (size_t size = 1; size <= kBufferSize; ++size) {
        const uintptr_t plain = (uintptr_t)VQ_AgentMemAlloc(size);
        const uintptr_t zeroed = (uintptr_t)VQ_AgentMemZeroAlloc(size);
        if ((plain | zeroed) % _Alignof(max_align_t) != 0) {
            Broken(check, "%zu bytes at %#lx and %#lx", size, (unsigned long)plain, (unsigned long)zeroed);
        }
    }
}

void CheckMemoryRecord(Check *check)
{
    for (int round = 0; round < 3; ++round) {
        if (!DoNotOverlap(VQ_AgentMemAlloc, sizeof(VQ_DNSMASQ_CONF))) {
            Broken(check, "two allocations of %zu bytes: one is null, or they overlap", sizeof(VQ_DNSMASQ_CONF));
        }
    }
}

static void CheckZeroes(Check *check, int rounds)
{
    const size_t sizes[] = {1, kSmall, 1000, kPage, 100000, sizeof(VQ_DNSMASQ_CONF)};
    for (size_t i = 0; i < sizeof(sizes) / sizeof(sizes[0]); ++i) {
        for (int round = 0; round < rounds; ++round) {
            void *memory = VQ_AgentMemZeroAlloc(sizes[i]);
            if (memory == NULL || !IsFilledWith(memory, sizes[i], 0)) {
                Broken(check, "%zu bytes, allocation %d: %s", sizes[i], round + 1,
                       memory == NULL ? "null" : "bytes that are not zero");
                return;
            }
            memset(memory, 0xFF, sizes[i]);
            VQ_AgentMemFree(memory);
            /* The same for memory that the other function gives. */
            memory = VQ_AgentMemAlloc(sizes[i]);
            if (memory != NULL) {
                memset(memory, 0xFF, sizes[i]);
                VQ_AgentMemFree(memory);
            }
        }
    }
}

void CheckMemoryZeroed(Check *check)
{
    CheckZeroes(check, 1);
}

void CheckMemoryZeroedAgain(Check *check)
{
    CheckZeroes(check, 8);
}

void CheckMemoryExhausted(Check *check)
{
    /* More than half of any address space: no object is that large. The compiler need not know the number. */
    volatile size_t tooMuch = SIZE_MAX / 4 * 3;
    if (VQ_AgentMemAlloc(tooMuch) != NULL || VQ_AgentMemZeroAlloc(tooMuch) != NULL) {
        Broken(check, "%zu bytes are not refused", tooMuch);
    }
}

void CheckMemorySizeZero(Check *check)
{
    if (VQ_AgentMemAlloc(0) == NULL || VQ_AgentMemZeroAlloc(0) == NULL) {
        Broken(check, "null for 0 bytes");
    }
}

void CheckMemoryFreeNull(Check *check)
{
    VQ_AgentMemFree(NULL);
    if (!DoNotOverlap(VQ_AgentMemAlloc, kSmall)) {
        Broken(check, "no memory afterwards");
    }
}

void CheckStringPrint(Check *check)
{
    const char *expected = "255.4294967295 x -75 12 y% 007 ff";
    char text[kBufferSize];
    const size_t length = VQ_SNPrintf(text, sizeof(text), "%u.%u %s %d %zu %c%% %03u %x", 255U, 4294967295U, "x", -75,
                                      (size_t)12, 'y', 7U, 255U);
    if (strcmp(text, expected) != 0 || length != strlen(expected)) {
        Broken(check, "\"%.*s\" with result %zu instead of \"%s\"", kBufferSize - 1, text, length, expected);
    }
}

/* Each function writes the ten characters into a buffer of `size` bytes. */
typedef size_t (*WriteTen)(char *buffer, size_t size);

static size_t PrintTen(char *buffer, size_t size)
{
    return VQ_SNPrintf(buffer, size, "%s%u%c%c", "012345", 67U, '8', '9');
}

static size_t CopyTen(char *buffer, size_t size)
{
    return VQ_SafeStrCopy(buffer, size, "0123456789");
}

static void CheckLengths(Check *check, WriteTen writeTen)
{
    for (size_t size = 0; size <= kAddressTextSize; ++size) {
        char buffer[kBufferSize];
        const size_t length = writeTen(buffer, size);
        if (length != 10) {
            Broken(check, "10 characters into %zu bytes: result %zu", size, length);
        }
    }
}

static void CheckBounds(Check *check, WriteTen writeTen)
{
    for (size_t size = 0; size <= kAddressTextSize; ++size) {
        char buffer[kBufferSize];
        memset(buffer, '#', sizeof(buffer));
        writeTen(buffer, size);
        if (!IsFilledWith(buffer + size, sizeof(buffer) - size, '#')) {
            Broken(check, "10 characters into %zu bytes: something is written after the buffer", size);
        }
        const size_t kept = size < 11 ? size : 11;
        if (size > 0 && (memchr(buffer, '\0', size) == NULL || strncmp(buffer, "0123456789", kept - 1) != 0)) {
            Broken(check, "10 characters into %zu bytes: the text is not terminated, or another one", size);
        }
    }
}

void CheckStringPrintLength(Check *check)
{
    CheckLengths(check, PrintTen);
    char longText[kPage];
    memset(longText, 'x', sizeof(longText));
    longText[kPage - 1] = '\0';
    char buffer[kSmall];
    const size_t length = VQ_SNPrintf(buffer, sizeof(buffer), "%s", longText);
    if (length != kPage - 1) {
        Broken(check, "%d characters into %d bytes: result %zu", kPage - 1, kSmall, length);
    }
}

void CheckStringPrintBounds(Check *check)
{
    CheckBounds(check, PrintTen);
}

void CheckStringCopy(Check *check)
{
    CheckLengths(check, CopyTen);
    char buffer[kBufferSize] = "";
    const size_t length = VQ_SafeStrCopy(buffer, sizeof(buffer), "nas.example");
    if (length != strlen("nas.example") || strcmp(buffer, "nas.example") != 0) {
        Broken(check, "\"nas.example\" became \"%.*s\" with result %zu", kBufferSize - 1, buffer, length);
    }
}

void CheckStringCopyBounds(Check *check)
{
    CheckBounds(check, CopyTen);
}

static const struct {
    const char *text;
    uint32_t address;
} kAddresses[] = {{"0.0.0.0", 0},
                  {"10.0.0.1", 0x0A000001},
                  {"1.2.3.4", 0x01020304},
                  {"127.0.0.53", 0x7F000035},
                  {"192.168.200.25", 0xC0A8C819},
                  {"255.255.255.255", 0xFFFFFFFF}};
enum { kAddressCount = sizeof(kAddresses) / sizeof(kAddresses[0]) };

void CheckStringAddressRead(Check *check)
{
    for (int i = 0; i < kAddressCount; ++i) {
        uint32_t address = ~kAddresses[i].address;
        const char *text = kAddresses[i].text;
        if (VQ_SafeStrGetIp4Addr(text, strlen(text) + 1, &address) == NULL) {
            Broken(check, "%s is refused", text);
        } else if (address != kAddresses[i].address) {
            Broken(check, "%s became %#010x instead of %#010x", text, address, kAddresses[i].address);
        }
    }
}

/* The page behind the text cannot be read. */
void CheckStringAddressSize(Check *check)
{
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    char *pages = mmap(NULL, page * 2, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED || mprotect(pages + page, page, PROT_NONE) != 0) {
        Skipped(check, "no memory");
        return;
    }
    for (int i = 0; i < kAddressCount; ++i) {
        const size_t length = strlen(kAddresses[i].text);
        char *text = memcpy(pages + page - length, kAddresses[i].text, length);
        uint32_t address = ~kAddresses[i].address;
        if (VQ_SafeStrGetIp4Addr(text, length, &address) == NULL || address != kAddresses[i].address) {
            Broken(check, "%s without a terminator is not read as %#010x", kAddresses[i].text, kAddresses[i].address);
        }
    }
}

void CheckStringAddressRefused(Check *check)
{
    const char *const texts[] = {"",         "1.2.3",     "1.2.3.4.5", "256.1.1.1", "1.1.1.999",
                                 "1.2.3.4x", "localhost", "::1",       "1..2.3",    "1.2.3.-4"};
    for (size_t i = 0; i < sizeof(texts) / sizeof(texts[0]); ++i) {
        uint32_t address = 0xA5A5A5A5U;
        if (VQ_SafeStrGetIp4Addr(texts[i], strlen(texts[i]) + 1, &address) != NULL) {
            Broken(check, "\"%s\" is taken for an address", texts[i]);
        } else if (address != 0xA5A5A5A5U) {
            Broken(check, "\"%s\" is refused, and the number was changed", texts[i]);
        }
    }
}

void CheckStringAddressWrite(Check *check)
{
    for (int i = 0; i < kAddressCount; ++i) {
        char text[kAddressTextSize + 1] = "";
        const int result = VQ_IPNum2IPStr(kAddresses[i].address, 0, text, kAddressTextSize);
        if (result < 0 || strcmp(text, kAddresses[i].text) != 0) {
            Broken(check, "%#010x became \"%s\" with result %d instead of \"%s\"", kAddresses[i].address, text, result,
                   kAddresses[i].text);
        }
    }
}

void CheckStringAddressBounds(Check *check)
{
    for (uint32_t size = 0; size <= kAddressTextSize; ++size) {
        char buffer[kBufferSize];
        memset(buffer, '#', sizeof(buffer));
        const int result = VQ_IPNum2IPStr(0xC0A8C819, 0, buffer, size); /* 14 characters */
        if (!IsFilledWith(buffer + size, sizeof(buffer) - size, '#')) {
            Broken(check, "14 characters into %u bytes: something is written after the buffer", size);
        } else if ((result >= 0) != (size > 14)) {
            Broken(check, "14 characters into %u bytes: result %d", size, result);
        }
    }
}
