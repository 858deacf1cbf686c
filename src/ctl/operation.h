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

inline constexpr std::uint32_t kReload = 0;
inline constexpr std::uint32_t kReboot = 1;
inline constexpr std::array<Operation, 2> kOperations = {{{"reload", kReload}, {"reboot", kReboot}}};

} // namespace kavel::ctl

#endif
