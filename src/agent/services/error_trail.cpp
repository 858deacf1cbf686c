#include "services/error_trail.h"

#include <cctype>
#include <string_view>
#include <utility>

namespace kavel::agent {
namespace {

constexpr std::size_t kMessagesMax = 64;

// The number in the first "(<digits>:" at or after `from`, and where its parenthesis is.
struct ErrorMark {
    std::size_t position = std::string_view::npos;
    std::string_view number;
};

ErrorMark FindErrorMark(std::string_view text, std::size_t from)
{
    for (std::size_t open = text.find('(', from); open != std::string_view::npos; open = text.find('(', open + 1)) {
        std::size_t end = open + 1;
        while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) {
            ++end;
        }
        if (end > open + 1 && end < text.size() && text[end] == ':') {
            return {open, text.substr(open + 1, end - open - 1)};
        }
    }
    return {};
}

bool HasErrorMark(std::string_view text, std::string_view number)
{
    ErrorMark mark = FindErrorMark(text, 0);
    while (mark.position != std::string_view::npos && mark.number != number) {
        mark = FindErrorMark(text, mark.position + 1);
    }
    return mark.position != std::string_view::npos;
}

bool HasAnyErrorMark(std::string_view text)
{
    return FindErrorMark(text, 0).position != std::string_view::npos;
}

} // namespace

void ErrorTrail::Add(std::string message)
{
    while (message.ends_with('\n')) {
        message.pop_back();
    }
    if (message.ends_with("success")) {
        return; // the module reports a few successes at error level
    }
    if (messages_.size() == kMessagesMax) {
        messages_.pop_front();
    }
    messages_.push_back(std::move(message));
}

std::optional<std::string> ErrorTrail::Cause(std::int32_t result) const
{
    if (messages_.empty()) {
        return std::nullopt;
    }
    const std::string number = std::to_string(-std::int64_t{result});
    std::size_t at = messages_.size() - 1;
    while (at > 0 && HasErrorMark(messages_[at], number)) {
        const std::string &previous = messages_[at - 1];
        const bool isDeeper = HasErrorMark(previous, number) || !HasAnyErrorMark(previous);
        if (!isDeeper) {
            break;
        }
        --at;
    }
    return messages_[at];
}

std::optional<std::string> ErrorTrail::First() const
{
    return messages_.empty() ? std::nullopt : std::optional(messages_.front());
}

} // namespace kavel::agent
