#include "everyCallFailsText.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>

using fakehost::CountedCall;

namespace {

using Lines = std::vector<std::string>;

constexpr std::size_t kWidth = 120;
constexpr const char *kIndent = "    ";
constexpr const char *kUnchanged = "as without a failure";

// Cuts long texts in the middle, such as a row of the store.
std::string Shorten(std::string Text)
{
    constexpr std::size_t Longest = 180;
    constexpr std::size_t Shown = 80;
    if (Text.size() > Longest) {
        Text.replace(Shown, Text.size() - 2 * Shown, " ... ");
    }
    return Text;
}

Lines LinesFrom(const Outcome &Run, std::size_t From)
{
    Lines Out;
    for (std::size_t At = From; At < Run.Entries.size(); ++At) {
        Out.push_back(Shorten(Run.Entries[At].Text()));
    }
    return Out;
}

std::string ResultText(VQ_ERR_T Result)
{
    return "result " + std::to_string(Result);
}

// The items one after another, on as many lines as they need.
std::string Wrap(const Lines &Items, const std::string &Indent, const std::string &NextIndent)
{
    std::string Out;
    std::string Line = Indent;
    bool IsEmpty = true;
    for (const std::string &Each : Items) {
        if (!IsEmpty && Line.size() + 1 + Each.size() > kWidth) {
            Out += Line + '\n';
            Line = NextIndent;
            IsEmpty = true;
        }
        Line += (IsEmpty ? "" : " ") + Each;
        IsEmpty = false;
    }
    return Out + Line;
}

bool ReplaceAll(std::string &Text, const std::string &Old, const std::string &New)
{
    bool Found = false;
    for (std::size_t At = Text.find(Old); At != std::string::npos; At = Text.find(Old, At + New.size())) {
        Text.replace(At, Old.size(), New);
        Found = true;
    }
    return Found;
}

std::string NumberAndText(int Error)
{
    return '(' + std::to_string(Error) + ':' + std::strerror(Error) + ')';
}

// Puts E in the place of the positive number `Error`. False when it does not occur.
bool PutE(Lines &All, int Error)
{
    const std::string Number = std::to_string(-Error);
    bool Found = false;
    for (std::string &Each : All) {
        Found |= ReplaceAll(Each, NumberAndText(Error), "(E:text)");
        Found |= ReplaceAll(Each, "ret = " + Number + ".", "ret = -E.");
        Found |= ReplaceAll(Each, "ret = " + Number + " ", "ret = -E ");
    }
    if (All.back() == ResultText(-Error)) {
        All.back() = "result -E";
        Found = true;
    }
    return Found;
}

// The first number that a line tells with its text; 0 when there is none.
int FirstErrorOf(const Lines &All)
{
    for (const std::string &Each : All) {
        for (std::size_t At = Each.find('('); At != std::string::npos; At = Each.find('(', At + 1)) {
            const int Number = std::atoi(Each.c_str() + At + 1);
            if (Number > 0 && Each.compare(At, NumberAndText(Number).size(), NumberAndText(Number)) == 0) {
                return Number;
            }
        }
    }
    return 0;
}

// Puts E in the place of one error: `Injected` if the lines tell it, otherwise the first one that they tell, otherwise
// the result. Returns its positive number, or 0 if the lines tell no error.
int Generalize(Lines &All, int Injected, VQ_ERR_T Result)
{
    for (const int Each : {-Injected, FirstErrorOf(All), -Result}) {
        if (Each > 0 && PutE(All, Each)) {
            return Each;
        }
    }
    return 0;
}

// The ends that several consequences have in common, each with a number. An end is a consequence without its first
// lines, or a whole one.
class CommonEnds {
  public:
    void Add(const Lines &Consequence)
    {
        for (std::size_t From = 0; From + 1 < Consequence.size(); ++From) {
            Entry &Found = FindOrAdd({Consequence.begin() + static_cast<std::ptrdiff_t>(From), Consequence.end()});
            Found.Before.insert(From > 0 ? Consequence[From - 1] : "");
        }
    }

    void Number()
    {
        std::size_t Next = 0;
        for (Entry &Each : m_Entries) {
            Each.Number = Each.Before.size() > 1 ? ++Next : 0;
        }
    }

    // The lines below `Head`, up to an end that has a number, and that end.
    [[nodiscard]] std::string Render(const std::string &Head, const Lines &All) const
    {
        return Head + RenderFrom(0, (std::string(":\n") + kIndent), All);
    }

    [[nodiscard]] std::string Text() const
    {
        std::string Out;
        for (const Entry &Each : m_Entries) {
            if (Each.Number != 0) {
                Out += "end " + std::to_string(Each.Number) + RenderFrom(1, ": ", Each.End);
            }
        }
        return Out;
    }

