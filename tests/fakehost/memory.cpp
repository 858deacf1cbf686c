#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "host.h"
#include "vqMemory.h"

namespace fakehost {

MemoryBook::~MemoryBook()
{
    for (const auto &[Pointer, Size] : m_Blocks) {
        std::free(Pointer);
    }
}

void *MemoryBook::Allocate(std::size_t Size, bool Zeroed)
{
    constexpr int Pattern = 0xa5;
    // Fresh zeroed pages cost nothing until they are written, which the size of a record makes worth having.
    void *Block = Zeroed ? std::calloc(1, Size) : std::malloc(Size);
    if (!Zeroed && m_FillFreshBytes && Block != nullptr) {
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
    m_BytesInUse -= Found->second;
    m_Blocks.erase(Found);
    std::free(Pointer);
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
