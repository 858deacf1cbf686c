#include "module_counts.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

// The C library's names of the replaced functions, and the linker's names of the wrapped ones.
extern "C" {
void *__libc_malloc(size_t size) noexcept;
void *__libc_calloc(size_t count, size_t size) noexcept;
void *__libc_realloc(void *block, size_t size) noexcept;
void __libc_free(void *block) noexcept;
void *__real_memcpy(void *target, const void *source, size_t size) noexcept;
void *__real_memset(void *target, int value, size_t size) noexcept;
void *__wrap_memcpy(void *target, const void *source, size_t size) noexcept;
void *__wrap_memset(void *target, int value, size_t size) noexcept;
}

namespace kavel::bench {

namespace {

bool s_counting = false;
Counts s_counts;

void *CountAllocated(void *block)
{
    if (s_counting && block != nullptr) {
        ++s_counts.allocations;
        s_counts.liveBytes += static_cast<std::int64_t>(malloc_usable_size(block));
        s_counts.peakBytes = std::max(s_counts.peakBytes, s_counts.liveBytes);
    }
    return block;
}

void CountFreed(void *block)
{
    if (s_counting && block != nullptr) {
        s_counts.liveBytes -= static_cast<std::int64_t>(malloc_usable_size(block));
    }
}

} // namespace

void StartCounting()
{
    s_counts = {};
    s_counting = true;
}

Counts StopCounting()
{
    s_counting = false;
    return s_counts;
}

void CountCopied(std::size_t bytes)
{
    if (s_counting) {
        s_counts.copiedBytes += bytes;
    }
}

} // namespace kavel::bench

using kavel::bench::CountAllocated;
using kavel::bench::CountFreed;
using kavel::bench::s_counting;
using kavel::bench::s_counts;

void *malloc(size_t size) noexcept
{
    return CountAllocated(__libc_malloc(size));
}

void *calloc(size_t nmemb, size_t size) noexcept
{
    if (s_counting) {
        s_counts.clearedBytes += nmemb * size;
    }
    return CountAllocated(__libc_calloc(nmemb, size));
}

void *realloc(void *ptr, size_t size) noexcept
{
    CountFreed(ptr);
    return CountAllocated(__libc_realloc(ptr, size));
}

void free(void *ptr) noexcept
{
    CountFreed(ptr);
    __libc_free(ptr);
}

void *__wrap_memcpy(void *target, const void *source, size_t size) noexcept
{
    kavel::bench::CountCopied(size);
    return __real_memcpy(target, source, size);
}

void *__wrap_memset(void *target, int value, size_t size) noexcept
{
    if (s_counting) {
        s_counts.clearedBytes += size;
    }
    return __real_memset(target, value, size);
}
