#include "desired.h"

#include <utility>

#include "frame.h"
#include "printable.h"
#include "topics.h"

namespace kavel::link {

namespace {

constexpr std::size_t kShownMax = 64; // bytes of a text from outside, in a problem

std::string Shown(std::string_view text)
{
    const bool isLong = text.size() > kShownMax;
    return "\"" + Printable(text.substr(0, kShownMax)) + (isLong ? "...\"" : "\"");
}

const std::string *PropertyOf(const broker::Message &message, const char *name)
{
    const auto found = message.properties.find(name);
    return found != message.properties.end() ? &found->second : nullptr;
}

std::string RevisionProblem(const std::string *text)
{
    const std::string has = text != nullptr ? "revision: it is " + Shown(*text) : "revision: it is missing";
    return has + "; a number from 1 to " + std::to_string(broker::kRevisionMax) + " is needed";
}

// Why the message of this revision cannot be given to the agent; empty: it can.
std::string ProblemOf(const broker::Message &message)
{
    const std::string *platform = PropertyOf(message, broker::kPlatformProperty);
    if (platform != nullptr && *platform != "cpe" && *platform != "pop") {
        return "platform: it is " + Shown(*platform) + R"(; "cpe" or "pop" is needed)";
    }
    if (message.payload.size() > control::kMessageMax) {
        return "it has " + std::to_string(message.payload.size()) + " bytes, over the limit of " +
               std::to_string(control::kMessageMax);
    }
    return {};
}

} // namespace

std::variant<Desired, Unusable> ReadDesired(std::string_view box, broker::Message message)
{
    const auto topic = broker::ParseTopic(message.topic);
    if (!topic || topic->kind != broker::TopicKind::kDesired || topic->box != box) {
        return Unusable{std::nullopt, "topic: " + Shown(message.topic) + " is not for this box"};
    }
    if (message.payload.empty()) {
        return Unusable{topic->vpn, "the message is empty; nothing changes"};
    }
    const std::string *text = PropertyOf(message, broker::kRevisionProperty);
    const auto revision = text != nullptr ? broker::ParseRevision(*text) : std::nullopt;
    if (!revision) {
        return Unusable{topic->vpn, RevisionProblem(text)};
    }
    if (const std::string problem = ProblemOf(message); !problem.empty()) {
        return Unusable{topic->vpn, "revision " + std::to_string(*revision) + ": " + problem};
    }
    const std::string *platform = PropertyOf(message, broker::kPlatformProperty);
    const auto isForPop = platform != nullptr ? std::optional(*platform == "pop") : std::nullopt;
    return Desired{topic->vpn, *revision, isForPop, std::move(message.payload)};
}

} // namespace kavel::link
