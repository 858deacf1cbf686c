// The operations of a message, by name and number.
#ifndef KAVEL_CTL_OPERATION_H
#define KAVEL_CTL_OPERATION_H

#include <array>
#include <cstdint>
#include <string_view>

namespace kavel::ctl {

struct Operation {
    std::string_view name;
    std::uint32_t number;
};

inline constexpr std::array<Operation, 2> kOperations = {{{"reload", 0}, {"reboot", 1}}};

} // namespace kavel::ctl

#endif
