// The revision of a message as a number that grows with each message for a VPN.
#ifndef KAVEL_COMMON_NUMERIC_REVISION_H
#define KAVEL_COMMON_NUMERIC_REVISION_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "number.h"

namespace kavel {

inline constexpr std::uint64_t kNumericRevisionMax = INT64_MAX;

// The number, from 1 to kNumericRevisionMax, in decimal digits without leading zeros. Nothing for every other text.
[[nodiscard]] inline std::optional<std::uint64_t> NumericRevision(std::string_view text)
{
    const auto number = text.starts_with('0') ? std::nullopt : WholeNumber<std::uint64_t>(text);
    return number && *number <= kNumericRevisionMax ? number : std::nullopt;
}

} // namespace kavel

#endif
