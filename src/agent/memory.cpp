#include "memory.h"

#include <malloc.h>

#include <cstdlib>

#include "vqMemory.h"

namespace kavel::agent {
namespace {

constexpr int kLargeObject = 1024 * 1024;

} // namespace

void ReturnLargeMemory()
{
    ::mallopt(M_MMAP_THRESHOLD, kLargeObject);
}

} // namespace kavel::agent

extern "C" {

void *VQ_AgentMemAlloc(const size_t Size)
{
    return std::malloc(Size);
}

// calloc leaves fresh pages untouched: a large record costs memory only where it is written.
void *VQ_AgentMemZeroAlloc(const size_t Size)
{
    return std::calloc(1, Size);
}

void VQ_AgentMemFree(void *Pointer)
{
    std::free(Pointer);
}
}
