// Numbers out of text.
#ifndef KAVEL_CONTROL_NUMBER_H
#define KAVEL_CONTROL_NUMBER_H

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace kavel::control {

// The decimal number that `text` is, from its first byte to its last; nothing when it is none, or too large.
template <typename Number>
std::optional<Number> WholeNumber(std::string_view text)
{
    Number number{};
    const char *const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stopped == end ? std::optional(number) : std::nullopt;
}

} // namespace kavel::control

#endif
