// Objects that belong to a VPN's network namespace, such as sockets: created inside it, kept, and found by the VPN's
// id.
#ifndef KAVEL_AGENT_PER_NAMESPACE_H
#define KAVEL_AGENT_PER_NAMESPACE_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>

#include "base/netns.h"

namespace kavel::agent {

// `Box` tells which namespace a VPN has now, and `Scope` enters it: a test can replace both.
template <typename T, typename Box = Namespaces, typename Scope = NamespaceSwitch>
class PerNamespace {
  public:
    // Keeps at most `limit` objects: the most recently used ones. `namespaces` must outlive this object.
    PerNamespace(const Box &namespaces, std::size_t limit) : namespaces_(namespaces), limit_(limit) {}

    // The object of the VPN's current namespace, created when there is none. Throws what its constructor throws, and
    // std::system_error when the namespace cannot be entered. Valid until the next call.
    T &Of(std::uint32_t vpnId)
    {
        const auto found = index_.find(vpnId);
        if (found != index_.end() && IsCurrent(*found->second)) {
            kept_.splice(kept_.begin(), kept_, found->second);
            return kept_.front().object;
        }
        Drop(vpnId);
        const auto netns = namespaces_.IdOf(vpnId);
        {
            const Scope inside(namespaces_, vpnId);
            kept_.emplace_front(vpnId, netns, namespaces_.CurrentRequest());
        }
        index_[vpnId] = kept_.begin();
        if (kept_.size() > limit_) {
            Drop(kept_.back().vpnId);
        }
        return kept_.front().object;
    }

    void Drop(std::uint32_t vpnId)
    {
        const auto found = index_.find(vpnId);
        if (found != index_.end()) {
            kept_.erase(found->second);
            index_.erase(found);
        }
    }

    // Drops the objects whose VPN has another namespace now, or none: an open socket keeps the old namespace alive.
    void DropStale()
    {
        for (auto at = kept_.begin(); at != kept_.end();) {
            const auto here = at++;
            if (here->netns != namespaces_.IdOf(here->vpnId)) {
                Drop(here->vpnId);
            }
        }
    }

  private:
    struct Kept {
        Kept(std::uint32_t id, std::optional<NamespaceId> where, std::uint64_t request)
            : vpnId(id), netns(where), checkedIn(request)
        {
        }

        std::uint32_t vpnId;
        std::optional<NamespaceId> netns;
        std::uint64_t checkedIn; // the request in which the namespace was compared last
        T object;
    };

    // Whether the VPN's namespace is still the one that the object was created in.
    bool IsCurrent(Kept &kept) const
    {
        if (kept.checkedIn != namespaces_.CurrentRequest() && namespaces_.IdOf(kept.vpnId) == kept.netns) {
            kept.checkedIn = namespaces_.CurrentRequest();
        }
        return kept.checkedIn == namespaces_.CurrentRequest();
    }

    const Box &namespaces_;
    std::size_t limit_;
    std::list<Kept> kept_; // the most recently used one in front
    std::unordered_map<std::uint32_t, typename std::list<Kept>::iterator> index_;
};

} // namespace kavel::agent

#endif
