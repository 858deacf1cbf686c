// The words in which vqctl speaks to a person.
#ifndef KAVEL_CTL_OUTPUT_H
#define KAVEL_CTL_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "control.pb-c.h"
#include "printable.h"

namespace kavel::ctl {

// "1 host", "2 hosts".
std::string Counted(std::size_t count, std::string_view noun);

// "enabled", "disabled".
std::string EnabledText(bool enable);

// "reload", "reboot", or the number of an operation that is neither.
std::string OperationText(std::uint32_t operation);

// "vpn 7", or "message" when nobody knows which VPN it was for.
std::string SubjectText(std::optional<std::uint32_t> vpn);

// What follows "refused": "(-22 Invalid argument): the reason".
std::string RefusalText(const Kavel__Reply &reply);

// "enabled, reload, 2 hosts, 1 mx, 2 servers, 3 forwards, not stored".
std::string SummaryText(const Kavel__Summary &summary);

} // namespace kavel::ctl

#endif
