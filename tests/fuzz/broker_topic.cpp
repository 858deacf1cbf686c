// A topic, a revision and the name of a box: what is accepted has exactly the text that was read, and what an
// independent pattern allows is accepted.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz.h"
#include "revision.h"
#include "topics.h"

namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kLettersAndDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::string_view kMarks = "._-";

bool AreAllOf(std::string_view Text, std::string_view Allowed)
{
    return Text.find_first_not_of(Allowed) == std::string_view::npos;
}

// A decimal number without a sign and without leading zeros, at most `Last`, which is one too.
bool IsDecimal(std::string_view Text, std::string_view Last)
{
    return !Text.empty() && AreAllOf(Text, kDigits) && (Text == "0" || Text.front() != '0') &&
           (Text.size() < Last.size() || (Text.size() == Last.size() && Text <= Last));
}

bool IsName(std::string_view Text)
{
    return !Text.empty() && Text.size() <= 64 && kMarks.find(Text.front()) == std::string_view::npos &&
           AreAllOf(Text, std::string(kLettersAndDigits) + std::string(kMarks));
}

bool IsTopicBehindRoot(std::string_view Text)
{
    const size_t NameEnd = Text.find('/');
    if (NameEnd == std::string_view::npos || !IsName(Text.substr(0, NameEnd))) {
        return false;
    }
    const std::string_view Rest = Text.substr(NameEnd + 1);
    for (const std::string_view Kind : {"desired/", "reported/"}) {
        if (Rest.starts_with(Kind)) {
            return IsDecimal(Rest.substr(Kind.size()), "4294967295");
        }
    }
    return Rest == "online";
}

void CheckTopic(std::string_view Text)
{
    constexpr std::string_view kRoot = "kavel/";
    const std::optional<kavel::broker::Topic> Topic = kavel::broker::ParseTopic(Text);
    const bool IsTopic = Text.starts_with(kRoot) && IsTopicBehindRoot(Text.substr(kRoot.size()));
    fuzz::Require(Topic.has_value() == IsTopic, "a topic is refused, or what is none is accepted");
    if (Topic) {
        fuzz::Require(TopicText(*Topic) == Text, "a topic has another text than was read");
        fuzz::Require(kavel::broker::IsBoxName(Topic->box), "a topic has a box with a bad name");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    const std::string Text(Data, Data + Size);
    CheckTopic(Text);
    // Most inputs begin with something else.
    CheckTopic("kavel/" + Text);
    CheckTopic("kavel/box/desired/" + Text);
    fuzz::Require(kavel::broker::IsBoxName(Text) == IsName(Text),
                  "the name of a box is refused, or what is none is not");
    const std::optional<kavel::broker::Revision> Revision = kavel::broker::ParseRevision(Text);
    fuzz::Require(Revision.has_value() == (Text != "0" && IsDecimal(Text, "9223372036854775807")),
                  "a revision is refused, or what is none is accepted");
    fuzz::Require(!Revision || std::to_string(*Revision) == Text, "a revision has another text than was read");
    return 0;
}
