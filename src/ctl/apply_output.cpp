#include "apply_output.h"

#include <cstddef>
#include <ostream>

#include "errors.h"
#include "output.h"

namespace kavel::ctl {

namespace {

// Whether the service is in the state that an applied message asks for. An agent that does not know says nothing.
bool IsAsAsked(const Kavel__Reply &reply)
{
    return reply.has_enabled == 0 || reply.has_running == 0 || reply.enabled == reply.running;
}

} // namespace

void PrintNotes(const Session &session, const std::string &subject, const Kavel__Reply &reply)
{
    for (std::size_t i = 0; i < reply.n_notes; ++i) {
        session.err << "vqctl: " << subject << ": " << Printable(reply.notes[i]) << std::endl;
    }
}

std::string AppliedText(const Kavel__Reply &reply)
{
    if (IsAsAsked(reply)) {
        return "applied";
    }
    const std::string state = reply.enabled != 0 ? "applied, NOT RUNNING" : "applied, STILL RUNNING";
    return reply.text != nullptr ? state + ": " + Printable(reply.text) : state;
}

int OutcomeOf(const Kavel__Reply &reply)
{
    if (reply.result < 0) {
        return kRefused;
    }
    return IsAsAsked(reply) ? kDone : kNotAsAsked;
}

int ReportApplied(const Session &session, const std::string &subject, const Kavel__Reply &reply)
{
    if (reply.result < 0) {
        session.out << subject << ": refused " << RefusalText(reply) << std::endl;
        PrintNotes(session, subject, reply);
        return OutcomeOf(reply);
    }
    session.out << subject << ": " << AppliedText(reply) << std::endl;
    if (IsAsAsked(reply) && reply.text != nullptr) {
        session.err << "vqctl: " << subject << ": " << Printable(reply.text) << std::endl;
    }
    PrintNotes(session, subject, reply);
    return OutcomeOf(reply);
}

} // namespace kavel::ctl
