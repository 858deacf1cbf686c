/* The host's allocator. Memory from it is released with VQ_AgentMemFree and with nothing else. */
#ifndef VQ_MEMORY_H
#define VQ_MEMORY_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Allocates `Size` bytes, which are not zeroed. Returns null if memory is exhausted. The caller owns the memory. */
void *VQ_AgentMemAlloc(const size_t Size);

/* The same with zeroed bytes. */
void *VQ_AgentMemZeroAlloc(const size_t Size);

/* Releases memory that one of the two functions above returned. */
void VQ_AgentMemFree(void *Pointer);

VQ_EXTERN_C_END

#endif
