// Prints how many calls and failures each scenario has, and checks that no exported function is left out.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "everyCallFailsRun.h"

namespace {

namespace fs = std::filesystem;

// One row of the table.
struct Row {
    std::size_t Calls = 0;
    std::size_t Allocations = 0;
    FailureCount Failures;

    Row &operator+=(const Row &Other)
    {
        Calls += Other.Calls;
        Allocations += Other.Allocations;
        Failures.Alone += Other.Failures.Alone;
        Failures.FromThereOn += Other.Failures.FromThereOn;
        return *this;
    }
};

std::ostream &operator<<(std::ostream &Out, const Row &Each)
{
    return Out << Each.Calls << " | " << Each.Allocations << " | " << Each.Failures.Alone << " | "
               << Each.Failures.FromThereOn << " | " << Each.Failures.Alone + Each.Failures.FromThereOn << " |\n";
}

Row Measure(const Scenario &Of)
{
    const Outcome Undisturbed = RunScenario(Of);
    Row Out;
    Out.Failures = CountFailures(Of, Undisturbed);
    Out.Allocations =
        static_cast<std::size_t>(std::count_if(Undisturbed.Counted.begin(), Undisturbed.Counted.end(),
                                               [](const auto &Each) { return Each.Text.starts_with("VQ_AgentMem"); }));
    Out.Calls = Undisturbed.Counted.size() - Out.Allocations;
    return Out;
}

TEST(EveryCallFailsTable, PrintsCallsAndFailures)
{
    Row Total;
    std::cout << "| Scenario | Calls | Allocations | Failures alone | With all after | Together |\n"
                 "|---|---|---|---|---|---|\n";
    for (const Scenario &Each : Scenarios()) {
        const Row Measured = Measure(Each);
        // Every call can fail in at least one way, in both modes.
        EXPECT_GE(Measured.Calls, 1U) << Each.Name;
        EXPECT_GE(Measured.Failures.Alone, Measured.Calls + Measured.Allocations) << Each.Name;
        EXPECT_GE(Measured.Failures.FromThereOn, Measured.Calls + Measured.Allocations) << Each.Name;
        std::cout << "| " << Each.Name << " | " << Measured;
        Total += Measured;
    }
    std::cout << "| all " << Scenarios().size() << " | " << Total;
}

std::set<std::string> FunctionsOf(const std::vector<Scenario> &All)
{
    std::set<std::string> Out;
    std::transform(All.begin(), All.end(), std::inserter(Out, Out.end()),
                   [](const Scenario &Each) { return Each.Function; });
    return Out;
}

TEST(EveryCallFailsTable, HasEveryExportedFunction)
{
    std::set<std::string> Exported;
    std::ifstream List(KAVEL_EXPORTS_LIST);
    for (std::string Name; std::getline(List, Name);) {
        Exported.insert(Name);
    }
    std::set<std::string> Known = FunctionsOf(Scenarios());
    Known.merge(FunctionsOf(ScenariosWithoutFailures()));
    EXPECT_EQ(Known, Exported);
}

TEST(EveryCallFailsTable, OmitsOnlyFunctionsThatCannotFail)
{
    for (const Scenario &Each : ScenariosWithoutFailures()) {
        const Outcome Run = RunScenario(Each);
        EXPECT_EQ(Run.Result, 0) << Each.Name;
        EXPECT_THAT(Run.Counted, testing::IsEmpty()) << Each.Name;
        EXPECT_THAT(Run.Violations, testing::IsEmpty()) << Each.Name;
    }
}

TEST(EveryCallFailsTable, HasOneTextPerScenario)
{
    std::set<std::string> Texts;
    for (const fs::directory_entry &Each : fs::directory_iterator(KAVEL_FAILURES_DIRECTORY)) {
        if (Each.path().extension() == ".txt") {
            Texts.insert(Each.path().stem().string());
        }
    }
    std::set<std::string> Names;
    for (const Scenario &Each : Scenarios()) {
        Names.insert(Each.Name);
    }
    EXPECT_EQ(Texts, Names);
}

} // namespace
