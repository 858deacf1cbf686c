/* The host's allocator. Whoever allocates releases with VQ_AgentMemFree, and with nothing else. */
#ifndef VQ_MEMORY_H
#define VQ_MEMORY_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* `Size` bytes, not zeroed; null when memory is exhausted. */
void *VQ_AgentMemAlloc(const size_t Size);

/* `Size` zeroed bytes; null when memory is exhausted. */
void *VQ_AgentMemZeroAlloc(const size_t Size);

/* Releases what one of the two above gave. */
void VQ_AgentMemFree(void *Pointer);

VQ_EXTERN_C_END

#endif
