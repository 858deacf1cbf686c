// What a box says about the message of one VPN, as a JSON object:
//
//   {"schema": 1, "revision": 17, "result": "refused", "reason": "dnshosts[0].ip: expected ...", "inForce": 16,
//    "enabled": true, "running": true, "time": 1780000000, "problem": "revision 18: ... bytes, over the limit of ..."}
//
// A member that has no value is left out.
#ifndef KAVEL_BROKER_REPORT_H
#define KAVEL_BROKER_REPORT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "revision.h"

namespace kavel::broker {

enum class Result {
    kApplied, // it is in force, or was until something else was applied; `reason` says what is wrong all the same
    kRefused, // the agent has refused it; `reason` names the field
};

// The word in the JSON text: "applied".
[[nodiscard]] std::string_view NameOf(Result result);

struct Report {
    // The newest revision that the agent has handled, what it answered, and when: Unix time in seconds. Absent
    // together: it has handled none.
    std::optional<Revision> revision{};
    std::optional<Result> result{};
    std::string reason{}; // one line; may be empty
    std::optional<std::int64_t> time{};
    std::optional<Revision> inForce{}; // absent: nothing is in force, or a message without a number as its revision
    std::optional<bool> enabled{};     // the message in force wants an instance to run; absent: not known
    std::optional<bool> running{};     // an instance runs; absent: not known
    // The last message for the VPN that was not given to the agent, and why; one line. Empty: there was none.
    std::string problem{};
    bool operator==(const Report &) const = default;
};

// Texts are cut to so many bytes, at a character's end.
inline constexpr std::size_t kReportTextMax = 512;
// A longer text is no report.
inline constexpr std::size_t kReportMax = 4096;

[[nodiscard]] std::string ReportText(const Report &report);

// Throws InputError: not a report, with the path of the member that is wrong. A member that is not known is passed
// over: a newer box may say more.
[[nodiscard]] Report ParseReport(std::string_view text);

} // namespace kavel::broker

#endif
