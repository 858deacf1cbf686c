// Names as dnsmasq takes them.
#ifndef KAVEL_AGENT_DNS_NAME_H
#define KAVEL_AGENT_DNS_NAME_H

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace kavel::agent {

inline constexpr std::size_t kLabelMax = 63; // characters

// The length of the longest label of a domain.
[[nodiscard]] inline std::size_t LongestLabel(std::string_view name)
{
    std::size_t longest = 0;
    while (!name.empty()) {
        const std::size_t end = std::min(name.find('.'), name.size());
        longest = std::max(longest, end);
        name.remove_prefix(std::min(end + 1, name.size()));
    }
    return longest;
}

} // namespace kavel::agent

#endif
