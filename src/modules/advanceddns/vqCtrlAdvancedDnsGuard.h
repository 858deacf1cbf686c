// Owners that release by scope. The raw release calls of the host and of the C library stand here and nowhere else.
#ifndef VQ_CTRL_ADVANCED_DNS_GUARD_H
#define VQ_CTRL_ADVANCED_DNS_GUARD_H

#include <cstddef>
#include <cstdio>
#include <memory>

#include <dirent.h>
#include <json-c/json.h>

#include "vqMemory.h"
#include "vqNetio.h"
#include "vqStore.h"

namespace advanceddns {

// A stateless deleter, so that a guard is as large as its pointer.
template <auto Release>
struct ReleaseWith {
    template <typename T>
    void operator()(T *Owned) const
    {
        Release(Owned);
    }
};

inline void CloseFile(FILE *File)
{
    // Only files that were read: there is nothing that a failed close could lose.
    static_cast<void>(std::fclose(File));
}

inline void CloseDirectory(DIR *Directory)
{
    static_cast<void>(closedir(Directory));
}

inline void ReleaseJson(json_object *Tree)
{
    // Tells whether this was the last reference, which the owner of a tree knows.
    static_cast<void>(json_object_put(Tree));
}

template <typename T>
using HostMemory = std::unique_ptr<T, ReleaseWith<VQ_AgentMemFree>>;
using InterfaceList = std::unique_ptr<VQ_LIST_HEAD, ReleaseWith<VQ_RtcNetioNodeListRelease>>;
using ReadFile = std::unique_ptr<FILE, ReleaseWith<CloseFile>>;
using JsonTree = std::unique_ptr<json_object, ReleaseWith<ReleaseJson>>;
using StoredRecords = std::unique_ptr<VQ_PersistentConfList, ReleaseWith<VQ_SqliteConfListRelease>>;
using Directory = std::unique_ptr<DIR, ReleaseWith<CloseDirectory>>;

// One object of a plain type, not zeroed; null when memory is exhausted.
template <typename T>
HostMemory<T> AllocHostMemory()
{
    return HostMemory<T>(static_cast<T *>(VQ_AgentMemAlloc(sizeof(T))));
}

// `Count` zeroed objects of a plain type; null when memory is exhausted.
template <typename T>
HostMemory<T> ZeroAllocHostMemory(std::size_t Count = 1)
{
    return HostMemory<T>(static_cast<T *>(VQ_AgentMemZeroAlloc(Count * sizeof(T))));
}

} // namespace advanceddns

#endif