  private:
    struct Entry {
        Lines End;
        // The lines that stand directly before it; an empty one if it is a whole consequence.
        std::set<std::string> Before;
        std::size_t Number = 0; // 0: used once, written where it is used
    };

    // `From`: the first line at which an end with a number may begin.
    [[nodiscard]] std::string RenderFrom(std::size_t From, const std::string &BeforeFirst, const Lines &All) const
    {
        std::string Out;
        for (std::size_t At = 0; At + 1 < All.size(); ++At) {
            const std::size_t Number =
                At >= From ? NumberOf({All.begin() + static_cast<std::ptrdiff_t>(At), All.end()}) : 0;
            if (Number != 0) {
                return Out + " => end " + std::to_string(Number) + '\n';
            }
            Out += (At == 0 ? BeforeFirst : std::string("\n") + kIndent) + All[At];
        }
        return Out + " => " + All.back() + '\n';
    }

    Entry &FindOrAdd(const Lines &End)
    {
        const auto Found =
            std::find_if(m_Entries.begin(), m_Entries.end(), [&](const Entry &Each) { return Each.End == End; });
        return Found != m_Entries.end() ? *Found : m_Entries.emplace_back(Entry{End, {}, 0});
    }

    [[nodiscard]] std::size_t NumberOf(const Lines &End) const
    {
        const auto Found =
            std::find_if(m_Entries.begin(), m_Entries.end(), [&](const Entry &Each) { return Each.End == End; });
        return Found->Number;
    }

    std::vector<Entry> m_Entries;
};

struct Row {
    std::size_t At = 0;
    std::size_t Count = 0;
};

// The longest row of `Some` from `From` on that also stands in `All` from `Next` on.
Row LongestRow(const Lines &Some, std::size_t From, const Lines &All, std::size_t Next)
{
    Row Longest;
    for (std::size_t Place = Next; Place < All.size(); ++Place) {
        std::size_t Count = 0;
        while (From + Count < Some.size() && Place + Count < All.size() && Some[From + Count] == All[Place + Count]) {
            ++Count;
        }
        if (Count > Longest.Count) {
            Longest = {Place, Count};
        }
    }
    return Longest;
}

} // namespace

FailureText::FailureText(const Outcome &Undisturbed) : m_Lines(LinesFrom(Undisturbed, 0)), m_Result(Undisturbed.Result)
{
}

std::string FailureText::Call::Label() const
{
    return Behind == 0 ? std::to_string(Line) : std::to_string(Line) + '.' + std::to_string(Behind);
}

// What is recorded after the failure, with line numbers for what the undisturbed run records, too, and the result.
std::vector<std::string> FailureText::LinesAfterFailure(const Outcome &Run) const
{
    std::size_t Next = Run.Failed.at(0).Recorded;
    const Lines After = LinesFrom(Run, Next);
    if (std::equal(After.begin(), After.end(), m_Lines.begin() + static_cast<std::ptrdiff_t>(Next), m_Lines.end()) &&
        Run.Result == m_Result) {
        return {kUnchanged};
    }
    Lines Out;
    for (std::size_t At = 0; At < After.size();) {
        const Row Found = LongestRow(After, At, m_Lines, Next);
        const bool IsEnd = At + Found.Count == After.size() && Found.At + Found.Count == m_Lines.size();
        if (!IsEnd && Found.Count < 2) {
            Out.push_back(After[At++]);
            continue;
        }
        Next = Found.At + Found.Count;
        At += Found.Count;
        Out.push_back("then " + std::to_string(Found.At + 1) +
                      (IsEnd ? " and all after it" : " to " + std::to_string(Next)));
    }
    Out.push_back(ResultText(Run.Result));
    return Out;
}

void FailureText::Add(const CountedCall &Counted, const std::vector<FailedRun> &Runs)
{
    const Outcome &First = Runs.at(0).Run;
    const std::size_t Line = First.Failed.at(0).Recorded;
    const bool IsRecorded = Line > 0 && First.Entries.at(Line - 1).Text() == Counted.Text;
    const bool IsNextBehind = !m_Calls.empty() && m_Calls.back().Line == Line;
    const std::size_t Behind = IsNextBehind ? m_Calls.back().Behind + 1 : 1;
    m_Calls.push_back({Counted.Text, Line, IsRecorded ? 0 : Behind});
    for (const FailedRun &Each : Runs) {
        Lines After = LinesAfterFailure(Each.Run);
        // The number of an error that the service cannot tell says nothing.
        const int Error = Generalize(After, ReportsNoError(Counted.Text) ? 0 : Each.How.Error(), Each.Run.Result);
        auto Found = std::find_if(m_Consequences.begin(), m_Consequences.end(),
                                  [&](const Consequence &Other) { return Other.Lines == After; });
        if (Found == m_Consequences.end()) {
            Found = m_Consequences.insert(m_Consequences.end(), {After, {}});
        }
        Found->Causes.push_back({m_Calls.size() - 1, Each.How, Error});
    }
}

