#include "everyCallFailsExpected.h"

#include <algorithm>
#include <array>

using fakehost::EntryKind;
using fakehost::FailedCall;
using fakehost::Shortage;

namespace {

bool StartsWithAny(const std::string &Text, const std::vector<std::string> &Beginnings)
{
    return std::any_of(Beginnings.begin(), Beginnings.end(),
                       [&](const std::string &Each) { return Text.starts_with(Each); });
}

bool IsEffect(const std::string &Call)
{
    constexpr std::array Changing{"VQ_WriteSyncWithFilePath(",
                                  "VQ_WriteWithFilePath(",
                                  "VQ_CreateFilePath(",
                                  "VQ_RemoveDirRecursion(",
                                  "VQ_CmdExec(",
                                  "VQ_KillPid(",
                                  "kill(",
                                  "mkdir(",
                                  "remove(",
                                  "VQ_RTCRouteAdd(",
                                  "VQ_RTCRouteDel(",
                                  "VQ_RtcRuleConfAdd(",
                                  "VQ_RtcRuleConfDel(",
                                  "VQ_SqliteDnsMasqConfOp("};
    return std::any_of(Changing.begin(), Changing.end(), [&](const char *Each) { return Call.starts_with(Each); });
}

std::string EffectText(const std::string &Call)
{
    return Call.starts_with("VQ_RTCRouteAdd(") ? Call.substr(0, Call.find(" dev ")) : Call;
}

struct Effect {
    std::string Text;
    // The number of the record, from 1, if several are applied.
    std::size_t Record;
};

using Plan = std::vector<Effect>;

// A record begins with its hosts file.
Plan PlanOf(const Scenario &Of, const Outcome &Undisturbed)
{
    Plan Out;
    std::size_t Record = 0;
    for (const std::string &Each : EffectsOf(Undisturbed)) {
        Record += Of.IsRecovery && Each.find("/hosts\"") != std::string::npos ? 1 : 0;
        Out.push_back({Each, Record});
    }
    return Out;
}

// The number of effects up to and including the failing call.
std::size_t EffectsUntil(const Outcome &Run, const FailedCall &Failed)
{
    const auto End = Run.Entries.begin() + static_cast<std::ptrdiff_t>(Failed.Recorded);
    return static_cast<std::size_t>(
        std::count_if(Run.Entries.begin(), End, [](const auto &Each) { return IsEffect(Each.Text()); }));
}

// The record that is being applied when a call fails after `Done` effects.
std::size_t RecordAt(const Plan &Expected, const FailedCall &Failed, std::size_t Done)
{
    const std::size_t At = IsEffect(Failed.Text) ? Done - 1 : Done;
    return At < Expected.size() ? Expected[At].Record : 0;
}

// A lost row makes fewer calls than the others, so `Earliest` may name a lost row. Then the next row is meant.
void LoseRow(std::size_t Earliest, Plan &Expected)
{
    const auto First =
        std::find_if(Expected.begin(), Expected.end(), [=](const Effect &Each) { return Each.Record >= Earliest; });
    const std::size_t Row = First == Expected.end() ? Earliest : First->Record;
    std::erase_if(Expected, [=](const Effect &Each) { return Each.Record == Row; });
}

void Apply(const Rule &Found, const FailedCall &Failed, std::size_t Done, Plan &Expected)
{
    if (Found.CallsPerRow > 0) {
        LoseRow((Failed.Nth - 1) / Found.CallsPerRow + 1, Expected);
        return;
    }
    if (Found.EndsAll) {
        Expected.clear();
        return;
    }
    if (Done > Expected.size()) {
        return;
    }
    const std::size_t Record = RecordAt(Expected, Failed, Done);
    const auto Next = Expected.begin() + static_cast<std::ptrdiff_t>(Done);
    const auto Kept = std::remove_if(Next, Expected.end(), [&](const Effect &Each) {
        return Each.Record == Record && (!Found.IsIgnored || StartsWithAny(Each.Text, Found.Skips));
    });
    Expected.erase(Kept, Expected.end());
    for (const std::string &Each : Found.Adds) {
        Expected.insert(Expected.begin() + static_cast<std::ptrdiff_t>(Done), {Each, Record});
    }
}

} // namespace

std::vector<std::string> EffectsOf(const Outcome &Run)
{
    std::vector<std::string> Out;
    for (const fakehost::Entry &Each : Run.Entries) {
        if (IsEffect(Each.Text())) {
            Out.push_back(EffectText(Each.Text()));
        }
    }
    return Out;
}

std::vector<std::string> ExpectedEffects(const Scenario &Of, const Outcome &Undisturbed, const Outcome &Run)
{
    Plan Expected = PlanOf(Of, Undisturbed);
    for (const FailedCall &Failed : Run.Failed) {
        Apply(RuleOf(Of, Failed.Text, Failed.Nth, Failed.How), Failed, EffectsUntil(Run, Failed), Expected);
    }
    std::vector<std::string> Out;
    std::transform(Expected.begin(), Expected.end(), std::back_inserter(Out),
                   [](const Effect &Each) { return Each.Text; });
    return Out;
}

std::vector<std::string> CallsAfterTheEnd(const Scenario &Of, const Outcome &Run)
{
    const std::vector<std::string> Releases{"VQ_RtcNetioNodeListRelease(", "VQ_SqliteConfListRelease(", "closedir(",
                                            "VQ_RtcNetNsSwitchToDefault("};
    const auto First = std::find_if(Run.Failed.begin(), Run.Failed.end(),
                                    [&](const FailedCall &Each) { return IsReported(Of, Each); });
    std::vector<std::string> Out;
    if (Of.IsRecovery || First == Run.Failed.end()) {
        return Out;
    }
    const Effects &Adds = RuleOf(Of, First->Text, First->Nth, First->How).Adds;
    for (std::size_t At = First->Recorded; At < Run.Entries.size(); ++At) {
        const std::string Text = Run.Entries[At].Text();
        if (Run.Entries[At].Kind == EntryKind::World && !StartsWithAny(Text, Releases) && !StartsWithAny(Text, Adds)) {
            Out.push_back(Text);
        }
    }
    return Out;
}

Files ExpectedFiles(const Outcome &Undisturbed, const Outcome &Run)
{
    const auto Fails = [&](const std::string &Call) {
        return std::any_of(Run.Failed.begin(), Run.Failed.end(),
                           [&](const FailedCall &Each) { return Each.Text.starts_with(Call); });
    };
    const auto Calls = EffectsOf(Run);
    const bool Removes = std::any_of(
        Calls.begin(), Calls.end(), [](const std::string &Each) { return Each.starts_with("VQ_RemoveDirRecursion("); });
    Files Out = Removes && !Fails("VQ_RemoveDirRecursion(") ? Undisturbed.After : Run.Before;
    for (const std::string &Path : Run.Written) {
        Out[Path] = Undisturbed.After.at(Path);
    }
    for (const FailedCall &Each : Run.Failed) {
        if (Each.How.Lack() == Shortage::FewerBytes && Each.Text.find("FilePath(") != std::string::npos) {
            const std::size_t Quote = Each.Text.find('"') + 1;
            std::string &Content = Out[Each.Text.substr(Quote, Each.Text.find('"', Quote) - Quote)];
            Content.resize(Content.size() / 2);
        }
    }
    return Out;
}
