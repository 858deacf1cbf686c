/* The allocator. Null means that memory is exhausted, so a size of 0 does not give null. */
#include "host.h"

void *VQ_AgentMemAlloc(const size_t size)
{
    return malloc(size > 0 ? size : 1);
}

void *VQ_AgentMemZeroAlloc(const size_t size)
{
    return calloc(1, size > 0 ? size : 1);
}

void VQ_AgentMemFree(void *pointer)
{
    free(pointer);
}