bool FailureText::IsError(const Cause &Each)
{
    return Each.How.Error() != 0;
}

// How one call fails. `CausesOfCall`: all of its failures that have one consequence.
std::string FailureText::CauseText(const std::vector<Cause> &CausesOfCall) const
{
    const bool ReportsNone = ReportsNoError(m_Calls[CausesOfCall.at(0).Call].Text);
    std::vector<Cause> Errors;
    std::copy_if(CausesOfCall.begin(), CausesOfCall.end(), std::back_inserter(Errors), IsError);
    // An error that gives the number of another one, too, does not give its own.
    const bool IsOwn = !ReportsNone && std::all_of(Errors.begin(), Errors.end(),
                                                   [](const Cause &Each) { return Each.Error == -Each.How.Error(); });
    const bool IsAny = Errors.size() == kErrors.size() &&
                       (IsOwn || std::all_of(Errors.begin(), Errors.end(),
                                             [&](const Cause &Each) { return Each.Error == Errors[0].Error; }));
    std::vector<std::pair<std::string, std::string>> NamesByNumber;
    for (const Cause &Each : CausesOfCall) {
        const std::string Told = IsOwn && IsError(Each) ? " (E)" : " (E = " + std::to_string(Each.Error) + ')';
        const std::string Number = Each.Error == 0 ? "" : Told;
        std::string Name = fakehost::TextOf(Each.How.Lack());
        if (IsError(Each)) {
            Name = ReportsNone ? "fails" : IsAny ? "any error" : std::to_string(Each.How.Error());
        }
        if (NamesByNumber.empty() || NamesByNumber.back().second != Number) {
            NamesByNumber.emplace_back(Name, Number);
        } else if (Name != "any error") {
            NamesByNumber.back().first += ", " + Name;
        }
    }
    std::string Out;
    for (const auto &[Names, Number] : NamesByNumber) {
        Out += (Out.empty() ? "" : " and ") + Names + Number;
    }
    return Out;
}

// Every failure that leads to the consequence: calls that fail alike stand together.
std::string FailureText::Heading(const Consequence &Each) const
{
    std::map<std::size_t, std::vector<Cause>> ByCall;
    for (const Cause &One : Each.Causes) {
        ByCall[One.Call].push_back(One);
    }
    std::vector<std::pair<std::string, std::vector<std::size_t>>> Alike;
    for (const auto &[Index, Causes] : ByCall) {
        const std::string Text = CauseText(Causes);
        auto Found = std::find_if(Alike.begin(), Alike.end(), [&](const auto &Other) { return Other.first == Text; });
        if (Found == Alike.end()) {
            Found = Alike.insert(Alike.end(), {Text, {}});
        }
        Found->second.push_back(Index);
    }
    Lines Items;
    for (const auto &[Text, Calls] : Alike) {
        for (std::size_t At = 0; At < Calls.size(); ++At) {
            std::string Label = m_Calls[Calls[At]].Label();
            const std::size_t First = At;
            while (At + 1 < Calls.size() && Calls[At + 1] == Calls[At] + 1) {
                ++At;
            }
            Label += At > First ? '-' + m_Calls[Calls[At]].Label() : "";
            Items.push_back(Label + (At + 1 < Calls.size() ? "," : ' ' + Text + ';'));
        }
    }
    Items.back().pop_back();
    return Wrap(Items, "", "  ");
}

std::string FailureText::UndisturbedRun() const
{
    std::ostringstream Out;
    auto Next = m_Calls.begin();
    for (std::size_t Line = 0; Line <= m_Lines.size(); ++Line) {
        if (Line > 0) {
            Out << Line << ": " << m_Lines[Line - 1] << '\n';
        }
        Lines Behind;
        for (; Next != m_Calls.end() && Next->Line == Line; ++Next) {
            if (Next->Behind != 0) {
                Behind.push_back(Next->Label() + ' ' + Shorten(Next->Text) + ';');
            }
        }
        if (!Behind.empty()) {
            Behind.back().pop_back();
            Out << Wrap(Behind, kIndent, kIndent) << '\n';
        }
    }
    Out << kIndent << "=> " << ResultText(m_Result) << '\n';
    return Out.str();
}

std::string FailureText::Text() const
{
    CommonEnds Ends;
    for (const Consequence &Each : m_Consequences) {
        Ends.Add(Each.Lines);
    }
    Ends.Number();
    std::string Out = "Without a failure\n" + UndisturbedRun();
    const std::string EndsText = Ends.Text();
    Out += EndsText.empty() ? "" : "\nEnds\n" + EndsText;
    Out += "\nOne call fails\n";
    for (const Consequence &Each : m_Consequences) {
        Out += Ends.Render(Heading(Each), Each.Lines);
    }
    return Out;
}
