#include "socket/request_queues.h"

#include <utility>

namespace kavel::agent {

std::optional<std::string> RequestQueues::Objection(std::uint32_t vpnId, std::size_t bytes) const
{
    const auto queue = queues_.find(vpnId);
    if (queue != queues_.end() && queue->second.size() >= kPerVpnMax) {
        return std::to_string(kPerVpnMax) + " requests are waiting for vpn " + std::to_string(vpnId) + " already";
    }
    if (bytes > kBytesMax - bytes_) {
        return "the waiting requests would take more than " + std::to_string(kBytesMax) + " bytes";
    }
    return std::nullopt;
}

void RequestQueues::Add(std::uint32_t vpnId, ReceivedRequest request)
{
    bytes_ += request.frame.bytes.size();
    queues_[vpnId].push_back(std::move(request));
}

std::optional<ReceivedRequest> RequestQueues::Take(std::uint32_t vpnId)
{
    const auto queue = queues_.find(vpnId);
    if (queue == queues_.end()) {
        return std::nullopt;
    }
    ReceivedRequest request = std::move(queue->second.front());
    queue->second.pop_front();
    bytes_ -= request.frame.bytes.size();
    if (queue->second.empty()) {
        queues_.erase(queue);
    }
    return request;
}

std::vector<ReceivedRequest> RequestQueues::TakeAll()
{
    std::vector<ReceivedRequest> all;
    while (!queues_.empty()) {
        all.push_back(*Take(queues_.begin()->first));
    }
    return all;
}

} // namespace kavel::agent
