// One run of a scenario, with or without a failure, and its outcome.
#ifndef EVERY_CALL_FAILS_RUN_H
#define EVERY_CALL_FAILS_RUN_H

#include <array>
#include <map>

#include "everyCallFailsScenarios.h"

// The errors that are injected.
inline constexpr std::array kErrors{-2, -3, -12, -17, -22, -28};

// The number of the failing call, from 1, and how it fails.
struct Failing {
    enum class Mode { None, Alone, FromThereOn };

    Mode Which = Mode::None;
    std::size_t Nth = 0;
    fakehost::Fault How = {};
};

using Files = std::map<std::string, std::string>;

struct Outcome {
    VQ_ERR_T Result = 0;
    // The calls that reach outside the process, and the log lines.
    std::vector<fakehost::Entry> Entries;
    std::vector<fakehost::CountedCall> Counted;
    std::vector<fakehost::FailedCall> Failed;
    Files Before;
    Files After;
    // The paths that a service wrote successfully.
    std::vector<std::string> Written;
    std::vector<std::string> Violations;
};

Outcome RunScenario(const Scenario &Of, const Failing &How = {});

// The first rule of the scenario that covers the failure, otherwise a rule that reports it.
const Rule &RuleOf(const Scenario &Of, const std::string &Call, std::size_t Nth, fakehost::Fault How);

// Whether the failure is reported to the caller or, if several records are applied, ends the current one.
bool IsReported(const Scenario &Of, const fakehost::FailedCall &Failed);

// The ways in which `Call` of an undisturbed run can fail. A service that reports no error number has one way and its
// shortages.
std::vector<fakehost::Fault> FaultsAlone(const fakehost::CountedCall &Call);
// The same for runs in which all later calls fail, too. If no call follows, one error represents all.
std::vector<fakehost::Fault> FaultsFromThereOn(const Scenario &Of, const fakehost::CountedCall &Call);

// The number of failures in a scenario.
struct FailureCount {
    std::size_t Alone = 0;
    std::size_t FromThereOn = 0;
};
FailureCount CountFailures(const Scenario &Of, const Outcome &Undisturbed);

// Whether the service only reports that it failed, without an error number.
bool ReportsNoError(const std::string &Call);

#endif
