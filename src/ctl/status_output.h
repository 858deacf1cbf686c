// The output of `vqctl status`: a table for people, JSON for programs.
#ifndef KAVEL_CTL_STATUS_OUTPUT_H
#define KAVEL_CTL_STATUS_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "control.pb-c.h"
#include "json_reader.h"
#include "status_fields.h"

namespace kavel::ctl {

struct StatusView {
    std::uint64_t now = 0;      // Unix time in seconds: the times below the table are shown relative to it
    bool withRevisions = false; // below the table: the revision of the message in force
    bool colour = false;        // of the states
    FieldList fields = DefaultFields();
    std::size_t widest = 0; // characters of a line of the table: names of namespaces are cut; 0: they are not
};

// The titles and a row for each VPN.
[[nodiscard]] std::string StatusTable(StatusList vpns, const StatusView &view);

// The lines below the table, for each VPN: its problems, each with its code and on the next line what mends it; how
// often its instance ended and how often something was repaired, if it ever happened; and its revision.
[[nodiscard]] std::string StatusLines(StatusList vpns, const StatusView &view);

// The line "300 VPNs: 296 running, 2 failed, 1 starting, 1 off".
[[nodiscard]] std::string SummaryLine(StatusList vpns);

// Adds to the document what the reply tells: `agent`; `start` while the agent is starting; and `vpns`, an array with an
// object for each VPN. Its members are the fields of VpnStatus in control.proto, under the same names, and `state`. An
// optional field that is absent is null. What has happened to the VPN (`ends` to `next_start_time` in control.proto)
// and the revision have no member when they are absent.
void AddStatus(json_object *document, const Kavel__Reply &reply, StatusList vpns, const FieldList &fields);

// The line "starting: 120 of 300 VPNs are back".
[[nodiscard]] std::string StartText(const Kavel__Start &start);

// Whether any VPN has a problem. "starting", an instance that ended and a repair are none.
[[nodiscard]] bool AnyProblem(StatusList vpns);

// Whether `fd` is a terminal and the environment variable NO_COLOR is unset or empty.
[[nodiscard]] bool WantsColour(int fd);

} // namespace kavel::ctl

#endif
