// What the failures of a scenario's calls lead to, as a text that a person can review: the run without a failure line
// by line, then each distinct outcome once with every failure that leads to it. failures/README.md explains the format.
#ifndef EVERY_CALL_FAILS_TEXT_H
#define EVERY_CALL_FAILS_TEXT_H

#include "everyCallFailsRun.h"

// One way in which a call fails, and the run with this failure.
struct FailedRun {
    fakehost::Fault How;
    Outcome Run;
};

class FailureText {
  public:
    explicit FailureText(const Outcome &Undisturbed);

    // Adds a call that can fail. `Runs` has one run for each way in which it fails. Add the calls in the order of the
    // undisturbed run.
    void Add(const fakehost::CountedCall &Call, const std::vector<FailedRun> &Runs);

    [[nodiscard]] std::string Text() const;

  private:
    // A call that can fail. Recorded calls have the number of their line; the others follow line `Line` and are
    // numbered from 1 behind each line.
    struct Call {
        std::string Text;
        std::size_t Line = 0;
        std::size_t Behind = 0; // 0: recorded

        [[nodiscard]] std::string Label() const;
    };

    struct Cause {
        std::size_t Call = 0; // index in m_Calls
        fakehost::Fault How;
        int Error = 0; // the positive number for which E stands; 0: E does not occur
    };

    // What comes after a failure: lines with E for the error, the last of which says how the run ends.
    struct Consequence {
        std::vector<std::string> Lines;
        std::vector<Cause> Causes;
    };

    static bool IsError(const Cause &Each);
    [[nodiscard]] std::vector<std::string> LinesAfterFailure(const Outcome &Run) const;
    [[nodiscard]] std::string UndisturbedRun() const;
    [[nodiscard]] std::string Heading(const Consequence &Each) const;
    [[nodiscard]] std::string CauseText(const std::vector<Cause> &CausesOfCall) const;

    std::vector<std::string> m_Lines;
    VQ_ERR_T m_Result;
    std::vector<Call> m_Calls;
    std::vector<Consequence> m_Consequences;
};

#endif
