// Guards that release a resource at the end of their scope: host memory, host lists, files, directories, JSON trees,
// and the network namespace that a VPN's work needs.
//
// Two resources have no guard. The pattern of VQCtrl_ValidateDomain must not be released on one of its paths. The text
// that the host's conversion table gives is released through that table, and only if it has a function for that.
#ifndef VQ_CTRL_ADVANCED_DNS_GUARD_H
#define VQ_CTRL_ADVANCED_DNS_GUARD_H

#include <cstddef>
#include <cstdio>

#include <dirent.h>
#include <json-c/json.h>

#include "vqCtrlAdvancedDnsLog.h"
#include "vqCtrlAdvancedDnsOwner.h"
#include "vqErrno.h"
#include "vqMemory.h"
#include "vqNetio.h"
#include "vqNetns.h"
#include "vqStore.h"

namespace advanceddns {

inline void CloseFile(FILE *File)
{
    // The module only reads through streams, so a failed close loses nothing.
    static_cast<void>(std::fclose(File));
}

inline void CloseDirectory(DIR *Directory)
{
    static_cast<void>(closedir(Directory));
}

inline void ReleaseJson(json_object *Tree)
{
    // The result says whether this was the last reference. The owner of a tree knows that it was.
    static_cast<void>(json_object_put(Tree));
}

template <typename T>
using HostMemory = Owner<T, VQ_AgentMemFree>;
using InterfaceList = Owner<VQ_LIST_HEAD, VQ_RtcNetioNodeListRelease>;
using ReadFile = Owner<FILE, CloseFile>;
using JsonTree = Owner<json_object, ReleaseJson>;
using StoredRecords = Owner<VQ_PersistentConfList, VQ_SqliteConfListRelease>;
using Directory = Owner<DIR, CloseDirectory>;

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

// Moves the calling thread into the network namespace of a VPN, and back at the end of the scope. For VPN 0 the thread
// stays where it is. A failure in either direction is logged under `Function`, which must outlive the guard.
class NamespaceSwitch {
  public:
    NamespaceSwitch(const char *Function, uint32_t VpnId) : Function_(Function), VpnId_(VpnId)
    {
        const VQ_ERR_T Result = VpnId != 0 ? VQ_RtcNetNsSaveAndSwitch(VpnId, &SavedNs_) : VQ_ERR_OK;
        IsInNamespace_ = Result >= 0;
        if (Result < 0) {
            VQ_CTRL_LOG_ERROR_AS(Function, "Switch to namespace %u faile, ret = %d.\n", VpnId, Result);
        }
    }

    // The handle decides, not the result of the switch: a host may save a handle and then fail.
    ~NamespaceSwitch()
    {
        if (SavedNs_ < 0) {
            return;
        }
        const VQ_ERR_T Result = VQ_RtcNetNsSwitchToDefault(&SavedNs_);
        if (Result < 0) {
            VQ_CTRL_LOG_ERROR_AS(Function_, "VQ_RtcNetNsSwitchToDefault failed(ret = %d VpnId = %u saveNetNsFd = %d)\n",
                                 Result, VpnId_, SavedNs_);
        }
    }

    NamespaceSwitch(const NamespaceSwitch &) = delete;
    NamespaceSwitch &operator=(const NamespaceSwitch &) = delete;

    // Whether the calling thread is in the namespace of the VPN, or is to stay where it is.
    [[nodiscard]] bool IsInNamespace() const { return IsInNamespace_; }

  private:
    const char *Function_;
    uint32_t VpnId_;
    int SavedNs_ = -1;
    bool IsInNamespace_ = false;
};

} // namespace advanceddns

#endif
