// Requests that wait because their VPN is busy: first in, first out, per VPN.
#ifndef KAVEL_AGENT_REQUEST_QUEUES_H
#define KAVEL_AGENT_REQUEST_QUEUES_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "socket/answer.h"
#include "socket/connection.h"

namespace kavel::agent {

// A request that was received, and the way back to its client.
struct ReceivedRequest {
    ReceivedFrame frame;
    Respond respond;
};

class RequestQueues {
  public:
    // Limits: requests per VPN, and bytes of the frames of all VPNs.
    static constexpr std::size_t kPerVpnMax = 16;
    static constexpr std::size_t kBytesMax = std::size_t{64} * 1024 * 1024;

    // Why another request of `bytes` does not fit into the VPN's queue; nothing when it does.
    [[nodiscard]] std::optional<std::string> Objection(std::uint32_t vpnId, std::size_t bytes) const;

    // Appends a request to which there is no objection.
    void Add(std::uint32_t vpnId, ReceivedRequest request);

    // Removes the VPN's oldest request; nothing when it has none.
    [[nodiscard]] std::optional<ReceivedRequest> Take(std::uint32_t vpnId);

    // Removes all requests.
    [[nodiscard]] std::vector<ReceivedRequest> TakeAll();

    [[nodiscard]] bool IsEmpty(std::uint32_t vpnId) const { return !queues_.contains(vpnId); }

  private:
    std::map<std::uint32_t, std::deque<ReceivedRequest>> queues_; // none is empty
    std::size_t bytes_ = 0;
};

} // namespace kavel::agent

#endif
