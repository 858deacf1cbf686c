// The topics of a fleet, below "kavel/":
//
//   kavel/<box>/desired/<vpn>    retained, by the controller: the packed message that the VPN of the box shall have
//   kavel/<box>/reported/<vpn>   retained, by the box: what became of it, see report.h
//   kavel/<box>/online           retained, by the box and as its last will: see presence.h
#ifndef KAVEL_BROKER_TOPICS_H
#define KAVEL_BROKER_TOPICS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kavel::broker {

inline constexpr std::size_t kBoxNameMax = 64;

// The name of a box: 1 to kBoxNameMax of the letters A to Z, a to z, digits, '.', '_' and '-', the first a letter or a
// digit. It is the common name of the box's certificate, and one level of its topics.
[[nodiscard]] bool IsBoxName(std::string_view name);

enum class TopicKind { kDesired, kReported, kOnline };

struct Topic {
    TopicKind kind = TopicKind::kDesired;
    std::string box;
    std::uint32_t vpn = 0; // 0 for kOnline
    bool operator==(const Topic &) const = default;
};

[[nodiscard]] std::string TopicText(const Topic &topic);

// Nothing for what TopicText() does not give: another root, a bad name of a box, a VPN with a sign, with leading zeros
// or above 4294967295.
[[nodiscard]] std::optional<Topic> ParseTopic(std::string_view text);

// The topics of this kind, of one box or, without `box`, of all: "kavel/+/desired/+".
[[nodiscard]] std::string TopicFilter(TopicKind kind, const std::optional<std::string> &box = std::nullopt);

} // namespace kavel::broker

#endif
