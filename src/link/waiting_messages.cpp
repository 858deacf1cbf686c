#include "waiting_messages.h"

#include <algorithm>
#include <utility>

namespace kavel::link {

bool WaitingMessages::Put(Desired message)
{
    if (const auto older = messages_.find(message.vpn); older != messages_.end()) {
        (void)Take(older);
    }
    const std::size_t size = message.payload.size();
    if (size > kBytesMax - std::min(bytes_, kBytesMax)) {
        return false;
    }
    bytes_ += size;
    messages_.emplace(message.vpn, std::move(message));
    return true;
}

// From the VPN behind the last one on, and then from the first one on.
std::optional<Desired> WaitingMessages::TakeNext(Time now)
{
    const auto isDue = [this, now](const auto &entry) { return TimeOf(entry.first) <= now; };
    const auto behind = messages_.upper_bound(lastVpn_);
    auto next = std::find_if(behind, messages_.end(), isDue);
    if (next == messages_.end()) {
        next = std::find_if(messages_.begin(), behind, isDue);
        if (next == behind) {
            return std::nullopt;
        }
    }
    lastVpn_ = next->first;
    return Take(next);
}

void WaitingMessages::PutBack(Desired message, Time now)
{
    Delay &delay = delays_[message.vpn];
    delay.until = now + delay.backoff.Next();
    if (!messages_.contains(message.vpn)) {
        bytes_ += message.payload.size();
        messages_.emplace(message.vpn, std::move(message));
    }
}

std::optional<WaitingMessages::Time> WaitingMessages::NextTime() const
{
    std::optional<Time> first;
    for (const auto &[vpn, message] : messages_) {
        first = std::min(first.value_or(Time::max()), TimeOf(vpn));
    }
    return first;
}

WaitingMessages::Time WaitingMessages::TimeOf(std::uint32_t vpn) const
{
    const auto delay = delays_.find(vpn);
    return delay != delays_.end() ? delay->second.until : Time::min();
}

Desired WaitingMessages::Take(Messages::iterator position)
{
    Desired message = std::move(position->second);
    bytes_ -= message.payload.size();
    messages_.erase(position);
    return message;
}

} // namespace kavel::link
