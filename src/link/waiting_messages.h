// The messages that wait for their turn at the agent: the newest of each VPN. The VPNs take turns.
#ifndef KAVEL_LINK_WAITING_MESSAGES_H
#define KAVEL_LINK_WAITING_MESSAGES_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

#include "backoff.h"
#include "desired.h"

namespace kavel::link {

class WaitingMessages {
  public:
    using Time = std::chrono::steady_clock::time_point;

    // Of all payloads together.
    static constexpr std::size_t kBytesMax = std::size_t{64} * 1024 * 1024;

    // Replaces what waits for the VPN, which must be older. False: there is no room, and nothing waits for the VPN now.
    [[nodiscard]] bool Put(Desired message);

    // Takes out the message whose turn it is, if one may be given to the agent at `now`.
    [[nodiscard]] std::optional<Desired> TakeNext(Time now);

    // The agent could not take the message at `now`. It waits again, with back-off, unless a newer one waits by now.
    void PutBack(Desired message, Time now);

    // The agent has answered a message of the VPN: the next one need not wait.
    void Answered(std::uint32_t vpn) { delays_.erase(vpn); }

    [[nodiscard]] bool IsEmpty() const { return messages_.empty(); }
    [[nodiscard]] std::size_t Count() const { return messages_.size(); }

    // When the first of the messages may be given to the agent; nothing if none waits.
    [[nodiscard]] std::optional<Time> NextTime() const;

  private:
    using Messages = std::map<std::uint32_t, Desired>;

    // After a failure.
    struct Delay {
        broker::Backoff backoff;
        Time until;
    };

    [[nodiscard]] Time TimeOf(std::uint32_t vpn) const;
    Desired Take(Messages::iterator position);

    Messages messages_;
    std::map<std::uint32_t, Delay> delays_;
    std::size_t bytes_ = 0;
    std::uint32_t lastVpn_ = 0; // whose turn was the last
};

} // namespace kavel::link

#endif
