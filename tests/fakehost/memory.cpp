#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sanitizer/asan_interface.h>
#include <utility>

#include "host.h"
#include "vqMemory.h"

namespace fakehost {

namespace {

struct FreeBlock {
    void operator()(void *Block) const { std::free(Block); }
};

// The record that was released last, kept for the next host. Without this, a long run would spend most of its time on
// new pages. While a record is kept, address sanitizers treat it as released.
class SpareRecord {
  public:
    [[nodiscard]] void *Take(std::size_t Size)
    {
        if (m_Block == nullptr || Size != m_Size) {
            return nullptr;
        }
        ASAN_UNPOISON_MEMORY_REGION(m_Block.get(), m_Size);
        return m_Block.release();
    }

    // False if the block is smaller than 1 MiB, or if another one is kept.
    bool Keep(void *Block, std::size_t Size)
    {
        constexpr std::size_t WorthKeeping = 1 << 20;
        if (m_Block != nullptr || Size < WorthKeeping) {
            return false;
        }
        m_Block.reset(Block);
        m_Size = Size;
        ASAN_POISON_MEMORY_REGION(Block, Size);
        return true;
    }

  private:
    std::unique_ptr<void, FreeBlock> m_Block;
    std::size_t m_Size = 0;
};

SpareRecord s_Spare;

} // namespace

MemoryBook::~MemoryBook()
{
    for (const auto &[Pointer, Size] : m_Blocks) {
        std::free(Pointer);
    }
}

void *MemoryBook::Allocate(std::size_t Size, bool Zeroed)
{
    constexpr int Pattern = 0xa5;
    // New zeroed pages cost nothing until they are written. That matters, because a record is large.
    void *Block = Zeroed ? nullptr : s_Spare.Take(Size);
    if (Block == nullptr) {
        Block = Zeroed ? std::calloc(1, Size) : std::malloc(Size);
    }
    if (Block == nullptr) {
        return nullptr;
    }
    if (!Zeroed && m_FillFreshBytes) {
        std::memset(Block, Pattern, Size);
    }
    m_Blocks.emplace(Block, Size);
    m_BytesInUse += Size;
    m_PeakBytes = std::max(m_PeakBytes, m_BytesInUse);
    return Block;
}

void MemoryBook::Release(void *Pointer)
{
    const auto Found = m_Blocks.find(Pointer);
    if (Found == m_Blocks.end()) {
        m_Host.Violation("memory released that is not the module's, or not any more");
        return;
    }
    const std::size_t Size = Found->second;
    m_BytesInUse -= Size;
    m_Blocks.erase(Found);
    if (!m_ReuseRecords || !s_Spare.Keep(Pointer, Size)) {
        std::free(Pointer);
    }
}

void MemoryBook::ReportLeaks()
{
    for (const auto &[Pointer, Size] : m_Blocks) {
        m_Host.Violation("memory never released: " + std::to_string(Size) + " bytes");
    }
}

} // namespace fakehost

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Host;

void *VQ_AgentMemAlloc(const size_t Size)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    return Here.Enter(EntryKind::Memory, "VQ_AgentMemAlloc", Size).has_value() ? nullptr
                                                                               : Here.Memory.Allocate(Size, false);
}

void *VQ_AgentMemZeroAlloc(const size_t Size)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    return Here.Enter(EntryKind::Memory, "VQ_AgentMemZeroAlloc", Size).has_value() ? nullptr
                                                                                   : Here.Memory.Allocate(Size, true);
}

void VQ_AgentMemFree(void *Pointer)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    Here.Note(EntryKind::Memory, "VQ_AgentMemFree");
    Here.Memory.Release(Pointer);
}
