// What a run with failures has to do, worked out from the run without any and from the rules of its scenario.
#ifndef EVERY_CALL_FAILS_EXPECTED_H
#define EVERY_CALL_FAILS_EXPECTED_H

#include "everyCallFailsRun.h"

// The calls of a run that change the world, in order; of a route without its interface.
std::vector<std::string> EffectsOf(const Outcome &Run);

// Those that the failures of `Run` leave of the undisturbed run's: nothing after one that is heard, all that is not
// skipped after one that is swallowed.
std::vector<std::string> ExpectedEffects(const Scenario &Of, const Outcome &Undisturbed, const Outcome &Run);

// Calls after the first failure that is heard which do more than release what is held.
std::vector<std::string> CallsAfterTheEnd(const Scenario &Of, const Outcome &Run);

// A file holds what the undisturbed run leaves where it was written with success, and what it held before otherwise.
Files ExpectedFiles(const Outcome &Undisturbed, const Outcome &Run);

#endif
