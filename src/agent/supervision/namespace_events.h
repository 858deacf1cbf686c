// Tells that something changed in the network namespace of a VPN: links, addresses, routes, policy rules, nftables.
#ifndef KAVEL_AGENT_NAMESPACE_EVENTS_H
#define KAVEL_AGENT_NAMESPACE_EVENTS_H

#include <cstdint>
#include <functional>
#include <utility>

#include "base/netns.h"
#include "event_loop.h"
#include "unique_fd.h"

namespace kavel::agent {

// Changes of the namespace that the VPN has when the object is made.
class NamespaceEvents {
  public:
    // The loop calls `onChange` for changes, many at once. Throws std::system_error. `loop` must outlive this object.
    NamespaceEvents(EventLoop &loop, const Namespaces &namespaces, std::uint32_t vpnId, std::function<void()> onChange);

    // Forgets the changes that have not been reported yet. The agent's own are among them once it has made them.
    void Forget();

    // Whether the nftables ruleset may have changed since the last call: without a change nothing has to be listed.
    [[nodiscard]] bool TakeRulesetChange() { return std::exchange(hasRulesetChange_, false); }

  private:
    void Read();
    // Whether anything was read.
    [[nodiscard]] static bool Drain(const UniqueFd &socket);

    std::function<void()> onChange_;
    bool hasRulesetChange_ = true;
    UniqueFd routes_;
    UniqueFd rules_;
    EventSource routesSource_;
    EventSource rulesSource_;
};

} // namespace kavel::agent

#endif
