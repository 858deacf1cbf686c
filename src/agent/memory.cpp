#include "memory.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "vqMemory.h"

namespace kavel::agent {
namespace {

constexpr int kLargeObject = 1024 * 1024;

// A large object that is asked for without being zeroed is written from end to end: huge pages spare it thousands of
// faults. A kernel that has none, or none left, serves it as before.
void PreferHugePages(void *object, std::size_t size)
{
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const std::uintptr_t before = reinterpret_cast<std::uintptr_t>(object) % page;
    (void)::madvise(static_cast<char *>(object) - before, size + before, MADV_HUGEPAGE);
}

} // namespace

void ReturnLargeMemory()
{
    ::mallopt(M_MMAP_THRESHOLD, kLargeObject);
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

void *VQ_AgentMemAlloc(const size_t Size)
{
    void *const object = std::malloc(Size);
    if (object != nullptr && Size > std::size_t{kLargeObject}) {
        PreferHugePages(object, Size);
    }
    return object;
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
