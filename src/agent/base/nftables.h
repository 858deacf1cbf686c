// Runs nftables commands through libnftables in the namespaces of the VPNs.
#ifndef KAVEL_AGENT_NFTABLES_H
#define KAVEL_AGENT_NFTABLES_H

#include <nftables/libnftables.h>

#include <cstdint>
#include <memory>
#include <string>

#include "base/per_namespace.h"
#include "failure.h"

namespace kavel::agent {

// A transaction that failed: its errno, and the first line of what the library said about it.
class NftablesError : public Failure {
  public:
    using Failure::Failure;
};

class NftablesContext {
  public:
    // In the calling thread's namespace. Throws std::system_error or std::bad_alloc.
    NftablesContext();

    // Runs `commands` as one transaction. Returns what they list. Throws NftablesError.
    std::string Run(const std::string &commands);

  private:
    struct Free {
        void operator()(nft_ctx *context) const { nft_ctx_free(context); }
    };

    std::unique_ptr<nft_ctx, Free> context_;
};

// The contexts of the VPNs that were used last.
class NftablesContexts {
  public:
    explicit NftablesContexts(const Namespaces &namespaces);

    // Runs `commands` in the VPN's namespace as one transaction. Returns what they list. Throws NftablesError, or
    // another std::system_error when the namespace cannot be entered.
    std::string Run(std::uint32_t vpnId, const std::string &commands) { return contexts_.Of(vpnId).Run(commands); }

    // Frees the contexts whose VPN has another namespace now, or none.
    void CloseStale() { contexts_.DropStale(); }

  private:
    PerNamespace<NftablesContext> contexts_;
};

} // namespace kavel::agent

#endif
