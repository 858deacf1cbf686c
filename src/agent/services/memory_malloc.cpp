#include "services/memory_malloc.h"

#include <malloc.h>
#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>

#include "vqMemory.h"

namespace kavel::agent {
namespace {

constexpr int kLargeObject = 1024 * 1024;

constexpr std::size_t kHugePage = std::size_t{2} * 1024 * 1024;

// A large object that need not be zeroed is written completely: huge pages avoid thousands of page faults. Its size is
// rounded up so that it consists of huge pages only. A kernel without huge pages serves ordinary ones.
void *AllocateInHugePages(std::size_t size)
{
    const std::size_t whole = (size + kHugePage - 1) / kHugePage * kHugePage;
    void *const object = whole < size ? nullptr : std::aligned_alloc(kHugePage, whole);
    if (object != nullptr) {
        (void)::madvise(object, whole, MADV_HUGEPAGE);
    }
    return object;
}

} // namespace

void ReturnLargeMemory()
{
    ::mallopt(M_MMAP_THRESHOLD, kLargeObject);
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

void *VQ_AgentMemAlloc(const size_t size)
{
    return size > std::size_t{kLargeObject} ? AllocateInHugePages(size) : std::malloc(size);
}

// calloc leaves fresh pages untouched: a large record costs memory only where it is written.
void *VQ_AgentMemZeroAlloc(const size_t size)
{
    return std::calloc(1, size);
}

void VQ_AgentMemFree(void *pointer)
{
    std::free(pointer);
}
}
