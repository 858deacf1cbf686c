// The allocator's settings.
#ifndef KAVEL_AGENT_MEMORY_H
#define KAVEL_AGENT_MEMORY_H

namespace kavel::agent {

// Makes the allocator return every large object to the system when it is freed. By default it raises its threshold to
// the largest object that was freed, here a record of 17 MB, and keeps as much memory for ever. Call it once, at start.
void ReturnLargeMemory();

} // namespace kavel::agent

#endif
