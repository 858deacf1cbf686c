// One run of a scenario, with or without a failure, and everything that is to be known of it.
#ifndef EVERY_CALL_FAILS_RUN_H
#define EVERY_CALL_FAILS_RUN_H

#include <array>
#include <map>

#include "everyCallFailsScenarios.h"

// What an error may be.
inline constexpr std::array kErrors{-2, -3, -12, -17, -22, -28};

// Which call fails, from 1, and how.
struct Failing {
    enum class Mode { None, Alone, FromThereOn };

    Mode Which = Mode::None;
    std::size_t Nth = 0;
    fakehost::Fault How = {};
};

using Files = std::map<std::string, std::string>;

struct Outcome {
    VQ_ERR_T Result = 0;
    // World calls and log lines.
    std::vector<fakehost::Entry> Entries;
    std::vector<fakehost::CountedCall> Counted;
    std::vector<fakehost::FailedCall> Failed;
    Files Before;
    Files After;
    // Paths that a service wrote with success.
    std::vector<std::string> Written;
    std::vector<std::string> Violations;
};

Outcome RunScenario(const Scenario &Of, const Failing &How = {});

// What a failure leads to: the first rule of the scenario that covers it, otherwise that it is heard.
const Rule &RuleOf(const Scenario &Of, const std::string &Call, std::size_t Nth, fakehost::Fault How);

// Whether the caller of the scenario is told, or of several records the one that is being applied ends.
bool IsHeard(const Scenario &Of, const fakehost::FailedCall &Failed);

// The ways in which call `Call` of an undisturbed run fails. A service that tells of no error has one way apart from
// its shortages.
std::vector<fakehost::Fault> FaultsAlone(const fakehost::CountedCall &Call);
// The same for the failures from that call on. Where nothing comes after it, one error stands for all.
std::vector<fakehost::Fault> FaultsFromThereOn(const Scenario &Of, const fakehost::CountedCall &Call);

// How many failures that makes for a scenario.
struct FailureCount {
    std::size_t Alone = 0;
    std::size_t FromThereOn = 0;
};
FailureCount CountFailures(const Scenario &Of, const Outcome &Undisturbed);

// Whether a service tells only that it failed.
bool TellsNoError(const std::string &Call);

#endif
