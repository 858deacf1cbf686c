// One large object in pages of its own. The pages are zero until they are written, and take memory only then.
//
// calloc is no replacement: once an object of this size was freed, it reuses that memory and has to clear it, so that
// every page is written. Huge pages are no replacement either: one is larger than the content of an ordinary record.
#ifndef KAVEL_AGENT_ZEROED_PAGES_H
#define KAVEL_AGENT_ZEROED_PAGES_H

#include <sys/mman.h>

#include <memory>
#include <new>
#include <type_traits>

namespace kavel::agent {

struct UnmapPages {
    template <typename T>
    void operator()(T *object) const
    {
        ::munmap(object, sizeof(T));
    }
};

template <typename T>
using ZeroedPages = std::unique_ptr<T, UnmapPages>;

template <typename T>
ZeroedPages<T> MapZeroed()
{
    static_assert(std::is_trivial_v<T>);
    void *const pages = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    (void)::madvise(pages, sizeof(T), MADV_NOHUGEPAGE);
    return ZeroedPages<T>(static_cast<T *>(pages));
}

// Makes the object zero again, and returns its memory to the system.
template <typename T>
void ClearPages(T &object)
{
    (void)::madvise(&object, sizeof(T), MADV_DONTNEED);
}

} // namespace kavel::agent

#endif
