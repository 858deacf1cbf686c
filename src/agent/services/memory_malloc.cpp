#include "services/memory_malloc.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "vqMemory.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kLargeObject = std::size_t{1024} * 1024;

// The large object that was allocated last; it may have been freed.
struct LargeObject {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};
LargeObject newestObject;

// In pages of its own, which are untouched: see ReturnLargeMemory.
void *AllocateLarge(std::size_t size)
{
    void *const object = std::calloc(1, size);
    const auto begin = reinterpret_cast<std::uintptr_t>(object);
    newestObject = object != nullptr ? LargeObject{begin, begin + size} : LargeObject{};
    return object;
}

} // namespace

void ReturnLargeMemory()
{
    ::mallopt(M_MMAP_THRESHOLD, static_cast<int>(kLargeObject));
}

void ReturnFreeMemory()
{
    ::malloc_trim(0);
}

bool ZeroInFreshPages(void *object, std::size_t size)
{
    static const auto kPage = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(object);
    if (size <= kLargeObject || begin != newestObject.begin || size > newestObject.end - begin) {
        return false;
    }
    const std::uintptr_t firstPage = (begin + kPage - 1) / kPage * kPage;
    const std::uintptr_t lastPage = (begin + size) / kPage * kPage;
    auto *const bytes = static_cast<unsigned char *>(object);
    const std::size_t head = firstPage - begin;
    const std::size_t body = lastPage - firstPage;
    if (::madvise(bytes + head, body, MADV_DONTNEED) != 0) {
        return false;
    }
    std::fill_n(bytes, head, 0);
    std::fill(bytes + head + body, bytes + size, 0);
    return true;
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

void *VQ_AgentMemAlloc(const size_t size)
{
    return size > kLargeObject ? AllocateLarge(size) : std::malloc(size);
}

// calloc leaves fresh pages untouched: a large record costs memory only where it is written.
void *VQ_AgentMemZeroAlloc(const size_t size)
{
    return std::calloc(1, size);
}

void VQ_AgentMemFree(void *pointer)
{
    if (reinterpret_cast<std::uintptr_t>(pointer) == newestObject.begin) {
        newestObject = {};
    }
    std::free(pointer);
}
}
