#include "topics.h"

#include <algorithm>
#include <array>

#include "number.h"

namespace kavel::broker {

namespace {

constexpr std::string_view kRoot = "kavel";
constexpr std::string_view kAnyLevel = "+";

struct KindName {
    TopicKind kind;
    std::string_view name;
    bool hasVpn;
};

constexpr std::array<KindName, 3> kKinds{{
    {TopicKind::kDesired, "desired", true},
    {TopicKind::kReported, "reported", true},
    {TopicKind::kOnline, "online", false},
}};

const KindName &NameOfKind(TopicKind kind)
{
    return *std::ranges::find(kKinds, kind, &KindName::kind);
}

std::string Joined(std::string_view box, const KindName &kind, std::string_view vpn)
{
    std::string text = std::string(kRoot) + "/" + std::string(box) + "/" + std::string(kind.name);
    return kind.hasVpn ? text + "/" + std::string(vpn) : text;
}

// Takes the first level, and the slash behind it, from `text`.
std::string_view TakeLevel(std::string_view &text)
{
    const std::size_t length = std::min(text.find('/'), text.size());
    const std::string_view level = text.substr(0, length);
    text.remove_prefix(std::min(length + 1, text.size()));
    return level;
}

constexpr bool IsLetterOrDigit(char character)
{
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
           (character >= '0' && character <= '9');
}

constexpr bool IsOfBoxName(char character)
{
    return IsLetterOrDigit(character) || character == '.' || character == '_' || character == '-';
}

} // namespace

bool IsBoxName(std::string_view name)
{
    return !name.empty() && name.size() <= kBoxNameMax && IsLetterOrDigit(name.front()) &&
           std::ranges::all_of(name, IsOfBoxName);
}

std::string TopicText(const Topic &topic)
{
    return Joined(topic.box, NameOfKind(topic.kind), std::to_string(topic.vpn));
}

std::optional<Topic> ParseTopic(std::string_view text)
{
    std::string_view rest = text;
    TakeLevel(rest);
    const std::string_view box = TakeLevel(rest);
    const std::string_view kindName = TakeLevel(rest);
    const auto *const kind = std::ranges::find(kKinds, kindName, &KindName::name);
    if (kind == kKinds.end() || !IsBoxName(box)) {
        return std::nullopt;
    }
    const std::optional<std::uint32_t> vpn = kind->hasVpn ? WholeNumber<std::uint32_t>(rest) : 0;
    if (!vpn) {
        return std::nullopt;
    }
    Topic topic{kind->kind, std::string(box), *vpn};
    // What differs from the one text of this topic: another root, a zero or a level too many.
    return TopicText(topic) == text ? std::optional(std::move(topic)) : std::nullopt;
}

std::string TopicFilter(TopicKind kind, const std::optional<std::string> &box)
{
    return Joined(box ? std::string_view(*box) : kAnyLevel, NameOfKind(kind), kAnyLevel);
}

} // namespace kavel::broker
