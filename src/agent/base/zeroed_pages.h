// One large object in pages of its own. They are zero until they are written, and take memory only then.
//
// The allocator would not do: once it has seen an object of this size released, it serves the next one from recycled
// memory that it has to clear, so that every byte is paid for. Neither would huge pages, one of which outweighs what an
// ordinary record holds.
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

// Makes it zero again, and gives back what it took.
template <typename T>
void ClearPages(T &object)
{
    (void)::madvise(&object, sizeof(T), MADV_DONTNEED);
}

} // namespace kavel::agent

#endif
