// The allocator's settings, and large objects.
#ifndef KAVEL_AGENT_MEMORY_H
#define KAVEL_AGENT_MEMORY_H

#include <cstddef>

namespace kavel::agent {

// Makes the allocator return every large object to the system when it is freed. By default it raises its threshold to
// the largest object that was freed, here a record of 17 MB, and keeps as much memory for ever. Call it once, at start.
void ReturnLargeMemory();

// Returns what the allocator keeps free to the system. Takes milliseconds.
void ReturnFreeMemory();

// Fills the large object that VQ_AgentMemAlloc returned last with zeros, from its beginning, by giving its pages back
// to the system: fresh pages are zero, and take no memory until they are written. False, and nothing is filled, for all
// other memory and for sizes up to 1 MiB.
[[nodiscard]] bool ZeroInFreshPages(void *object, std::size_t size);

} // namespace kavel::agent

#endif
