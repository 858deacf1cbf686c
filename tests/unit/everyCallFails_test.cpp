// Makes every host call fail, once alone and once together with all calls after it. In every run nothing may leak or be
// released twice, the thread must be back in its namespace, every log site must be complete, no wrong step may be done
// or left out, and no file may be damaged. The failure must be reported to the caller, unless a rule of the scenario
// says that it is ignored. failures/ has the exact outcome of each failure alone.
//
// With KAVEL_REGENERATE_GOLDEN=1 in the environment, the test writes the texts in failures/ again.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "everyCallFailsExpected.h"
#include "everyCallFailsText.h"

namespace {

namespace fs = std::filesystem;

using fakehost::CountedCall;
using fakehost::FailedCall;
using fakehost::Fault;
using testing::IsEmpty;

std::string TextOf(Fault How)
{
    return How.Error() != 0 ? std::to_string(How.Error()) : fakehost::TextOf(How.Lack());
}

std::string TextOf(const Failing &How)
{
    return "call " + std::to_string(How.Nth) + ": " + TextOf(How.How);
}

std::string ReadFile(const fs::path &Path)
{
    std::ifstream Stream(Path, std::ios::binary);
    return {std::istreambuf_iterator<char>(Stream), std::istreambuf_iterator<char>()};
}

fs::path TextPath(const Scenario &Of)
{
    return fs::path(KAVEL_FAILURES_DIRECTORY) / (std::string(Of.Name) + ".txt");
}

class EveryCallFails : public testing::TestWithParam<Scenario> {
  protected:
    void SetUp() override
    {
        m_Undisturbed = RunScenario(GetParam());
        EXPECT_GE(m_Undisturbed.Result, 0);
        EXPECT_THAT(m_Undisturbed.Violations, IsEmpty());
        ASSERT_THAT(m_Undisturbed.Counted, testing::Not(IsEmpty()));
    }

    Outcome RunOnce(const Failing &How)
    {
        SCOPED_TRACE(TextOf(How));
        ++m_Tried;
        Outcome Run = RunScenario(GetParam(), How);
        EXPECT_THAT(Run.Failed, testing::Not(IsEmpty()));
        EXPECT_THAT(Run.Violations, IsEmpty());
        EXPECT_THAT(CallsAfterTheEnd(GetParam(), Run), IsEmpty());
        EXPECT_EQ(EffectsOf(Run), ExpectedEffects(GetParam(), m_Undisturbed, Run));
        EXPECT_EQ(Run.After, ExpectedFiles(m_Undisturbed, Run));
        CheckResult(Run);
        return Run;
    }

    static void CheckResult(const Outcome &Run)
    {
        std::string Reported;
        for (const FailedCall &Each : Run.Failed) {
            Reported += IsReported(GetParam(), Each) ? Each.Text + '\n' : "";
        }
        EXPECT_EQ(Run.Result < 0, !Reported.empty() && !GetParam().IsRecovery)
            << "gives " << Run.Result << ", not ignored:\n"
            << Reported;
    }

    // Checks that the result and the log lines after the last failure are the same as if that failure had occurred
    // alone.
    void CheckEnd(const Outcome &Run)
    {
        const FailedCall &Last = Run.Failed.back();
        const auto Call =
            std::find_if(m_Undisturbed.Counted.begin(), m_Undisturbed.Counted.end(),
                         [&](const auto &Each) { return Each.Text == Last.Text && Each.Nth == Last.Nth; });
        if (GetParam().IsRecovery || !IsReported(GetParam(), Last) || Call == m_Undisturbed.Counted.end()) {
            return;
        }
        const auto Nth = static_cast<std::size_t>(Call - m_Undisturbed.Counted.begin()) + 1;
        const auto Known = m_Ends.find({Nth, TextOf(Last.How)});
        const Ending &Alone = Known != m_Ends.end() ? Known->second : FailAlone(Nth, Last.How);
        EXPECT_EQ(EndOf(Run), Alone);
    }

    using Ending = std::pair<VQ_ERR_T, std::vector<std::string>>;

    static Ending EndOf(const Outcome &Run)
    {
        Ending Out{Run.Result, {}};
        for (std::size_t At = Run.Failed.back().Recorded; At < Run.Entries.size(); ++At) {
            if (Run.Entries[At].Kind == fakehost::EntryKind::Log) {
                Out.second.push_back(Run.Entries[At].Text());
            }
        }
        return Out;
    }

    const Ending &FailAlone(std::size_t Nth, Fault How)
    {
        const Outcome Alone = RunScenario(GetParam(), {Failing::Mode::Alone, Nth, How});
        return m_Ends[{Nth, TextOf(How)}] = EndOf(Alone);
    }

    std::map<std::pair<std::size_t, std::string>, Ending> m_Ends;
    Outcome m_Undisturbed;
    std::size_t m_Tried = 0;
};

TEST_P(EveryCallFails, Alone)
{
    FailureText Actual(m_Undisturbed);
    for (std::size_t Nth = 1; Nth <= m_Undisturbed.Counted.size() && !HasFailure(); ++Nth) {
        const CountedCall &Call = m_Undisturbed.Counted[Nth - 1];
        std::vector<FailedRun> Runs;
        for (const Fault How : FaultsAlone(Call)) {
            Runs.push_back({How, RunOnce({Failing::Mode::Alone, Nth, How})});
            ASSERT_EQ(Runs.back().Run.Failed.size(), 1U);
            EXPECT_EQ(Runs.back().Run.Failed[0].Text, Call.Text);
        }
        Actual.Add(Call, Runs);
    }
    EXPECT_EQ(m_Tried, CountFailures(GetParam(), m_Undisturbed).Alone);
    if (std::getenv("KAVEL_REGENERATE_GOLDEN") != nullptr) {
        std::ofstream(TextPath(GetParam()), std::ios::binary) << Actual.Text();
        GTEST_SKIP() << "written anew, not compared";
    }
    EXPECT_EQ(Actual.Text(), ReadFile(TextPath(GetParam())));
}

TEST_P(EveryCallFails, WithAllLaterCalls)
{
    for (std::size_t Nth = 1; Nth <= m_Undisturbed.Counted.size() && !HasFailure(); ++Nth) {
        const CountedCall &Call = m_Undisturbed.Counted[Nth - 1];
        const std::vector<Fault> Hows = FaultsFromThereOn(GetParam(), Call);
        for (const Fault How : Hows) {
            const Outcome Run = RunOnce({Failing::Mode::FromThereOn, Nth, How});
            EXPECT_EQ(Run.Failed.at(0).Text, Call.Text);
            CheckEnd(Run);
            // One error may represent all errors only if none of the failed services reports an error number.
            const bool StandsForAll = Hows.size() - Call.Known.size() == 1 && How.Error() != 0;
            EXPECT_TRUE(!StandsForAll || std::all_of(Run.Failed.begin(), Run.Failed.end(), [](const auto &Each) {
                return ReportsNoError(Each.Text);
            })) << TextOf({Failing::Mode::FromThereOn, Nth, How});
        }
    }
    EXPECT_EQ(m_Tried, CountFailures(GetParam(), m_Undisturbed).FromThereOn);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, EveryCallFails, testing::ValuesIn(Scenarios()),
                         [](const auto &Info) { return std::string(Info.param.Name); });

} // namespace
