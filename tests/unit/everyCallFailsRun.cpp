#include "everyCallFailsRun.h"

#include <algorithm>
#include <cerrno>

using fakehost::CountedCall;
using fakehost::EntryKind;
using fakehost::FailedCall;
using fakehost::Fault;

namespace {

void Inject(fakehost::Host &Host, const Failing &How)
{
    if (How.Which == Failing::Mode::Alone) {
        Host.Failures.FailNth(How.Nth, How.How);
    } else if (How.Which == Failing::Mode::FromThereOn) {
        Host.Failures.FailFrom(How.Nth, How.How);
    } else {
        Host.KeepCounted();
    }
}

Files ConfigurationOf(const fakehost::Host &Host)
{
    Files Out;
    std::copy_if(Host.Files.All().begin(), Host.Files.All().end(), std::inserter(Out, Out.end()),
                 [](const auto &Each) { return Each.first.starts_with("/etc/kavel/"); });
    return Out;
}

std::vector<Fault> Faults(const CountedCall &Call, bool OneError)
{
    std::vector<Fault> Out(kErrors.begin(), kErrors.end());
    if (OneError) {
        Out = {-ENOMEM};
    }
    Out.insert(Out.end(), Call.Known.begin(), Call.Known.end());
    return Out;
}

} // namespace

Outcome RunScenario(const Scenario &Of, const Failing &How)
{
    fakehost::Host Host;
    Host.Calls.Record(EntryKind::Memory, false);
    Host.Log.KeepLines(false);
    // A record is 17 MB. New ones would take most of the time.
    Host.Memory.FillFreshBytes(false);
    Host.Memory.ReuseRecords();
    Of.Prepare(Host);
    Inject(Host, How);
    Outcome Out;
    Out.Before = ConfigurationOf(Host);
    errno = 0;
    Out.Result = Of.Run();
    Out.Entries = Host.Calls.Entries();
    Out.Counted = Host.Counted();
    Out.Failed = Host.Failed();
    Out.After = ConfigurationOf(Host);
    Out.Written = Host.Files.Written();
    Out.Violations = Host.Verify();
    return Out;
}

const Rule &RuleOf(const Scenario &Of, const std::string &Call, std::size_t Nth, Fault How)
{
    static const Rule Reported{.Call = "", .IsIgnored = false};
    const auto Found = std::find_if(Of.Exceptions.begin(), Of.Exceptions.end(),
                                    [&](const Rule &Each) { return Each.Covers(Call, Nth, How); });
    return Found == Of.Exceptions.end() ? Reported : *Found;
}

bool IsReported(const Scenario &Of, const FailedCall &Failed)
{
    return !RuleOf(Of, Failed.Text, Failed.Nth, Failed.How).IsIgnored;
}

bool ReportsNoError(const std::string &Call)
{
    constexpr std::array Silent{"VQ_AgentMem",
                                "VQ_SNPrintf",
                                "VQ_SafeStr",
                                "json_",
                                "VQ_RtcNetioWan",
                                "VQ_RtcNetioLan",
                                "VQ_SqliteGetDnsMasqConf"};
    return std::any_of(Silent.begin(), Silent.end(), [&](const char *Each) { return Call.starts_with(Each); });
}

std::vector<Fault> FaultsAlone(const CountedCall &Call)
{
    return Faults(Call, ReportsNoError(Call.Text));
}

std::vector<Fault> FaultsFromThereOn(const Scenario &Of, const CountedCall &Call)
{
    const bool IsLast = !Of.IsRecovery && !RuleOf(Of, Call.Text, Call.Nth, -ENOMEM).IsIgnored;
    return Faults(Call, ReportsNoError(Call.Text) && IsLast);
}

FailureCount CountFailures(const Scenario &Of, const Outcome &Undisturbed)
{
    FailureCount Out;
    for (const CountedCall &Call : Undisturbed.Counted) {
        Out.Alone += FaultsAlone(Call).size();
        Out.FromThereOn += FaultsFromThereOn(Of, Call).size();
    }
    return Out;
}
