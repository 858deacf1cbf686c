// The expected behaviour of a run with failures, computed from the run without failures and the rules of the scenario.
#ifndef EVERY_CALL_FAILS_EXPECTED_H
#define EVERY_CALL_FAILS_EXPECTED_H

#include "everyCallFailsRun.h"

// The effects of a run: the calls that change something outside the process, in order. Routes are without their
// interface.
std::vector<std::string> EffectsOf(const Outcome &Run);

// The effects of the undisturbed run that remain with the failures of `Run`: none after a failure that is reported, and
// all that are not skipped after a failure that is ignored.
std::vector<std::string> ExpectedEffects(const Scenario &Of, const Outcome &Undisturbed, const Outcome &Run);

// The calls after the first reported failure, except those that release resources.
std::vector<std::string> CallsAfterTheEnd(const Scenario &Of, const Outcome &Run);

// The expected files: the content of the undisturbed run if the write succeeded, otherwise the old content.
Files ExpectedFiles(const Outcome &Undisturbed, const Outcome &Run);

#endif
