#include "everyCallFailsText.h"

#include <algorithm>
#include <cstring>
#include <sstream>

using fakehost::CountedCall;
using fakehost::Fault;
using fakehost::Shortage;

namespace {

constexpr const char *kIndent = "      ";

// A row of the store is longer than a line should be.
std::string Shorten(std::string Text)
{
    constexpr std::size_t Longest = 180;
    constexpr std::size_t Shown = 80;
    if (Text.size() > Longest) {
        Text.replace(Shown, Text.size() - 2 * Shown, " ... ");
    }
    return Text;
}

std::vector<std::string> LinesOf(const Outcome &Run, std::size_t From)
{
    std::vector<std::string> Out;
    for (std::size_t At = From; At < Run.Entries.size(); ++At) {
        Out.push_back(Shorten(Run.Entries[At].Text()));
    }
    return Out;
}

void ReplaceAll(std::string &Text, const std::string &Old, const std::string &New)
{
    for (std::size_t At = Text.find(Old); At != std::string::npos; At = Text.find(Old, At + New.size())) {
        Text.replace(At, Old.size(), New);
    }
}

std::string Generalize(std::string Text, Fault How)
{
    if (How.Error() == 0) {
        return Text;
    }
    const std::string Number = std::to_string(How.Error());
    ReplaceAll(Text, '(' + Number.substr(1) + ':' + std::strerror(-How.Error()) + ')', "(E:text)");
    ReplaceAll(Text, "ret = " + Number + ".", "ret = -E.");
    ReplaceAll(Text, "ret = " + Number + " ", "ret = -E ");
    ReplaceAll(Text, "gives " + Number + "\n", "gives -E\n");
    return Text;
}

std::string TextOfFaults(const CountedCall &Call, const std::vector<Fault> &Hows)
{
    const auto IsError = [](Fault Each) { return Each.Error() != 0; };
    const auto Errors = std::count_if(Hows.begin(), Hows.end(), IsError);
    std::string Out;
    if (TellsNoError(Call.Text) && Errors > 0) {
        Out = "fails";
    } else if (Errors == static_cast<std::ptrdiff_t>(kErrors.size())) {
        Out = "any error E";
    }
    const bool ErrorsTold = !Out.empty();
    for (const Fault Each : Hows) {
        if (!ErrorsTold || !IsError(Each)) {
            Out += Out.empty() ? "" : ", ";
            Out += IsError(Each) ? std::to_string(Each.Error()) : fakehost::TextOf(Each.Lack());
        }
    }
    return Out;
}

} // namespace

FailureText::FailureText(const Outcome &Undisturbed) : m_Lines(LinesOf(Undisturbed, 0)), m_Result(Undisturbed.Result) {}

// The longest row of lines from `At` on that stands in the undisturbed run from `Next` on: where, and how many.
FailureText::Row FailureText::FindRow(const std::vector<std::string> &Lines, std::size_t At, std::size_t Next) const
{
    Row Longest;
    for (std::size_t Place = Next; Place < m_Lines.size(); ++Place) {
        std::size_t Count = 0;
        while (At + Count < Lines.size() && Place + Count < m_Lines.size() &&
               Lines[At + Count] == m_Lines[Place + Count]) {
            ++Count;
        }
        if (Count > Longest.Count) {
            Longest = {Place, Count};
        }
    }
    return Longest;
}

// What comes after the failure, with numbers for what the undisturbed run has, too, and the result.
std::string FailureText::Describe(const FailedRun &Each) const
{
    std::size_t Next = Each.Run.Failed.at(0).Recorded;
    const std::vector<std::string> Lines = LinesOf(Each.Run, Next);
    if (std::equal(Lines.begin(), Lines.end(), m_Lines.begin() + static_cast<std::ptrdiff_t>(Next), m_Lines.end()) &&
        Each.Run.Result == m_Result) {
        return kIndent + std::string("  as without a failure\n");
    }
    std::ostringstream Out;
    for (std::size_t At = 0; At < Lines.size();) {
        const Row Found = FindRow(Lines, At, Next);
        const bool IsEnd = At + Found.Count == Lines.size() && Found.At + Found.Count == m_Lines.size();
        Out << kIndent << "  ";
        if (!IsEnd && Found.Count < 2) {
            Out << Lines[At++] << '\n';
            continue;
        }
        Next = Found.At + Found.Count;
        At += Found.Count;
        Out << "then " << Found.At + 1 << (IsEnd ? " and all after it" : " to " + std::to_string(Next)) << '\n';
    }
    Out << kIndent << "  gives " << Each.Run.Result << '\n';
    return Out.str();
}

std::string FailureText::Blocks(const CountedCall &Call, const std::vector<FailedRun> &Runs) const
{
    std::vector<Consequence> All;
    for (const FailedRun &Each : Runs) {
        const std::string Raw = Describe(Each);
        const std::string General = Generalize(Raw, Each.How);
        auto Found = std::find_if(All.begin(), All.end(), [&](const Consequence &Other) { return Other.Raw == Raw; });
        if (Found == All.end()) {
            Found = std::find_if(All.begin(), All.end(), [&](const Consequence &Other) {
                return Other.General == General && Each.How.Error() != 0;
            });
            if (Found != All.end()) {
                Found->IsGeneral = true;
            }
        }
        if (Found == All.end()) {
            Found = All.insert(All.end(), {{}, Raw, General, false});
        }
        Found->Hows.push_back(Each.How);
    }
    std::string Out;
    for (const Consequence &Each : All) {
        Out += kIndent + TextOfFaults(Call, Each.Hows) + ":\n" + (Each.IsGeneral ? Each.General : Each.Raw);
    }
    return Out;
}

void FailureText::Add(const CountedCall &Call, const std::vector<FailedRun> &Runs)
{
    const std::size_t At = Runs.at(0).Run.Failed.at(0).Recorded;
    const bool IsLine = At > 0 && Runs.at(0).Run.Entries.at(At - 1).Text() == Call.Text;
    const std::string Place = IsLine ? std::to_string(At) : "before " + std::to_string(At + 1);
    const std::string Title = Place + ": " + Shorten(Call.Text) + '\n';
    const std::string Text = Blocks(Call, Runs);
    if (m_Sections.empty() || m_Sections.back().Blocks != Text) {
        m_Sections.push_back({{}, Text});
    }
    m_Sections.back().Calls.push_back(Title);
}

std::string FailureText::Text() const
{
    std::ostringstream Out;
    Out << "Without a failure\n";
    for (std::size_t At = 0; At < m_Lines.size(); ++At) {
        Out << At + 1 << ": " << m_Lines[At] << '\n';
    }
    Out << kIndent << "  gives " << m_Result << "\n\nOne call fails\n";
    for (const Section &Each : m_Sections) {
        for (const std::string &Call : Each.Calls) {
            Out << Call;
        }
        Out << Each.Blocks;
    }
    return Out.str();
}
