// The allocator: keeps every block until it is released.
#ifndef FAKEHOST_MEMORY_BOOK_H
#define FAKEHOST_MEMORY_BOOK_H

#include <cstddef>
#include <unordered_map>

namespace fakehost {

class Host;

class MemoryBook {
  public:
    explicit MemoryBook(Host &Owner) : m_Host(Owner) {}
    ~MemoryBook();
    MemoryBook(const MemoryBook &) = delete;
    MemoryBook &operator=(const MemoryBook &) = delete;
    MemoryBook(MemoryBook &&) = delete;
    MemoryBook &operator=(MemoryBook &&) = delete;

    void *Allocate(std::size_t Size, bool Zeroed);
    void Release(void *Pointer);

    // Fills memory that is not zeroed with a pattern, so that a test sees code that reads it.
    void FillFreshBytes(bool Wanted) { m_FillFreshBytes = Wanted; }

    // For long runs: a released record is allocated again, with its old content.
    void ReuseRecords() { m_ReuseRecords = true; }

    [[nodiscard]] std::size_t BlocksInUse() const { return m_Blocks.size(); }
    [[nodiscard]] std::size_t BytesInUse() const { return m_BytesInUse; }
    [[nodiscard]] std::size_t PeakBytes() const { return m_PeakBytes; }
    void ReportLeaks();

  private:
    Host &m_Host;
    bool m_FillFreshBytes = true;
    bool m_ReuseRecords = false;
    std::unordered_map<void *, std::size_t> m_Blocks;
    std::size_t m_BytesInUse = 0;
    std::size_t m_PeakBytes = 0;
};

} // namespace fakehost

#endif
