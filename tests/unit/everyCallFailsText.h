// What the failures of a scenario's calls lead to, as a text that a person can review: the undisturbed run line by
// line, then every call that can fail with what comes after its failure.
#ifndef EVERY_CALL_FAILS_TEXT_H
#define EVERY_CALL_FAILS_TEXT_H

#include "everyCallFailsRun.h"

// A way in which one call failed, and the run that this gave.
struct FailedRun {
    fakehost::Fault How;
    Outcome Run;
};

class FailureText {
  public:
    explicit FailureText(const Outcome &Undisturbed);

    // The calls in order, each with all its failures.
    void Add(const fakehost::CountedCall &Call, const std::vector<FailedRun> &Runs);

    [[nodiscard]] std::string Text() const;

  private:
    struct Consequence {
        std::vector<fakehost::Fault> Hows;
        std::string Raw;
        // With E for the error.
        std::string General;
        bool IsGeneral = false;
    };

    struct Row {
        std::size_t At = 0;
        std::size_t Count = 0;
    };

    [[nodiscard]] Row FindRow(const std::vector<std::string> &Lines, std::size_t At, std::size_t Next) const;
    [[nodiscard]] std::string Describe(const FailedRun &Each) const;
    [[nodiscard]] std::string Blocks(const fakehost::CountedCall &Call, const std::vector<FailedRun> &Runs) const;

    std::vector<std::string> m_Lines;
    VQ_ERR_T m_Result;
    // Calls in a row that fail alike stand together.
    struct Section {
        std::vector<std::string> Calls;
        std::string Blocks;
    };
    std::vector<Section> m_Sections;
};

#endif
