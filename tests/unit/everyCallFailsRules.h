// What the failures of host calls lead to, where that is not the rule: the caller hears of a failure, and nothing is
// done after it.
#ifndef EVERY_CALL_FAILS_RULES_H
#define EVERY_CALL_FAILS_RULES_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "host.h"

// Calls that change the world, as the beginnings of their texts.
using Effects = std::vector<std::string>;

struct Rule {
    // The beginning of the call that fails.
    std::string Call;
    // Which call of its service; 0: any.
    std::size_t Nth = 0;
    std::optional<fakehost::Fault> How = std::nullopt;
    // Swallowed: the caller does not hear of it, and what is to be done is done, except for what it skips.
    bool IsSwallowed = true;
    Effects Skips = {};
    // What is done only because of it, at once.
    Effects Adds = {};
    // Nothing comes after it, of no record.
    bool EndsAll = false;
    // Of a list of rows one is not there, and nothing else happens: so many such calls are made for each row.
    std::size_t CallsPerRow = 0;

    [[nodiscard]] bool Covers(const std::string &Text, std::size_t NthOfService, fakehost::Fault Fault) const;
};

// The first rule that covers a failure counts.
using Rules = std::vector<Rule>;

Rules operator+(Rules Left, const Rules &Right);

// What a message is copied with has room for all that passes the checks.
Rules TranslationRules();
// A VPN without WANs gets its routes, one without LANs gets them without an interface, and what is cut of an interface
// name is not looked at. A table that cannot be emptied is only logged, and a route that exists is as good as added.
// `Allocation`: which allocation is the one for emptying the table.
Rules RouteRules(std::size_t Allocation);
// An instance without a pid file is none.
Rules PidFileRules();
// A stop that tells its caller: a process that is gone is as good as killed, and so is a pid file that is gone.
Rules StopRules();
// A stop whose failure is only logged.
Rules UnreportedStopRules();
// The signal goes to the process that the pid file names, all of it or half.
Rules ReloadRules();
// The platform's customer stands where the VPN's is not known.
Rules CustomerRules();
// A row that cannot be deleted is silent.
Rules DeleteRules();
// A rule that cannot be removed ends a teardown without a word to the caller.
Rules TeardownRules();
// A row that cannot be read is not there, and without a list there is nothing.
Rules RowRules();
// Where nothing exists yet, a failed look changes nothing; where all exists, a directory is made that is there.
Rules DirectoryRules();
// Nobody hears of anything.
Rules SilentRules();
// For every service: a text that just fits fits, a write may tell how much it wrote, and how a file comes does not
// matter.
Rules ShortageRules();

#endif
