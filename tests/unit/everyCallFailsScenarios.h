// The scenarios in which every host call is made to fail.
#ifndef EVERY_CALL_FAILS_SCENARIOS_H
#define EVERY_CALL_FAILS_SCENARIOS_H

#include <iosfwd>

#include "everyCallFailsRules.h"
#include "vqPlatform.h"

struct Scenario {
    const char *Name;
    // The exported function that `Run` calls.
    const char *Function;
    void (*Prepare)(fakehost::Host &Host);
    VQ_ERR_T (*Run)();
    Rules Exceptions = {};
    // Several records are applied independently. A reported failure ends one record and is not returned to the caller.
    bool IsRecovery = false;
};

std::ostream &operator<<(std::ostream &Out, const Scenario &Each);

const std::vector<Scenario> &Scenarios();
// The exported functions that make no call that can fail.
const std::vector<Scenario> &ScenariosWithoutFailures();

#endif
