// Texts that several commands print.
#ifndef KAVEL_CTL_OUTPUT_H
#define KAVEL_CTL_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "control.pb-c.h"
#include "json_reader.h"
#include "printable.h"

namespace kavel::ctl {

// "1 host", "2 hosts".
std::string Counted(std::size_t count, std::string_view noun);

// "enabled", "disabled".
std::string EnabledText(bool enable);

// "reload", "reboot", or "operation 2 (unknown)" for another number.
std::string OperationText(std::uint32_t operation);

// "vpn 7", or "message" when the VPN is not known.
std::string SubjectText(std::optional<std::uint32_t> vpn);

// What follows "refused": "(-22 Invalid argument): the reason". The reason is the module's, or else the agent's text
// unless it only repeats the error; without either the text ends at the parenthesis.
std::string RefusalText(const Kavel__Reply &reply);

// "enabled, reload, 2 hosts, 1 mx, 2 servers, 3 forwards, not stored".
std::string SummaryText(const Kavel__Summary &summary);

// {"enable": true, "operation": "reload", "persistent": false, "hosts": 2, ...}
[[nodiscard]] JsonPtr SummaryJson(const Kavel__Summary &summary);

} // namespace kavel::ctl

#endif
