// Objects that belong to a VPN's network namespace, such as sockets: made inside it, kept, and found again by the VPN.
#ifndef KAVEL_AGENT_PER_NAMESPACE_H
#define KAVEL_AGENT_PER_NAMESPACE_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>

#include "base/netns.h"

namespace kavel::agent {

template <typename T>
class PerNamespace {
  public:
    // Keeps at most `limit` of them: those that were asked for last.
    explicit PerNamespace(std::size_t limit) : limit_(limit) {}

    // The object of the VPN's present namespace; throws what making it throws. Valid until the next call.
    T &Of(std::uint32_t vpnId)
    {
        const auto found = index_.find(vpnId);
        if (found != index_.end() && found->second->IsPresent()) {
            kept_.splice(kept_.begin(), kept_, found->second);
            return kept_.front().object;
        }
        Drop(vpnId);
        const auto netns = NamespaceOfVpn(vpnId);
        {
            const NamespaceSwitch inside(vpnId);
            kept_.emplace_front(vpnId, netns);
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

    // Drops those whose VPN has another namespace now, or none: an open socket keeps the old namespace alive.
    void DropStale()
    {
        for (auto at = kept_.begin(); at != kept_.end();) {
            const auto here = at++;
            if (here->netns != NamespaceOfVpn(here->vpnId)) {
                Drop(here->vpnId);
            }
        }
    }

  private:
    struct Kept {
        Kept(std::uint32_t id, std::optional<NamespaceId> where) : vpnId(id), netns(where) {}

        // Whether the VPN's namespace is still the one that the object was made in.
        bool IsPresent()
        {
            if (round != CurrentRound() && NamespaceOfVpn(vpnId) == netns) {
                round = CurrentRound();
            }
            return round == CurrentRound();
        }

        std::uint32_t vpnId;
        std::optional<NamespaceId> netns;
        std::uint64_t round = CurrentRound(); // when it was looked at last
        T object;
    };

    std::size_t limit_;
    std::list<Kept> kept_; // the one asked for last in front
    std::unordered_map<std::uint32_t, typename std::list<Kept>::iterator> index_;
};

} // namespace kavel::agent

#endif
