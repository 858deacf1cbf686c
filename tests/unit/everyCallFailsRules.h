// Exceptions to the normal effect of a failing host call. Normally the failure is reported to the caller, and no later
// step is done.
#ifndef EVERY_CALL_FAILS_RULES_H
#define EVERY_CALL_FAILS_RULES_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "host.h"

// Calls that change something outside the process, given as the beginnings of their texts.
using Effects = std::vector<std::string>;

struct Rule {
    // The beginning of the text of the failing call.
    std::string Call;
    // The number of the call among those of its service; 0: any.
    std::size_t Nth = 0;
    std::optional<fakehost::Fault> How = std::nullopt;
    // Ignored: the failure is not reported to the caller, and the other steps are done, except those in `Skips`.
    bool IsIgnored = true;
    Effects Skips = {};
    // Calls that are made at once, and only because of the failure.
    Effects Adds = {};
    // No record is applied after it.
    bool EndsAll = false;
    // Not 0: the failure loses one row of a list and has no other effect. This many such calls are made for each row.
    std::size_t CallsPerRow = 0;

    [[nodiscard]] bool Covers(const std::string &Text, std::size_t NthOfService, fakehost::Fault Fault) const;
};

// The first rule that covers a failure applies.
using Rules = std::vector<Rule>;

Rules operator+(Rules Left, const Rules &Right);

// Copies of checked texts always fit, so their results are ignored.
Rules TranslationRules();
// A VPN without WANs gets routes. A VPN without LANs gets routes without an interface. A cut interface name is ignored.
// If the table cannot be emptied, that is only logged. A route that exists already counts as added. `Allocation`: the
// number of the allocation that is made to empty the table.
Rules RouteRules(std::size_t Allocation);
// Without a pid file, the instance counts as not running.
Rules PidFileRules();
// A stop whose failure is reported. A process or a pid file that no longer exists is no failure.
Rules StopRules();
// A stop whose failure is only logged.
Rules UnreportedStopRules();
// The signal goes to the process in the pid file, even if only half of the file was read.
Rules ReloadRules();
// If the customer of the VPN is not known, the customer of the platform is used.
Rules CustomerRules();
// A failed delete of a row is ignored without a log line.
Rules DeleteRules();
// If a rule cannot be removed, the teardown ends, and that is not reported to the caller.
Rules TeardownRules();
// A row that cannot be read is skipped. Without a list, nothing is done.
Rules RowRules();
// A failed check whether a directory exists changes nothing if there is none yet.
Rules DirectoryRules();
// No failure is reported.
Rules SilentRules();
// For every service: a text that just fits is no failure, a write may return the number of bytes, and a file may be
// read in pieces of any size.
Rules ShortageRules();

#endif
