// Numbers from text.
#ifndef KAVEL_COMMON_NUMBER_H
#define KAVEL_COMMON_NUMBER_H

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace kavel {

// The decimal number that all of `text` forms. Nothing when `text` is not a number or when the number does not fit.
template <typename Number>
std::optional<Number> WholeNumber(std::string_view text)
{
    Number number{};
    const char *const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stopped == end ? std::optional(number) : std::nullopt;
}

} // namespace kavel

#endif
