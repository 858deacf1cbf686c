// The allocator's settings.
#ifndef KAVEL_AGENT_MEMORY_H
#define KAVEL_AGENT_MEMORY_H

namespace kavel::agent {

// Lets every large object go back to the system when it is released. Left alone, the allocator raises its idea of large
// to the largest object that it has seen, which is a record of 17 MB, and keeps such an amount for good. Once, at
// start.
void ReturnLargeMemory();

} // namespace kavel::agent

#endif
