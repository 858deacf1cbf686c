// What is printed about a message that was applied.
#ifndef KAVEL_CTL_APPLY_OUTPUT_H
#define KAVEL_CTL_APPLY_OUTPUT_H

#include <string>

#include "control.pb-c.h"
#include "session.h"

namespace kavel::ctl {

// The notes of a reply, on standard error.
void PrintNotes(const Session &session, const std::string &subject, const Kavel__Reply &reply);

// "applied", and what is wrong with the service.
[[nodiscard]] std::string AppliedText(const Kavel__Reply &reply);

// The exit code that an APPLY leads to: kDone, kRefused, or kNotAsAsked if the service is not in the state that the
// message asks for.
[[nodiscard]] int OutcomeOf(const Kavel__Reply &reply);

// Prints the outcome of an APPLY: "SUBJECT: applied" or "SUBJECT: refused ...", and on standard error what is wrong
// besides. Returns the exit code.
int ReportApplied(const Session &session, const std::string &subject, const Kavel__Reply &reply);

} // namespace kavel::ctl

#endif
