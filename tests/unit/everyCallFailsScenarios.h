// The runs of the module in which every host call is made to fail.
#ifndef EVERY_CALL_FAILS_SCENARIOS_H
#define EVERY_CALL_FAILS_SCENARIOS_H

#include <iosfwd>

#include "everyCallFailsRules.h"
#include "vqPlatform.h"

struct Scenario {
    const char *Name;
    // The exported function that it calls.
    const char *Function;
    void (*Prepare)(fakehost::Host &Host);
    VQ_ERR_T (*Run)();
    Rules Exceptions = {};
    // Several records are applied, each on its own: what one hears of ends that one, and the caller hears of nothing.
    bool IsRecovery = false;
};

std::ostream &operator<<(std::ostream &Out, const Scenario &Each);

const std::vector<Scenario> &Scenarios();
// Exported functions without a call that could fail.
const std::vector<Scenario> &ScenariosWithoutFailures();

#endif
